// See redis_delivery.hpp.
#include "redis_delivery.hpp"

#include "report.hpp"

#include <algorithm>
#include <charconv>
#include <tuple>
#include <utility>

namespace mom {
namespace {

constexpr size_t queue_enough = size_t{16} << 20;
constexpr std::chrono::milliseconds round_time{3};
constexpr unsigned changes_per_clock_read = 16;
constexpr int changes_per_page = 64;
constexpr unsigned records_per_page = 256;

uint64_t parse_stamp(std::string_view text)
{
    uint64_t stamp = 0;
    std::from_chars(text.data(), text.data() + text.size(), stamp);
    return stamp;
}

} // namespace

void redis_audience::deliver(uint64_t number, const change &change, size_t &told)
{
    const bool to_all = change.kind == change_kind::resync;
    for (; told < subscribers.size(); ++told) {
        const bool later = number > subscribers[told].start;
        if (to_all || (later && subscribers[told].range.contains(change.key)))
            subscribers[told].sink.deliver(change);
    }
}

bool redis_audience::wants(std::string_view key) const
{
    return std::any_of(subscribers.begin(), subscribers.end(),
                       [key](const auto &each) { return each.range.contains(key); });
}

bool redis_audience::set_aside(int result)
{
    if (result != TQ_MOM_CORRUPT && result != TQ_MOM_DENIED && result != TQ_MOM_NEWER_FORMAT)
        return false;
    if (!std::exchange(aside, true))
        report(TQ_ZLOG_ERROR, "changes of " + table.log + " cannot be read: " + tq_mom_strerror(result));
    return true;
}

redis_audience &redis_delivery::add(redis_table &table)
{
    return *audiences_.emplace_back(std::make_unique<redis_audience>(redis_audience{table, {}, {}}));
}

// What nobody here selects, as most is where many applications share a table, is passed over.
void redis_delivery::put(redis_audience &to, const log_entry &entry)
{
    const bool echo = entry.writer == calls_.writer().name;
    for (const auto &[key, body, deleted] : entry.changes)
        if (to.wants(key))
            put({to, deleted ? change_kind::deleted : change_kind::written, entry.number, std::string(key),
                 std::string(deleted ? "" : body), echo});
}

void redis_delivery::put(queued &&change)
{
    queue_.push_back(std::move(change));
    queue_bytes_ += queue_.back().bytes();
}

void redis_delivery::lose(redis_audience &to, uint64_t base, uint64_t last, int reason)
{
    if (to.table.requested())
        return tell_loss(to, last, reason);
    const bool more = to.lost.has_value(); // of what is not made up for yet
    to.lost = redis_audience::recovery{.base = more ? std::min(base, to.lost->base) : base,
                                       .last = last,
                                       .reason = more ? std::max(reason, to.lost->reason) : reason,
                                       .after = {},
                                       .found = {}};
    older_ = queue_.size();
}

void redis_delivery::tell_loss(redis_audience &to, uint64_t last, int reason)
{
    if (tells_losses(to.table.ref.type->kind))
        put({to, change_kind::resync, last, {}, {}, false, reason});
}

bool redis_delivery::has_enough() const
{
    return queue_bytes_ >= queue_enough;
}

redis_delivery::outcome redis_delivery::round()
{
    const struct marker {
        explicit marker(bool &flag) : in_round(flag) { in_round = true; }
        ~marker() { in_round = false; }
        bool &in_round;
    } mark(in_round_);
    const bool older = older_ > 0;
    bool recovering = false;
    int result = TQ_MOM_OK;
    for (size_t i = 0; !older && i < audiences_.size(); ++i) {
        auto &each = *audiences_[i];
        if (!each.lost || each.aside)
            continue;
        const int recovered = recover(each);
        if (recovered == TQ_MOM_OK)
            recovering |= each.lost.has_value();
        else if (!each.set_aside(recovered))
            result = recovered;
    }
    const auto end = std::chrono::steady_clock::now() + round_time;
    for (unsigned told = 0; older ? older_ > 0 : !recovering && !queue_.empty(); deliver_next())
        if (++told % changes_per_clock_read == 0 && std::chrono::steady_clock::now() >= end)
            break;
    return {older || recovering || !queue_.empty(), result};
}

void redis_delivery::deliver_next()
{
    auto &next = queue_.front();
    const field_value body{joined, next.body};
    const bool written = next.kind == change_kind::written;
    next.to.deliver(next.number,
                    {next.kind, next.key, written ? field_values(&body, 1) : field_values{}, next.echo, next.result},
                    next.told);
    queue_bytes_ -= next.bytes();
    queue_.pop_front();
    older_ -= older_ > 0 ? 1 : 0;
}

// One page of making up for lost changes. Where the store does not answer, the rest waits for the reconnection, which
// looks at the history anew.
int redis_delivery::recover(redis_audience &of)
{
    const int result = of.lost->listed ? deliver_lost(of) : list_lost(of);
    if (result == TQ_MOM_OK && of.lost && of.lost->listed && of.lost->found.empty()) {
        tell_loss(of, of.lost->last, of.lost->reason);
        of.lost.reset();
    }
    return result;
}

// Finds the records that changed: their stamp is the number of their last change.
int redis_delivery::list_lost(redis_audience &of)
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
    std::ignore = take_page(of.table, calls_.link().replies(), lost.after.empty() ? nullptr : &lost.after, keys);
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
            lost.found.push_back({stamp, key});
        lost.after = key;
        reply = reply.next();
    }
    lost.listed = keys.size() < records_per_page;
    if (lost.listed)
        lost.found.sort([](const auto &a, const auto &b) { return a.stamp < b.stamp; });
    return TQ_MOM_OK;
}

// A record that was written again since comes with its own change.
int redis_delivery::deliver_lost(redis_audience &of)
{
    struct page_of { // what was not told of it comes back
        explicit page_of(redis_audience &from) : of(from)
        {
            auto &found = of.lost->found;
            const auto size = std::min<size_t>(found.size(), changes_per_page);
            records.splice(records.end(), found, found.begin(), std::next(found.begin(), static_cast<long>(size)));
        }
        ~page_of()
        {
            if (of.lost)
                of.lost->found.splice(of.lost->found.begin(), records);
        }
        redis_audience &of;
        std::list<redis_audience::recovery::record> records;
    } page(of);
    const uint64_t last = of.lost->last;
    const int asked = calls_.ask([&](command_buffer &commands) {
        for (const auto &record : page.records)
            commands.command("HGETALL", of.table.record(record.key));
    });
    if (asked != TQ_MOM_OK)
        return asked;
    reply_tape tape;
    calls_.link().take_replies(tape);
    std::vector<field_value> fields;
    reply_view reply(tape, 0);
    for (; !page.records.empty(); page.records.pop_front()) {
        auto &record = page.records.front();
        std::string_view stamp;
        if (reply.size() > 0 && parse_record(reply, fields, &stamp) && parse_stamp(stamp) <= last) {
            of.deliver(record.stamp, {change_kind::written, record.key, fields, false, TQ_MOM_OK}, record.told);
            ++calls_.counters().recovered;
        }
        reply = reply.next();
    }
    return TQ_MOM_OK;
}

} // namespace mom
