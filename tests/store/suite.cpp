// See suite.hpp.
#include "suite.hpp"

#include <algorithm>
#include <chrono>

namespace {

// The ACL that settle() writes under: no test uses it.
constexpr uint32_t last_acl = 4294967295;
constexpr char last_mark[] = "/4294967295/";

std::string text_of_key(const SPolicy__AceKey *key, uint64_t uuid)
{
    if (key == nullptr)
        return "no key";
    const std::string app = key->t_app_type == nullptr ? "null" : key->t_app_type;
    return app + "/" + std::to_string(key->acl_id) + "/" + std::to_string(key->sn) + "=" + std::to_string(uuid);
}

template <typename Record> const Record *as(const ProtobufCMessage *record)
{
    return reinterpret_cast<const Record *>(record);
}

} // namespace

ace_record::ace_record(std::string app_type, uint32_t acl, uint64_t sn, uint64_t req) : app(std::move(app_type))
{
    s_policy__ace_key__init(&key);
    key.t_app_type = app.data();
    key.acl_id = acl;
    key.sn = sn;
    s_policy__ace__init(&record);
    record.index = &key;
    record.req_uuid = req;
}

void ace_record::set_value(std::string bytes)
{
    value = std::move(bytes);
    record.value = {value.size(), reinterpret_cast<uint8_t *>(value.data())};
}

psta_record::psta_record(std::string app_type, uint32_t acl, uint64_t sn, uint64_t rep) : app(std::move(app_type))
{
    s_policy__ace_key__init(&key);
    key.t_app_type = app.data();
    key.acl_id = acl;
    key.sn = sn;
    s_policy__ace_psta__init(&record);
    record.index = &key;
    record.rep_uuid = rep;
}

std::string text_of(const ProtobufCMessage *record)
{
    if (record == nullptr)
        return "!";
    if (record->descriptor == &s_policy__ace__descriptor)
        return text_of_key(as<SPolicy__Ace>(record)->index, as<SPolicy__Ace>(record)->req_uuid);
    if (record->descriptor == &s_policy__ace_psta__descriptor)
        return text_of_key(as<SPolicy__AcePsta>(record)->index, as<SPolicy__AcePsta>(record)->rep_uuid);
    if (record->descriptor == &s_policy__ace_counter__descriptor)
        return text_of_key(as<SPolicy__AceCounter>(record)->index, as<SPolicy__AceCounter>(record)->counter_pkt);
    return record->descriptor->short_name;
}

int write_ace(tq_context *context, uint32_t db, const ace_record &ace)
{
    constexpr uint32_t fields[] = {6, 7, 8, 9, 10, 11};
    return tq_mom_hmset_sync(context, db, ace, fields, 6);
}

int write_psta(tq_context *context, uint32_t db, const psta_record &psta)
{
    constexpr uint32_t fields[] = {6, 7};
    return tq_mom_hmset_sync(context, db, psta, fields, 2);
}

int32_t hearing::callback(void *, const tq_mom_notification *told, void *arg)
{
    auto &self = *static_cast<hearing *>(arg);
    std::string line = (told->flag != 0 ? "*" : "") + std::to_string(told->event);
    if (told->event != TQ_MOM_EVENT_RESYNC)
        line += " " + text_of(told->record);
    if (told->result != 0)
        line += " " + std::to_string(told->result);
    if (line.find(last_mark) != std::string::npos) {
        self.settled = self.settled || told->event != TQ_MOM_EVENT_DELETED;
        return 0;
    }
    self.lines.push_back(line);
    if (self.also)
        self.also(*told);
    return 0;
}

void store_suite::SetUp()
{
    backend = GetParam().make();
    loop.reset(tq_loop_new());
    ASSERT_TRUE(backend != nullptr && loop != nullptr);
}

tq_context *store_suite::open(const std::string &options)
{
    contexts.emplace_back(tq_context_new_on(backend->url(options).c_str(), loop.get()));
    auto *context = contexts.back().get();
    EXPECT_NE(nullptr, context);
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    return context;
}

void store_suite::close(tq_context *context)
{
    std::erase_if(contexts, [context](const auto &known) { return known.get() == context; });
}

void store_suite::wait_for(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        run_once();
    ASSERT_TRUE(condition());
}

void store_suite::settle(hearing &to, const std::string &app)
{
    const context_ptr other(tq_context_new_on(backend->url("").c_str(), loop.get()));
    const ace_record ace(app, last_acl, 0);
    const psta_record psta(app, last_acl, 0);
    to.settled = false;
    ASSERT_EQ(TQ_MOM_OK, write_ace(other.get(), 8, ace));
    ASSERT_EQ(TQ_MOM_OK, write_psta(other.get(), 8, psta));
    wait_for([&to] { return to.settled; });
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(other.get(), 8, ace));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(other.get(), 8, psta));
}

std::vector<std::string> store_suite::scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection,
                                           uint32_t db)
{
    hearing found;
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, db, record, selection, hearing::callback, &found));
    std::sort(found.lines.begin(), found.lines.end());
    return found.lines;
}

void store_suite::subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection,
                            uint32_t db)
{
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(context, db, record, selection, hearing::callback, &to));
}
