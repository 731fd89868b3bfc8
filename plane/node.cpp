// The node's side towards the store: subscriptions, heartbeat and counters. How the tables are compared and changes are
// made is in node_changes.cpp.
#include "plane/node.hpp"

#include <plx/s_policy.pb-c.h>
#include <sys/time.h>
#include <utility>

namespace plx::plane {

namespace {

uint64_t wall_clock_ms()
{
    timeval time{};
    gettimeofday(&time, nullptr);
    return tq_timeval_to_ms(&time);
}

} // namespace

Node::Node(Context context, Plane &plane, NodeOptions options)
    : options_(options), plane_(plane), context_(std::move(context)),
      commits_(context_.get(), options_.db, [this](const std::string &app) { return compare(&app); }),
      outbox_(context_.get(), options_.db, options_.retry,
              [this](const Key &key, uint64_t request) { return current(key, request); }),
      inbox_timer_(context_->master, [this] { take_changes(); }),
      compare_timer_(context_->master, [this] { compare(); }), heartbeat_timer_(context_->master, [this] { beat(); }),
      counter_timer_(context_->master, [this] { publish_counters(); })
{
}

// The heartbeat comes first: an application that counts on this node waits for its answers, one that does not could
// take a request for complete without them.
int Node::start()
{
    if (const int result = tq_mom_client_connect_sync(context_.get(), options_.db); result != 0)
        return result;
    beat();
    if (const int result = subscribe(); result != 0)
        return result;
    take_up_installed();
    compare();
    watch_plane();
    counter_timer_.start(options_.counters);
    return 0;
}

int Node::subscribe()
{
    const Record markers(s_policy__app_commit__descriptor);
    int result = tq_mom_subscribe(context_.get(), options_.db, markers.message(), 0, &Node::on_marker, this);
    for (const Table &table : tables()) {
        if (result != 0)
            break;
        const Record whole(*table.requested);
        result = tq_mom_subscribe(context_.get(), options_.db, whole.message(), 0, &Node::on_change, this);
    }
    return result;
}

// ---- notifications --------------------------------------------------------------------------------------------------

int32_t Node::on_change(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Node *>(arg);
    if (notification->event == TQ_MOM_EVENT_RESYNC) {
        self->compare_timer_.start(milliseconds(0));
        return 0;
    }
    const bool deleted = notification->event == TQ_MOM_EVENT_DELETED;
    if (!deleted && notification->event != TQ_MOM_EVENT_SET)
        return 0;
    if (notification->record == nullptr || notification->result != 0) {
        self->compare_timer_.start_unless_pending(self->options_.retry);
        return 0;
    }
    if (auto key = key_of(notification->record)) {
        self->inbox_.push_back({std::move(*key), std::nullopt});
        if (!deleted)
            self->inbox_.back().wanted = requested_of(notification->record);
        self->inbox_timer_.start_unless_pending(self->gathering_);
    }
    return 0;
}

int32_t Node::on_marker(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Node *>(arg);
    if (notification->event == TQ_MOM_EVENT_RESYNC) {
        self->commits_.forget();
        self->compare_timer_.start(milliseconds(0));
        return 0;
    }
    self->commits_.take(*notification);
    return 0;
}

// ---- the plane ------------------------------------------------------------------------------------------------------

void Node::watch_plane()
{
    if (plane_.descriptor() < 0)
        return;
    const auto look = [](tq_loop_watch *, int, int, void *node) { static_cast<Node *>(node)->look(); };
    watch_.reset(tq_loop_watch_fd(context_->master, plane_.descriptor(), TQ_LOOP_READABLE, look, this));
}

// What the plane lost differs from what is wanted: comparing with the tables brings it back.
void Node::look()
{
    const std::vector<Key> keys = plane_.look();
    for (const Key &key : keys)
        if (const auto entry = entries_.find(key); entry != entries_.end())
            entry->second.fingerprint = 0;
    if (!keys.empty())
        compare_timer_.start_unless_pending(milliseconds(0));
}

// ---- what the node writes -------------------------------------------------------------------------------------------

void Node::beat()
{
    outbox_.take_answers();
    look();
    Record record(s_policy__service_node__descriptor);
    record.set_key_number(0, options_.dev);
    record.set_key_number(1, options_.slot);
    record.set_key_number(2, options_.id);
    // A failed one is as good as a late one. Who cannot hear what is asked for is not to be counted on.
    if (tq_mom_client_connect_sync(context_.get(), options_.db) == 0 &&
        tq_mom_state_get(context_.get(), options_.db, 0) == 0)
        tq_mom_set_sync(context_.get(), options_.db, record.message());
    heartbeat_timer_.start(options_.heartbeat);
}

// Publishes the counters that changed, as many as the plane reads at one go: work between two looks at the loop is
// bounded, so that a node with a million entries still shows that it lives.
void Node::publish_counters()
{
    outbox_.take_answers();
    const std::vector<std::pair<AceKey, Counters>> read = plane_.counters();
    std::vector<std::pair<Key, Counters>> sent;
    tq_mom_batch_begin(context_.get());
    for (const auto &[ace, counters] : read) {
        const auto published = published_.find(ace);
        const bool told = published != published_.end() && published->second == counters;
        if (!told && entries_.contains(ace) && write(ace, counters) == 0)
            sent.emplace_back(ace, counters);
    }
    std::vector<int> results(sent.size());
    tq_mom_batch_end(context_.get(), results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent.size(); ++i)
        if (results[i] == 0)
            published_[sent[i].first] = sent[i].second;
    counter_timer_.start(read.empty() ? options_.counters : milliseconds(0));
}

// The second pair of counters stays 0: no plane here counts twice.
int Node::write(const Key &ace, const Counters &counters)
{
    Record record(s_policy__ace_counter__descriptor, ace);
    record.set_number("counter_byte", counters.bytes);
    record.set_number("counter_pkt", counters.packets);
    record.set_number("timestamp", wall_clock_ms());
    return tq_mom_set_sync(context_.get(), options_.db, record.message());
}

} // namespace plx::plane
