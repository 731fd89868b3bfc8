// From the queue to the callbacks: see redis_changes.hpp.
#include "redis_changes.hpp"

#include <algorithm>
#include <charconv>

namespace mom {
namespace {

constexpr int changes_per_round = 64;
constexpr unsigned records_per_page = 256;
constexpr std::chrono::milliseconds recovery_pause{100};

uint64_t parse_stamp(std::string_view text)
{
    uint64_t stamp = 0;
    std::from_chars(text.data(), text.data() + text.size(), stamp);
    return stamp;
}

} // namespace

void redis_changes::on_bell(tq_loop_watch *, int, int, void *arg)
{
    auto *self = static_cast<redis_changes *>(arg);
    try {
        self->bell_->silence();
        self->round();
    } catch (...) { // out of memory: go on in the next round
        self->delivering_ = false;
        self->bell_->ring();
    }
}

// One turn on the loop. A callback that runs the loop itself gets no second round inside its first.
void redis_changes::round()
{
    if (delivering_)
        return;
    delivering_ = true;
    bool recovering = false;
    for (size_t i = 0; i < feeds_.size(); ++i)
        recovering |= feeds_[i]->lost && !feeds_[i]->aside && recover(*feeds_[i]);
    for (int left = changes_per_round; left > 0 && !recovering && deliver_next(); --left)
        ;
    delivering_ = false;
    if (!queue_.empty() || recovering)
        bell_->ring();
    request_in_time();
}

bool redis_changes::deliver_next()
{
    if (queue_.empty())
        return false;
    const queued next = std::move(queue_.front());
    queue_.pop_front();
    const field_value body{joined, next.body};
    const bool written = next.kind == change_kind::written;
    deliver(next.of, next.number,
            {next.kind, next.key, written ? field_values(&body, 1) : field_values{}, next.echo, TQ_MOM_OK});
    return true;
}

void redis_changes::deliver(feed &of, uint64_t number, const change &change)
{
    const bool to_all = change.kind == change_kind::resync;
    for (size_t i = 0; i < of.subscribers.size(); ++i) {
        const bool later = number > of.subscribers[i].start;
        if (to_all || (later && of.subscribers[i].range.contains(change.key)))
            of.subscribers[i].sink.deliver(change);
    }
}

// One page of making up for lost changes; true when there is more to do. While the store does not answer, the rest
// waits for the reconnection, which looks at the history anew.
bool redis_changes::recover(feed &of)
{
    const int result = of.lost->listed ? deliver_lost(of) : list_lost(of);
    if (result != TQ_MOM_OK) {
        if (!set_aside(of, result))
            reconnect_in(recovery_pause);
        return false;
    }
    if (of.lost && of.lost->listed && of.lost->found.empty())
        of.lost.reset();
    return of.lost.has_value();
}

// Finds the records that changed: their stamp is the number of their last change.
int redis_changes::list_lost(feed &of)
{
    auto &lost = *of.lost;
    const key_range whole;
    int result = calls_.ask([&](command_buffer &commands) {
        commands.command("ZRANGEBYLEX", of.table.index, lex_from(whole, lost.after, !lost.after.empty()), "+", "LIMIT",
                         "0", records_per_page);
    });
    if (result == TQ_MOM_OK)
        result = result_of(calls_.link().replies());
    if (result != TQ_MOM_OK)
        return result;
    std::vector<std::string> keys;
    // Where the index is out of order the page ends, and with it the walk: what was found must do.
    take_page(of.table, calls_.link().replies(), lost.after.empty() ? nullptr : &lost.after, keys);
    result = calls_.ask([&](command_buffer &commands) {
        for (const auto &key : keys)
            commands.command("HGET", of.table.record(key), "#");
    });
    if (result != TQ_MOM_OK)
        return result;
    auto reply = calls_.link().replies();
    for (const auto &key : keys) {
        const uint64_t stamp = parse_stamp(reply.text());
        if (stamp > lost.base && stamp <= lost.last)
            lost.found.emplace_back(stamp, key);
        lost.after = key;
        reply = reply.next();
    }
    lost.listed = keys.size() < records_per_page;
    if (lost.listed)
        std::sort(lost.found.begin(), lost.found.end());
    return TQ_MOM_OK;
}

// A record that was written again since comes with its own change.
int redis_changes::deliver_lost(feed &of)
{
    std::vector<std::pair<uint64_t, std::string>> page;
    auto &found = of.lost->found;
    for (; !found.empty() && page.size() < changes_per_round; found.pop_front())
        page.push_back(std::move(found.front()));
    const uint64_t last = of.lost->last;
    const int asked = calls_.ask([&](command_buffer &commands) {
        for (const auto &[stamp, key] : page)
            commands.command("HGETALL", of.table.record(key));
    });
    if (asked != TQ_MOM_OK) {
        found.insert(found.begin(), page.begin(), page.end());
        return asked;
    }
    reply_tape tape;
    calls_.link().take_replies(tape);
    std::vector<field_value> fields;
    reply_view reply(tape, 0);
    for (const auto &[number, key] : page) {
        std::string_view stamp;
        if (reply.size() > 0 && parse_record(reply, fields, &stamp) && parse_stamp(stamp) <= last)
            deliver(of, number, {change_kind::written, key, fields, false, TQ_MOM_OK});
        reply = reply.next();
    }
    return TQ_MOM_OK;
}

} // namespace mom
