// See world.hpp.
#include "world.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <plx/s_policy.pb-c.h>

namespace plx::plane {

namespace {

// A port that no test uses: its setting is written to see that everything before it is done.
constexpr uint32_t barrier_port = 4'000'000'000;

std::string fresh_store(const std::string &options)
{
    static int count = 0;
    return "mem:node-test-" + std::to_string(++count) + options;
}

Record marker(const std::string &app, uint32_t operation)
{
    Record record(s_policy__app_commit__descriptor);
    record.set_key_text(0, app.c_str());
    record.set_key_number(1, operation);
    return record;
}

} // namespace

std::ostream &operator<<(std::ostream &out, const Heard &heard)
{
    return out << "table " << heard.key.index() << " status " << heard.status << " request " << heard.request;
}

World::World(const std::string &store_options)
    : loop_(tq_loop_new()), url_(fresh_store(store_options)), application_(context())
{
    for (const Table &table : tables()) {
        const Record whole(*table.status);
        EXPECT_EQ(0, tq_mom_subscribe(application_.get(), db, whole.message(), 0, &World::on_status, this));
    }
    for (const auto *type : {&s_policy__service_node__descriptor, &s_policy__ace_counter__descriptor}) {
        const Record whole(*type);
        EXPECT_EQ(0, tq_mom_subscribe(application_.get(), db, whole.message(), 0, &World::on_publication, this));
    }
}

Context World::context()
{
    return Context(tq_context_new_on(url_.c_str(), loop_.get()));
}

std::unique_ptr<Node> World::node(Plane &plane, uint32_t id)
{
    NodeOptions options{.db = db, .id = id};
    options.heartbeat = options.counters = options.retry = milliseconds(1);
    auto made = std::make_unique<Node>(context(), plane, options);
    EXPECT_EQ(0, made->start());
    return made;
}

SimulatedPlane &World::start(SimulatedOptions options)
{
    SimulatedPlane &plane = *planes_.emplace_back(std::make_unique<SimulatedPlane>(std::move(options)));
    nodes_.push_back(node(plane, static_cast<uint32_t>(nodes_.size())));
    return plane;
}

void World::set(const Key &key, uint64_t request, std::vector<uint8_t> value)
{
    Record record(*tables()[key.index()].requested, key);
    record.set_number("req_uuid", request);
    ProtobufCBinaryData bytes{value.size(), value.data()};
    const auto *message = record.message();
    if (const auto *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, "value"))
        std::memcpy(reinterpret_cast<char *>(const_cast<ProtobufCMessage *>(message)) + field->offset, &bytes,
                    sizeof bytes);
    EXPECT_EQ(0, tq_mom_set_sync(application_.get(), db, message));
}

void World::del(const Key &key)
{
    const Record record(*tables()[key.index()].requested, key);
    EXPECT_EQ(0, tq_mom_del_sync(application_.get(), db, record.message()));
}

void World::set_marker(const std::string &app, uint32_t operation, uint32_t seconds)
{
    Record record = marker(app, operation);
    record.set_number("tm_val", seconds);
    EXPECT_EQ(0, tq_mom_set_sync(application_.get(), db, record.message()));
}

void World::del_marker(const std::string &app, uint32_t operation)
{
    EXPECT_EQ(0, tq_mom_del_sync(application_.get(), db, marker(app, operation).message()));
}

bool World::run_until(const std::function<bool()> &condition)
{
    const milliseconds give_up = now() + milliseconds(20'000); // only a fault takes that long
    while (!condition() && now() < give_up)
        tq_loop_run_once(loop_.get(), 10);
    return condition();
}

// Two rounds: changes of other tables may be delivered after a first one.
void World::settle(size_t nodes)
{
    const Key key = UplinkKey{.phyid = barrier_port, .type = ++barrier_};
    for (size_t round = 1; round <= 2; ++round) {
        set(key, round);
        EXPECT_TRUE(run_until([&] { return answers(key).size() >= nodes * round; })) << "a node does not answer";
    }
}

std::vector<Heard> World::answers(const Key &key) const
{
    std::vector<Heard> found;
    std::copy_if(heard_.begin(), heard_.end(), std::back_inserter(found),
                 [&key](const Heard &heard) { return heard.key == key; });
    return found;
}

std::vector<Key> World::stored(const ProtobufCMessageDescriptor &table) const
{
    std::vector<Key> keys;
    const auto add = [](void *, const tq_mom_notification *notification, void *arg) {
        if (const auto key = key_of(notification->record))
            static_cast<std::vector<Key> *>(arg)->push_back(*key);
        return 0;
    };
    EXPECT_EQ(0, tq_mom_scan_sync(application_.get(), db, Record(table).message(), 0, add, &keys));
    return keys;
}

int32_t World::on_status(void *, const tq_mom_notification *notification, void *arg)
{
    if (notification->event != TQ_MOM_EVENT_STATUS)
        return 0;
    const auto key = key_of(notification->record);
    if (key)
        static_cast<World *>(arg)->heard_.push_back(
            {*key, static_cast<int32_t>(number_field(notification->record, "p_status")),
             number_field(notification->record, "rep_uuid")});
    return 0;
}

int32_t World::on_publication(void *, const tq_mom_notification *notification, void *arg)
{
    auto *self = static_cast<World *>(arg);
    if (notification->event != TQ_MOM_EVENT_PUBLISHED)
        return 0;
    if (notification->record->descriptor == &s_policy__service_node__descriptor) {
        ++self->heartbeats_;
        return 0;
    }
    const auto *counter = reinterpret_cast<const SPolicy__AceCounter *>(notification->record);
    self->counters_.push_back({AceKey{counter->index->t_app_type, counter->index->acl_id, counter->index->sn},
                               static_cast<int32_t>(counter->counter_pkt), counter->counter_byte});
    return 0;
}

SimulatedOptions simulated(std::initializer_list<std::string_view> texts)
{
    SimulatedOptions made;
    for (const std::string_view text : texts)
        EXPECT_TRUE(made.add(text)) << text;
    return made;
}

std::vector<uint8_t> packed(uint32_t type_word, std::vector<uint8_t> value)
{
    const std::array<uint32_t, 2> header{type_word, static_cast<uint32_t>(value.size())};
    std::vector<uint8_t> bytes(sizeof header);
    std::memcpy(bytes.data(), header.data(), sizeof header);
    std::copy(value.begin(), value.end(), std::back_inserter(bytes));
    return bytes;
}

} // namespace plx::plane
