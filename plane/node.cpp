// The node's side towards the store and the plane: what it hears of, and what it tells. How the tables are compared
// and changes are made is in node_changes.cpp.
#include "plane/node.hpp"

#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <utility>

namespace plx::plane {

namespace {

// The same after a restart: an application counts its answers once.
std::string name_of(const NodeOptions &options)
{
    return std::to_string(options.dev) + '/' + std::to_string(options.slot) + '/' + std::to_string(options.id);
}

} // namespace

Node::Node(Context context, Plane &plane, NodeOptions options)
    : options_(std::move(options)), plane_(plane), context_(std::move(context)),
      inbox_(context_.get(), [this](std::vector<Change> changes) { take_changes(std::move(changes)); }),
      commits_(
          context_.get(), options_.db, [this](const std::string &app) { return compare(&app); },
          [this] { compare_timer_.start_unless_pending(options_.retry); }),
      hold_(context_.get(), {options_.db, options_.hold, options_.heartbeat, options_.tell},
            [this] { compare_timer_.start_unless_pending(milliseconds(0)); }),
      outbox_(context_.get(), options_.db, name_of(options_), options_.retry,
              [this](const Key &key, uint64_t request) { return current(key, request); }),
      report_(context_.get(),
              {options_.db, options_.dev, options_.slot, options_.id, options_.heartbeat, options_.token}),
      life_(
          context_.get(), {options_.db, options_.dev, options_.slot, options_.id, options_.heartbeat}, outbox_,
          [this] { look(); }, [this] { return publish_report(); }),
      leftovers_(context_.get(), {options_.db, options_.leftovers, options_.retry}, outbox_,
                 {[this](const Key &key) { return entries_.contains(key); }, [this] { life_.keep_beating(); }}),
      counter_records_(context_.get(), {options_.db, options_.counters, options_.counter_rate}, plane_, outbox_,
                       [this](const Key &key) { return counter_record(key); }),
      inquiries_(
          context_.get(), options_.db, name_of(options_), plane_,
          [this](const std::string &app) { return refused(app); },
          [this](const std::string &app) { return try_out(app); }, [this] { life_.report(); }),
      compare_timer_(context_->master, [this] { compare(); })
{
    plane_.set_alive([this] { life_.show_when_due(); });
}

// The heartbeat comes first: an application that counts on this node waits for its answers, one that does not could
// take a request for complete without them.
int Node::start()
{
    if (const int result = tq_mom_client_connect_sync(context_.get(), options_.db); result != 0)
        return result;
    life_.beat();
    if (const int result = subscribe(); result != 0)
        return result;
    if (const int result = inquiries_.start(); result != 0)
        return result;
    take_up_installed();
    compare();
    life_.report_soon();
    watch_plane();
    counter_records_.start();
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
    const Record calls(plx_node__node_call__descriptor);
    return result != 0 ? result
                       : tq_mom_subscribe(context_.get(), options_.db, calls.message(), 0, &Node::on_call, this);
}

// ---- notifications --------------------------------------------------------------------------------------------------

int32_t Node::on_change(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Node *>(arg);
    if (notification->event == TQ_MOM_EVENT_RESYNC) {
        if (notification->result == TQ_MOM_NEW_HISTORY)
            self->commits_.forget();
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
    if (auto key = key_of(notification->record))
        self->inbox_.hear(std::move(*key), deleted ? std::nullopt : std::optional(requested_of(notification->record)));
    return 0;
}

int32_t Node::on_marker(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    static_cast<Node *>(arg)->commits_.take(*notification);
    return 0;
}

// Somebody asks who lives.
int32_t Node::on_call(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    if (notification->event == TQ_MOM_EVENT_PUBLISHED)
        static_cast<Node *>(arg)->life_.show_soon();
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
        if (const auto entry = entries_.find(key); entry != entries_.end()) {
            report_.withdraw(key, entry->second);
            entry->second.fingerprint = 0;
            report_.enter(key, entry->second);
        }
    if (!keys.empty())
        compare_timer_.start_unless_pending(milliseconds(0));
}

// ---- what it tells --------------------------------------------------------------------------------------------------

// Not before it is known what the plane has.
std::optional<uint64_t> Node::publish_report()
{
    if (comparisons_ == 0)
        return std::nullopt;
    outbox_.take_answers();
    const uint64_t backlog = inbox_.size() + outbox_.size();
    report_.publish(plane_.describe(), backlog);
    return backlog;
}

CounterRecord *Node::counter_record(const Key &key)
{
    const auto known = entries_.find(key);
    return known == entries_.end() ? nullptr : &known->second;
}

Node::Numbers Node::numbers() const
{
    return {.plane = plane_.describe(),
            .applications = report_.applications(),
            .answers = outbox_.numbers(),
            .plane_calls = plane_calls_,
            .records = entries_.size(),
            .held = hold_.held(),
            .heard = inbox_.size(),
            .answering = outbox_.size(),
            .comparisons = comparisons_,
            .heartbeats = life_.heartbeats(),
            .failed_heartbeats = life_.failed(),
            .since_heartbeat = life_.since_last()};
}

void Node::each_counted(const std::function<void(const AceKey &, const Counters &)> &callback) const
{
    for (const auto &[key, entry] : entries_)
        if (const auto *ace = std::get_if<AceKey>(&key); ace != nullptr && entry.told)
            callback(*ace, entry.published);
}

} // namespace plx::plane
