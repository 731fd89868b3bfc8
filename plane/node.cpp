// The node's side towards the store: subscriptions, commit markers, heartbeat, answers and counters. How the tables are
// compared and changes are made is in node_changes.cpp.
#include "plane/node.hpp"

#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <sys/time.h>
#include <utility>

namespace plx::plane {

namespace {

// Work between two looks at the loop is bounded, so that a node with a million entries still shows that it lives.
constexpr size_t replies_per_pass = 1000;
constexpr size_t answers_per_pass = 16; // taken before more is sent: all at once would hold up what comes next
constexpr milliseconds answer_pause{20};
constexpr int counters_per_pass = 500;
constexpr uint64_t longest_commit_seconds = 60;

uint64_t wall_clock_ms()
{
    timeval time{};
    gettimeofday(&time, nullptr);
    return tq_timeval_to_ms(&time);
}

Record marker_key(const std::string &app, SPolicy__AppCommitOpTypeT marker)
{
    Record record(s_policy__app_commit__descriptor);
    record.set_key_text(0, app.c_str());
    record.set_key_number(1, marker);
    return record;
}

} // namespace

Node::Node(Context context, Plane &plane, NodeOptions options)
    : options_(options), plane_(plane), context_(std::move(context)),
      inbox_timer_(context_->master, [this] { take_changes(); }),
      compare_timer_(context_->master, [this] { compare(); }),
      commit_timer_(context_->master, [this] { end_commits(); }),
      reply_timer_(context_->master, [this] { send_replies(); }),
      answer_timer_(context_->master, [this] { take_answers(); }),
      heartbeat_timer_(context_->master, [this] { beat(); }),
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
    counter_timer_.start(options_.counters);
    return 0;
}

int Node::subscribe()
{
    const Record markers(s_policy__app_commit__descriptor);
    int result = tq_mom_subscribe(context_.get(), options_.db, markers.message(), 0, &Node::on_commit, this);
    for (const Table &table : tables()) {
        if (result != 0)
            break;
        const Record whole(*table.requested);
        result = tq_mom_subscribe(context_.get(), options_.db, whole.message(), 0, &Node::on_change, this);
    }
    return result;
}

void Node::arm(Timer &timer, milliseconds delay)
{
    if (!timer.pending())
        timer.start(delay);
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
        self->arm(self->compare_timer_, self->options_.retry);
        return 0;
    }
    if (auto key = key_of(notification->record)) {
        self->inbox_.push_back({std::move(*key), std::nullopt});
        if (!deleted)
            self->inbox_.back().wanted = requested_of(notification->record);
        self->arm(self->inbox_timer_, milliseconds(0));
    }
    return 0;
}

int32_t Node::on_commit(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Node *>(arg);
    if (notification->event == TQ_MOM_EVENT_RESYNC) {
        self->commits_.clear(); // each is read again when it matters
        self->unmarked_.clear();
        self->compare_timer_.start(milliseconds(0));
        return 0;
    }
    const bool deleted = notification->event == TQ_MOM_EVENT_DELETED;
    if (notification->record == nullptr || notification->result != 0 ||
        notification->record->descriptor != &s_policy__app_commit__descriptor ||
        (!deleted && notification->event != TQ_MOM_EVENT_PUBLISHED))
        return 0;
    const auto *marker = reinterpret_cast<const SPolicy__AppCommit *>(notification->record);
    if (marker->index != nullptr && marker->index->apply_type != nullptr)
        self->take_marker(marker->index->apply_type, *notification->record, deleted);
    return 0;
}

// ---- commits --------------------------------------------------------------------------------------------------------

void Node::take_marker(const std::string &app, const ProtobufCMessage &record, bool deleted)
{
    const auto *marker = reinterpret_cast<const SPolicy__AppCommit *>(&record);
    switch (marker->index->commit_op_type) {
    case S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE:
        if (deleted)
            finish_commit(app, false);
        else
            open_commit(app, marker->tm_val);
        break;
    case S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_PUBLISH:
        if (!deleted)
            finish_commit(app, true);
        break;
    default:
        break;
    }
}

// A marker that is written again starts its seconds anew. Seconds beyond the bound that applications are held to are
// cut to it.
void Node::open_commit(const std::string &app, uint64_t seconds)
{
    const auto length = std::chrono::seconds(std::min(seconds, longest_commit_seconds));
    commits_[app] = {.until = now() + length, .spent = false};
    end_commits();
}

// Makes what was staged. `stands`: the enable marker is still there, so that later changes are staged again.
void Node::finish_commit(const std::string &app, bool stands)
{
    const auto commit = commits_.find(app);
    if (commit == commits_.end())
        return;
    const bool open = !commit->second.spent;
    if (!stands)
        commits_.erase(commit);
    if (open && !compare(&app) && stands)
        commits_[app].spent = true; // the next comparison must not take the application for staged
}

// Ends the commits whose time has come and sets the timer for the next.
void Node::end_commits()
{
    const milliseconds time = now();
    std::vector<std::string> ended;
    std::optional<milliseconds> next;
    for (auto &[app, commit] : commits_) {
        if (commit.spent)
            continue;
        if (commit.until <= time) {
            commit.spent = true;
            ended.push_back(app);
        } else {
            next = next ? std::min(*next, commit.until) : commit.until;
        }
    }
    for (const std::string &app : ended)
        compare(&app);
    if (next)
        commit_timer_.start(*next - time);
}

// An application without a known marker is looked up once: what it writes later is heard of, and before the changes
// that it is for, because the markers are the first table that the node subscribed to.
bool Node::staged(const std::string &app)
{
    if (!commits_.contains(app) && !unmarked_.contains(app)) {
        const Record enable = marker_key(app, S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE);
        tq_mom_hash_res *found = tq_mom_hgetall_sync(context_.get(), options_.db, enable.message());
        if (found != nullptr && found->status == 0 && found->record != nullptr)
            open_commit(app, number_field(found->record, "tm_val"));
        else if (found != nullptr && found->status == 0)
            unmarked_.insert(app);
        tq_mom_hash_res_free(found);
    }
    const auto commit = commits_.find(app);
    return commit != commits_.end() && !commit->second.spent;
}

// ---- what the node writes -------------------------------------------------------------------------------------------

void Node::beat()
{
    take_answers();
    Record record(s_policy__service_node__descriptor);
    record.set_key_number(0, options_.dev);
    record.set_key_number(1, options_.slot);
    record.set_key_number(2, options_.id);
    tq_mom_set_sync(context_.get(), options_.db, record.message()); // a failed one is as good as a late one
    heartbeat_timer_.start(options_.heartbeat);
}

// What is due goes to the store together.
void Node::send_replies()
{
    milliseconds pause{0};
    if (sent_.size() >= answers_per_pass)
        take_answers();
    if (!std::exchange(batching_, true))
        tq_mom_batch_begin(context_.get());
    while (!replies_.empty() && replies_.begin()->first <= now() && sent_.size() < replies_per_pass) {
        Reply &reply = replies_.begin()->second;
        const int result = outdated(reply) ? TQ_MOM_INVALID : write(reply);
        if (result != 0 && result != TQ_MOM_INVALID) {
            pause = options_.retry;
            break;
        }
        if (result == 0)
            sent_.push_back(std::move(reply));
        replies_.erase(replies_.begin());
    }
    tq_mom_batch_send(context_.get());
    if (sent_.size() >= replies_per_pass)
        take_answers();
    else
        arm(answer_timer_, answer_pause);
    schedule_replies(pause);
}

void Node::schedule_replies(milliseconds pause)
{
    if (!replies_.empty())
        reply_timer_.start(std::max({pause, replies_.begin()->first - now(), milliseconds(0)}));
}

// An answer that the store did not take comes again later, behind the others. A removal does not: the entry may have
// been made anew by then.
void Node::take_answers()
{
    if (!std::exchange(batching_, false))
        return;
    std::vector<int> results(sent_.size());
    tq_mom_batch_end(context_.get(), results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent_.size(); ++i)
        if (results[i] != 0 && sent_[i].verdict)
            replies_.emplace(now() + options_.retry, std::move(sent_[i]));
    sent_.clear();
    schedule_replies(milliseconds(0));
}

// What was said about an entry that is gone.
void Node::forget(const Key &key)
{
    const Table &table = tables()[key.index()];
    for (const auto *record : {table.status, table.counters})
        if (record != nullptr)
            replies_.emplace(now(), Reply{key, record, std::nullopt});
}

// The entry is gone or has been asked for anew.
bool Node::outdated(const Reply &reply) const
{
    const auto entry = entries_.find(reply.key);
    return reply.verdict && (entry == entries_.end() || entry->second.request != reply.verdict->request);
}

// Every node writes its own answer, also when the record says the same already: applications count the changes.
int Node::write(const Reply &reply)
{
    Record record(*reply.record, reply.key);
    if (!reply.verdict)
        return tq_mom_del_sync(context_.get(), options_.db, record.message());
    record.set_number("p_status", static_cast<uint32_t>(reply.verdict->status));
    record.set_number("rep_uuid", reply.verdict->request);
    return tq_mom_set_sync(context_.get(), options_.db, record.message());
}

// Publishes the counters that changed, some entries at a time.
void Node::publish_counters()
{
    take_answers();
    std::vector<std::pair<Key, Counters>> sent;
    auto entry = last_counted_ ? entries_.upper_bound(*last_counted_) : entries_.begin();
    last_counted_.reset();
    tq_mom_batch_begin(context_.get());
    for (int count = 0; entry != entries_.end() && std::holds_alternative<AceKey>(entry->first); ++entry, ++count) {
        if (count == counters_per_pass) {
            last_counted_ = std::prev(entry)->first;
            break;
        }
        const auto counters = plane_.counters(std::get<AceKey>(entry->first));
        const auto published = published_.find(entry->first);
        const bool told = published != published_.end() && published->second == counters;
        if (counters && !told && write(entry->first, *counters) == 0)
            sent.emplace_back(entry->first, *counters);
    }
    std::vector<int> results(sent.size());
    tq_mom_batch_end(context_.get(), results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent.size(); ++i)
        if (results[i] == 0)
            published_[sent[i].first] = sent[i].second;
    counter_timer_.start(last_counted_ ? milliseconds(0) : options_.counters);
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
