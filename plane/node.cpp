// The node's side towards the store: subscriptions, heartbeat and counters. How the tables are compared and changes are
// made is in node_changes.cpp.
#include "plane/node.hpp"

#include <algorithm>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <utility>

namespace plx::plane {

namespace {

// Counters are read and published in turns: what a turn publishes is a part of what a second may.
constexpr milliseconds counter_turn{100};
constexpr uint32_t turns_per_second = 10;

constexpr milliseconds between_reports{200}; // of what was programmed, at least

// The same after a restart: an application counts its answers once.
std::string name_of(const NodeOptions &options)
{
    return std::to_string(options.dev) + '/' + std::to_string(options.slot) + '/' + std::to_string(options.id);
}

} // namespace

Node::Node(Context context, Plane &plane, NodeOptions options)
    : options_(std::move(options)), plane_(plane), context_(std::move(context)),
      commits_(context_.get(), options_.db, [this](const std::string &app) { return compare(&app); }),
      hold_(context_.get(), {options_.db, options_.hold, options_.heartbeat, options_.tell},
            [this] { compare_timer_.start_unless_pending(milliseconds(0)); }),
      outbox_(context_.get(), options_.db, name_of(options_), options_.retry,
              [this](const Key &key, uint64_t request) { return current(key, request); }),
      report_(context_.get(),
              {options_.db, options_.dev, options_.slot, options_.id, options_.heartbeat, options_.token}),
      inquiries_(
          context_.get(), options_.db, name_of(options_), plane_,
          [this](const std::string &app) { return refused(app); },
          [this](const std::string &app) { return try_out(app); }, [this] { report(); }),
      inbox_timer_(context_->master, [this] { take_changes(); }),
      compare_timer_(context_->master, [this] { compare(); }), heartbeat_timer_(context_->master, [this] { beat(); }),
      counter_timer_(context_->master, [this] { publish_counters(); }),
      leftover_timer_(context_->master, [this] { clear_leftovers(); }),
      report_timer_(context_->master, [this] { report(); })
{
    plane_.set_alive([this] { show_life_when_due(); });
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
    if (const int result = inquiries_.start(); result != 0)
        return result;
    take_up_installed();
    compare();
    report_soon();
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
    if (auto key = key_of(notification->record)) {
        self->inbox_.push_back({std::move(*key), std::nullopt, now_us()});
        if (!deleted)
            self->inbox_.back().wanted = requested_of(notification->record);
        self->inbox_timer_.start_unless_pending(std::max(self->gather_until_ - now(), milliseconds(0)));
    }
    return 0;
}

int32_t Node::on_marker(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    static_cast<Node *>(arg)->commits_.take(*notification);
    return 0;
}

// Somebody asks who lives. Many may at a time: one sign of life is for all of them.
int32_t Node::on_call(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    constexpr milliseconds between_calls{100};
    auto *self = static_cast<Node *>(arg);
    const milliseconds beaten = self->next_beat_ - self->options_.heartbeat;
    if (notification->event == TQ_MOM_EVENT_PUBLISHED)
        self->heartbeat_timer_.start(std::max(beaten + between_calls - now(), milliseconds(0)));
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

// ---- what the node writes -------------------------------------------------------------------------------------------

void Node::beat()
{
    outbox_.take_answers();
    look();
    report(); // before the sign of life: who hears that one finds this
    show_life();
}

void Node::show_life()
{
    outbox_.take_answers();
    Record record(s_policy__service_node__descriptor);
    record.set_key_number(0, options_.dev);
    record.set_key_number(1, options_.slot);
    record.set_key_number(2, options_.id);
    // A failed one is as good as a late one. Who cannot hear what is asked for is not to be counted on.
    const bool beaten = tq_mom_client_connect_sync(context_.get(), options_.db) == 0 &&
                        tq_mom_state_get(context_.get(), options_.db, 0) == 0 &&
                        tq_mom_set_sync(context_.get(), options_.db, record.message()) == 0;
    ++(beaten ? heartbeats_ : failed_heartbeats_);
    if (beaten)
        last_heartbeat_ = now();
    next_beat_ = now() + options_.heartbeat;
    heartbeat_timer_.start(options_.heartbeat);
}

// As soon as the loop runs, but for what was reported only just.
void Node::report_soon()
{
    report_timer_.start_unless_pending(std::max(next_report_ - now(), milliseconds(0)));
}

// Not before it is known what the plane has. Again while something waits: the last report tells that nothing does.
void Node::report()
{
    if (comparisons_ == 0)
        return;
    outbox_.take_answers();
    const uint64_t backlog = inbox_.size() + outbox_.size();
    report_.publish(plane_.describe(), backlog);
    next_report_ = now() + between_reports;
    if (backlog != 0)
        report_timer_.start(between_reports);
}

// From where the plane is at work, or its answers are.
void Node::show_life_when_due()
{
    if (now() >= next_beat_)
        show_life();
}

// From inside a long walk, which keeps the timer from running.
void Node::keep_beating()
{
    const milliseconds time = now();
    if (time >= next_beat_)
        beat();
    else if (report_timer_.pending() && time >= next_report_)
        report();
}

// Publishes the counters that changed, so many in a turn: what the plane reads at one go may take several. A round ends
// when all have been read, and the next begins after a pause.
void Node::publish_counters()
{
    outbox_.take_answers();
    if (read_.empty()) {
        read_ = plane_.counters();
        std::reverse(read_.begin(), read_.end()); // they are taken from the back
    }
    const bool over = read_.empty();
    const uint32_t most = std::max(options_.counter_rate / turns_per_second, 1U);
    std::vector<Entry *> sent;
    tq_mom_batch_begin(context_.get());
    for (; !read_.empty() && sent.size() < most; read_.pop_back())
        if (Entry *told = publish(read_.back().first, read_.back().second))
            sent.push_back(told);
    std::vector<int> results(sent.size());
    tq_mom_batch_end(context_.get(), results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i]->told = results[i] == 0; // else they are published again
    counter_timer_.start(over ? options_.counters : std::min(counter_turn, options_.counters));
}

// The entry, where there was something to tell.
Node::Entry *Node::publish(const AceKey &ace, const Counters &counters)
{
    const Key key(ace);
    const auto known = entries_.find(key);
    if (known == entries_.end() || (known->second.told && known->second.published == counters) ||
        write(key, counters) != 0)
        return nullptr;
    known->second.published = counters;
    known->second.counted = true;
    return &known->second;
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

// ---- what it counts -------------------------------------------------------------------------------------------------

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
            .heartbeats = heartbeats_,
            .failed_heartbeats = failed_heartbeats_,
            .since_heartbeat = now() - last_heartbeat_};
}

void Node::each_counted(const std::function<void(const AceKey &, const Counters &)> &callback) const
{
    for (const auto &[key, entry] : entries_)
        if (const auto *ace = std::get_if<AceKey>(&key); ace != nullptr && entry.told)
            callback(*ace, entry.published);
}

} // namespace plx::plane
