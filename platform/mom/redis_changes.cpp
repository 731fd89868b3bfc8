// See redis_changes.hpp: the connection and the histories. Delivery is in redis_delivery.cpp.
#include "redis_changes.hpp"

#include "report.hpp"

#include <algorithm>
#include <utility>

namespace mom {
namespace {

constexpr size_t identities_kept = 512;
constexpr size_t queue_enough = 256; // as long as so much waits for delivery, nothing more is asked for
constexpr unsigned entries_per_read = 128;
constexpr std::chrono::milliseconds nudge_pause{2};
constexpr std::chrono::milliseconds pace{1};
constexpr std::chrono::milliseconds busy_time{2}; // how long only the logs that tell something are asked for
constexpr std::chrono::milliseconds look_pause{1000};

timeval to_timeval(std::chrono::milliseconds time)
{
    return {0, static_cast<suseconds_t>(time.count() * 1000)};
}

std::string log_id(uint64_t number)
{
    return "0-" + std::to_string(number);
}

} // namespace

// A timer's function: the step, and what is left to do when there is no memory for it.
template <void (redis_changes::*Step)(), void (redis_changes::*Failed)()> int redis_changes::on_timer(tq_thread *timer)
{
    auto *self = static_cast<redis_changes *>(tq_thread_arg(timer));
    try {
        (self->*Step)();
    } catch (...) {
        (self->*Failed)();
    }
    return 0;
}

redis_changes::redis_changes(redis_calls &calls, tq_thread_master *master) : calls_(calls), master_(master) {}

redis_changes::~redis_changes()
{
    disconnect();
    tq_thread_cancel(reconnect_timer_);
    tq_thread_cancel(nudge_timer_);
    tq_thread_cancel(request_timer_);
    tq_thread_cancel(rest_timer_);
    tq_thread_cancel(look_timer_);
}

int redis_changes::subscribe(redis_table &table, const key_range &range, change_sink &sink)
{
    if (bell_ == nullptr)
        bell_ = std::make_unique<loop_bell>(master_, on_bell, this);
    const int added = add_subscriber(table, range, sink);
    if (added != TQ_MOM_OK)
        return added;
    if (connection_ == nullptr && connect() != TQ_MOM_OK)
        reconnect_in(calls_.link().pause());
    else if (outstanding_)
        nudge();
    else
        request();
    return TQ_MOM_OK;
}

int redis_changes::add_subscriber(redis_table &table, const key_range &range, change_sink &sink)
{
    log_position now;
    const int asked = position(table, now);
    if (asked != TQ_MOM_OK)
        return asked;
    auto *known = find_feed(table.log);
    if (known == nullptr) {
        feeds_.push_back(std::make_unique<feed>(feed{table, now.epoch, now.last, {}, {}, {}}));
        known = feeds_.back().get();
        if (now.identity != 0)
            remember(*known, now.identity);
        stale_ = outstanding_;
    }
    known->subscribers.push_back({range, sink, now.last});
    return TQ_MOM_OK;
}

redis_changes::feed *redis_changes::find_feed(std::string_view log)
{
    for (const auto &each : feeds_)
        if (each->table.log == log)
            return each.get();
    return nullptr;
}

int redis_changes::connect()
{
    int result = calls_.link().ensure();
    if (result != TQ_MOM_OK)
        return result;
    connection_ = calls_.link().open(result);
    if (connection_ == nullptr)
        return result;
    commands_.clear();
    commands_.command("CLIENT", "ID");
    result = connection_->exchange(commands_);
    if (result == TQ_MOM_OK)
        client_id_ = std::to_string(connection_->replies().integer());
    connection_->tape().clear();
    for (size_t i = 0; i < feeds_.size() && result == TQ_MOM_OK; ++i)
        result = settle_or_set_aside(*feeds_[i]);
    if (result == TQ_MOM_OK)
        watch_ = tq_loop_watch_fd(master_, connection_->fd(), TQ_LOOP_READABLE, on_readable, this);
    if (watch_ == nullptr) {
        disconnect();
        return result == TQ_MOM_OK ? TQ_MOM_NO_MEMORY : result;
    }
    request();
    bell_->ring();
    return TQ_MOM_OK;
}

void redis_changes::disconnect()
{
    if (watch_ != nullptr)
        tq_loop_unwatch(watch_);
    watch_ = nullptr;
    connection_.reset();
    outstanding_ = false;
    stale_ = false;
}

void redis_changes::reconnect_in(std::chrono::milliseconds pause)
{
    disconnect();
    if (reconnect_timer_ != nullptr)
        return;
    const auto interval = to_timeval(std::max(pause, std::chrono::milliseconds{1}));
    tq_thread_insert_timer_timeval(master_, &reconnect_timer_,
                                   on_timer<&redis_changes::reconnect, &redis_changes::reconnect_later>, this,
                                   &interval, "tq_mom reconnect");
}

void redis_changes::reconnect()
{
    if (connection_ == nullptr && connect() != TQ_MOM_OK)
        reconnect_in(std::max(calls_.link().pause(), std::chrono::milliseconds{50}));
}

void redis_changes::reconnect_later()
{
    reconnect_in(std::chrono::milliseconds{1000});
}

// What asks for all that comes behind the cursors. Each log that a client waits for costs the server time with every
// answer: while some tell changes, the others are left out for a moment. False when an answer is due, or enough is
// waiting.
bool redis_changes::build_request()
{
    if (connection_ == nullptr || outstanding_ || queue_.size() >= queue_enough)
        return false;
    const auto now = std::chrono::steady_clock::now();
    const auto tells = [this](const auto &each) { return !each->aside && each->heard >= last_whole_request_; };
    const bool busy = now - last_whole_request_ < busy_time && std::any_of(feeds_.begin(), feeds_.end(), tells);
    std::vector<const feed *> read;
    for (const auto &each : feeds_)
        if (!each->aside && (!busy || tells(each) || goes_first(*each)))
            read.push_back(each.get());
    if (read.empty())
        return false;
    commands_.clear();
    commands_.begin(6 + 2 * read.size());
    commands_.add("XREAD").add("COUNT").add(entries_asked_).add("BLOCK");
    commands_.add(busy ? static_cast<unsigned>(busy_time.count()) : 0u).add("STREAMS");
    for (const auto *each : read)
        commands_.add(each->table.log);
    for (const auto *each : read)
        commands_.add(log_id(each->cursor));
    outstanding_ = true;
    stale_ = false;
    last_request_ = now;
    if (!busy)
        last_whole_request_ = now;
    return true;
}

void redis_changes::request()
{
    if (!build_request())
        return;
    const auto deadline = last_request_ + std::chrono::seconds(1);
    if (connection_->send(commands_.bytes(), deadline) != TQ_MOM_OK)
        reconnect_in(std::chrono::milliseconds{0});
}

void redis_changes::request_in_time()
{
    const bool answering = std::exchange(calls_seen_, calls_.count()) != calls_.count();
    if (outstanding_)
        return;
    if (answering)
        request_after(std::chrono::milliseconds{0});
    else if (std::chrono::steady_clock::now() - last_request_ >= pace)
        request();
    else
        request_after(pace);
}

void redis_changes::request_after(std::chrono::milliseconds pause)
{
    if (request_timer_ != nullptr)
        return;
    const auto interval = to_timeval(pause);
    if (tq_thread_insert_timer_timeval(master_, &request_timer_,
                                       on_timer<&redis_changes::request, &redis_changes::reconnect_later>, this,
                                       &interval, "tq_mom request") != 0)
        request();
}

ride redis_changes::offer()
{
    if (request_timer_ == nullptr || !build_request())
        return {};
    tq_thread_cancel(request_timer_);
    return {connection_.get(), commands_.bytes()};
}

// What came behind the answers to the call is not told by the socket any more.
void redis_changes::rode(const ride &along, bool arrived)
{
    if (along.on == nullptr)
        return;
    if (!arrived)
        return reconnect_in(std::chrono::milliseconds{0});
    if (!connection_->has_input() || rest_timer_ != nullptr)
        return;
    const timeval at_once{};
    if (tq_thread_insert_timer_timeval(master_, &rest_timer_,
                                       on_timer<&redis_changes::take_answer, &redis_changes::reconnect_later>, this,
                                       &at_once, "tq_mom rest") != 0)
        reconnect_later();
}

// Makes the server answer an XREAD that lacks a new feed. It may not have read the XREAD yet: then again in a moment.
void redis_changes::nudge()
{
    const int asked =
        calls_.ask([this](command_buffer &commands) { commands.command("CLIENT", "UNBLOCK", client_id_); });
    if (asked == TQ_MOM_OK && calls_.link().replies().integer() == 1)
        return;
    if (nudge_timer_ != nullptr)
        return;
    const auto interval = to_timeval(nudge_pause);
    tq_thread_insert_timer_timeval(master_, &nudge_timer_,
                                   on_timer<&redis_changes::nudge_again, &redis_changes::leave_it>, this, &interval,
                                   "tq_mom nudge");
}

void redis_changes::nudge_again()
{
    if (outstanding_ && stale_)
        nudge();
}

void redis_changes::on_readable(tq_loop_watch *, int, int, void *arg)
{
    auto *self = static_cast<redis_changes *>(arg);
    try {
        self->take_in();
    } catch (...) { // out of memory: start again from the cursors
        self->reconnect_in(std::chrono::milliseconds{1000});
    }
}

void redis_changes::take_in()
{
    if (!connection_->take_in()) { // perhaps the server found its answer too big for us
        entries_asked_ = std::max(entries_asked_ / 2, 1u);
        return reconnect_in(std::chrono::milliseconds{0});
    }
    take_answer();
}

void redis_changes::take_answer()
{
    if (connection_ == nullptr)
        return;
    const int parsed = connection_->parse();
    if (parsed == 0)
        return;
    outstanding_ = false;
    const bool accepted = parsed > 0 && accept(connection_->replies());
    if (!accepted)
        return reconnect_in(std::chrono::milliseconds{50});
    connection_->tape().clear();
    entries_asked_ = std::min(entries_asked_ * 2, entries_per_read);
    round();
}

// See tq_mom_subscribe.
bool redis_changes::goes_first(const feed &of) const
{
    return &of == feeds_.front().get() && of.table.ref.type->kind == record_kind::publication;
}

bool redis_changes::accept(reply_view reply)
{
    if (reply.is(reply_kind::error)) {
        report(TQ_ZLOG_ERROR, "the policy store refused to tell changes: " + std::string(reply.text()));
        return false;
    }
    auto stream = reply.first();
    for (size_t i = 0; i < reply.size(); ++i, stream = stream.next()) {
        if (!accept_stream(stream))
            return false;
        if (goes_first(*find_feed(stream.at(0).text())) && stream.at(1).size() >= entries_asked_)
            break; // it may have more that was written before what the other tables have here
    }
    return true;
}

bool redis_changes::accept_stream(reply_view stream)
{
    auto *of = find_feed(stream.at(0).text());
    const auto entries = stream.at(1);
    if (of == nullptr)
        return false;
    auto reply = entries.first();
    for (size_t i = 0; i < entries.size(); ++i, reply = reply.next()) {
        log_entry entry;
        const bool ours = entry.parse(reply);
        if (!ours)
            report(TQ_ZLOG_ERROR, "passed over what is no change in " + of->table.log);
        if (entry.number == 0 || !accept_entry(*of, entry, ours))
            return false;
    }
    return true;
}

bool redis_changes::accept_entry(feed &of, const log_entry &entry, bool ours)
{
    if (entry.number <= of.cursor)
        return true;
    if (entry.number > of.cursor + 1) {
        log_position now;
        if (position(of.table, now) != TQ_MOM_OK)
            return false;
        lose(of, of.cursor, now);
        return true;
    }
    of.cursor = entry.number;
    of.heard = last_request_;
    remember(of, entry.identity());
    if (!ours)
        return true;
    const auto kind = entry.deleted ? change_kind::deleted : change_kind::written;
    queue_.push_back({of, kind, entry.number, std::string(entry.key), std::string(entry.deleted ? "" : entry.body),
                      entry.writer == calls_.writer().name});
    return true;
}

void redis_changes::remember(feed &of, size_t identity)
{
    of.identities.push_back(identity);
    if (of.identities.size() > identities_kept)
        of.identities.pop_front();
}

// Compares what was seen with what the server holds now, and notes what was lost.
int redis_changes::settle(feed &of)
{
    log_position now;
    const int asked = position(of.table, now);
    if (asked != TQ_MOM_OK)
        return asked;
    if (of.epoch.empty()) // subscribed before the table's first write: the entries tell whether it is that history
        of.epoch = now.epoch;
    uint64_t common = 0;
    if (of.epoch == now.epoch) {
        const int compared = common_history(of, now.last, common);
        if (compared != TQ_MOM_OK)
            return compared;
        if (common == of.cursor && now.last >= of.cursor)
            return TQ_MOM_OK;
    }
    lose(of, common, now);
    return TQ_MOM_OK;
}

int redis_changes::settle_or_set_aside(feed &of)
{
    const int result = settle(of);
    if (set_aside(of, result))
        return TQ_MOM_OK;
    of.aside = of.aside && result != TQ_MOM_OK;
    return result;
}

// One table's trouble is not to keep the others from being read.
bool redis_changes::set_aside(feed &of, int result)
{
    if (result != TQ_MOM_CORRUPT && result != TQ_MOM_DENIED)
        return false;
    if (!std::exchange(of.aside, true))
        report(TQ_ZLOG_ERROR, "changes of " + of.table.log + " cannot be read: " + tq_mom_strerror(result));
    look_again_later();
    return true;
}

void redis_changes::look_again_later()
{
    if (look_timer_ != nullptr)
        return;
    const auto interval = to_timeval(look_pause);
    tq_thread_insert_timer_timeval(master_, &look_timer_,
                                   on_timer<&redis_changes::look_again, &redis_changes::look_again_later>, this,
                                   &interval, "tq_mom look");
}

// A table that is whole again comes in with a new connection.
void redis_changes::look_again()
{
    bool any = false;
    for (const auto &each : feeds_) {
        log_position now;
        if (each->aside && position(each->table, now) == TQ_MOM_OK)
            return reconnect_in(std::chrono::milliseconds{0});
        any |= each->aside;
    }
    if (any)
        look_again_later();
}

// The highest number up to which the server's history is the one that was seen: mostly the last one seen, otherwise
// looked for downwards in small steps. What is no longer in the log is taken as the same: if changes behind it are
// missing, their numbers tell.
int redis_changes::common_history(feed &of, uint64_t last, uint64_t &common)
{
    common = of.cursor;
    if (of.identities.empty())
        return TQ_MOM_OK;
    const uint64_t oldest = of.cursor - of.identities.size() + 1;
    unsigned step = 1;
    for (uint64_t from = of.cursor; from >= oldest; step = 8) {
        const int asked = calls_.ask([&](command_buffer &commands) {
            commands.command("XREVRANGE", of.table.log, log_id(from), log_id(oldest), "COUNT", step);
        });
        if (asked != TQ_MOM_OK)
            return asked;
        const auto held = calls_.link().replies();
        if (held.size() == 0)
            break;
        auto reply = held.first();
        for (size_t i = 0; i < held.size(); ++i, reply = reply.next()) {
            log_entry entry;
            entry.parse(reply);
            if (entry.number < oldest || entry.number > from)
                return TQ_MOM_CORRUPT;
            common = entry.number;
            if (entry.identity() == of.identities[static_cast<size_t>(entry.number - oldest)])
                return TQ_MOM_OK;
            from = entry.number - 1;
        }
    }
    const bool trimmed = common == of.cursor && last > of.cursor;
    common = trimmed ? of.cursor : 0;
    return TQ_MOM_OK;
}

// Changes behind `base` cannot be had any more: go on from where the log stands, and make up for them.
void redis_changes::lose(feed &of, uint64_t base, const log_position &now)
{
    ++losses_;
    report(TQ_ZLOG_WARN, "changes " + std::to_string(base + 1) + " and later of " + of.table.log +
                             " are lost, resynchronising (" + std::to_string(losses_) + " times so far)");
    of.epoch = now.epoch;
    of.cursor = now.last;
    of.identities.clear();
    if (now.identity != 0)
        remember(of, now.identity);
    if (of.table.requested()) {
        queue_.push_back({of, change_kind::resync, now.last, {}, {}, false});
        return;
    }
    if (of.lost)
        base = std::min(base, of.lost->base);
    of.lost = recovery{base, now.last, {}, false, {}};
}

// Three questions about a table's log. Without a log, the first two have no answer; that is no error.
int redis_changes::position(const redis_table &table, log_position &out)
{
    const int asked = calls_.ask([&](command_buffer &commands) {
        commands.command("HGET", table.meta, "epoch");
        commands.command("XREVRANGE", table.log, "+", "-", "COUNT", "1");
        commands.command("XINFO", "STREAM", table.log);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    const auto epoch = calls_.link().replies();
    const auto latest = epoch.next();
    const auto info = latest.next();
    for (const auto &reply : {epoch, latest})
        if (const int result = calls_.link().judge(reply); result != TQ_MOM_OK)
            return result;
    const bool no_log = info.is(reply_kind::error) && info.text().starts_with("ERR no such key");
    if (const int result = no_log ? TQ_MOM_OK : calls_.link().judge(info); result != TQ_MOM_OK)
        return result;
    out = {std::string(epoch.text()), 0, 0};
    auto item = info.first();
    for (size_t i = 0; i < info.size(); ++i, item = item.next())
        if (item.text() == "last-generated-id" && !parse_log_id(item.next().text(), out.last))
            return TQ_MOM_CORRUPT;
    log_entry entry;
    if (out.last != 0 && entry.parse(latest.at(0)) && entry.number == out.last)
        out.identity = entry.identity();
    return TQ_MOM_OK;
}

} // namespace mom
