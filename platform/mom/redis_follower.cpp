// See redis_follower.hpp.
#include "redis_follower.hpp"

#include "report.hpp"

#include <algorithm>
#include <tuple>

namespace mom {
namespace {

constexpr unsigned believed_seconds = 60;             // that a reader is where it said
constexpr size_t longest_position = size_t{64} << 20; // more of an answer is not taken in to see where a log stands

std::string log_id(uint64_t number)
{
    return "0-" + std::to_string(number);
}

} // namespace

int redis_follower::subscribe(redis_table &table, const key_range &range, change_sink &sink, bool &added)
{
    log_position now;
    const int asked = position(table, now);
    if (asked != TQ_MOM_OK)
        return asked;
    auto *known = find(table.log);
    added = known == nullptr;
    if (added)
        known = tables_.emplace_back(std::make_unique<followed>(followed{delivery_.add(table), redis_feed(now)})).get();
    known->audience.subscribers.push_back({range, sink, now.last});
    return TQ_MOM_OK;
}

redis_follower::followed *redis_follower::find(std::string_view log)
{
    for (const auto &each : tables_)
        if (each->table().log == log)
            return each.get();
    return nullptr;
}

// See tq_mom_subscribe.
bool redis_follower::goes_first(const followed &of) const
{
    return &of == tables_.front().get() && of.table().ref.type->kind == record_kind::publication;
}

// Where a log begins or ends with a change that is too big for the server to send, or for us, it is asked without that.
int redis_follower::position(const redis_table &table, log_position &out)
{
    int result = TQ_MOM_OK;
    for (const facts what : {facts{.latest = true, .state = true}, {.latest = false, .state = true}, {true, false}}) {
        result = ask_position(table, what);
        if (result == TQ_MOM_OK)
            return stands(what, out);
        if (result != TQ_MOM_DISCONNECTED && result != TQ_MOM_CORRUPT)
            break;
    }
    return result;
}

// A log's state has its first change in it.
int redis_follower::ask_position(const redis_table &table, facts what)
{
    return calls_.ask([&](command_buffer &commands) {
        commands.command("HMGET", table.meta, "epoch", "format");
        if (what.latest)
            commands.command("XREVRANGE", table.log, "+", "-", "COUNT", "1");
        if (what.state)
            commands.command("XINFO", "STREAM", table.log, "FULL", "COUNT", "1");
        commands.limit_answers(longest_position);
    });
}

// Without a log, it has no state; that is no error.
int redis_follower::stands(facts what, log_position &out)
{
    const auto epoch = calls_.link().replies();
    const auto none = epoch.at(epoch.size());
    const auto latest = what.latest ? epoch.next() : none;
    const auto info = !what.state ? none : what.latest ? latest.next() : epoch.next();
    for (const auto &reply : {epoch, latest})
        if (const int result = calls_.link().judge(reply); result != TQ_MOM_OK)
            return result;
    if (const int known = check_format(epoch.at(1).text()); known != TQ_MOM_OK)
        return known;
    const bool no_log = info.is(reply_kind::error) && info.text().starts_with("ERR no such key");
    if (const int result = no_log ? TQ_MOM_OK : calls_.link().judge(info); result != TQ_MOM_OK)
        return result;
    log_entry entry;
    const bool known = entry.parse(latest.at(0));
    out = {std::string(epoch.at(0).text()), entry.number, 0};
    auto item = info.first();
    for (size_t i = 0; i < info.size(); ++i, item = item.next())
        if (item.text() == "last-generated-id" && !parse_log_id(item.next().text(), out.last))
            return TQ_MOM_CORRUPT;
    if (known && entry.number == out.last)
        out.identity = entry.identity();
    return TQ_MOM_OK;
}

// ---- questions and answers

// Each log that a client waits for costs the server time with every answer: while some tell changes, the others are
// left out for a moment.
redis_follower::scope redis_follower::question(command_buffer &into, unsigned entries, std::chrono::milliseconds wait,
                                               std::chrono::milliseconds busy_wait)
{
    const auto tells = [this](const auto &each) { return !each->audience.aside && each->heard >= whole_question_; };
    const bool busy = busy_wait.count() > 0 && std::any_of(tables_.begin(), tables_.end(), tells);
    std::vector<const followed *> read;
    for (const auto &each : tables_)
        if (!each->audience.aside && (!busy || tells(each) || goes_first(*each)))
            read.push_back(each.get());
    if (read.empty())
        return scope::nothing;
    into.clear();
    into.begin(6 + 2 * read.size());
    into.add("XREAD").add("COUNT").add(entries).add("BLOCK");
    into.add(static_cast<unsigned>((busy ? busy_wait : wait).count())).add("STREAMS");
    for (const auto *each : read)
        into.add(each->table().log);
    for (const auto *each : read)
        into.add(log_id(each->feed.cursor()));
    entries_ = entries;
    ++questions_;
    if (!busy)
        whole_question_ = questions_;
    return busy ? scope::busy : scope::all;
}

bool redis_follower::accept(reply_view reply)
{
    if (reply.is(reply_kind::error)) {
        report(TQ_ZLOG_ERROR, "the policy store refused to tell changes: " + std::string(reply.text()));
        return false;
    }
    auto stream = reply.first();
    for (size_t i = 0; i < reply.size(); ++i, stream = stream.next()) {
        if (!accept_stream(stream))
            return false;
        if (goes_first(*find(stream.at(0).text())) && stream.at(1).size() >= entries_)
            break; // it may have more that was written before what the other tables have here
    }
    return true;
}

bool redis_follower::accept_stream(reply_view stream)
{
    auto *of = find(stream.at(0).text());
    const auto entries = stream.at(1);
    if (of == nullptr)
        return false;
    auto reply = entries.first();
    log_entry entry;
    for (size_t i = 0; i < entries.size(); ++i, reply = reply.next()) {
        const bool ours = entry.parse(reply);
        log_position now;
        if (!ours && of->audience.set_aside(position(of->table(), now)))
            return true; // of another release
        if (!ours)
            report(TQ_ZLOG_ERROR, "passed over what is no change in " + of->table().log);
        if (entry.number == 0 || !accept_entry(*of, entry, ours))
            return false;
    }
    return true;
}

bool redis_follower::accept_entry(followed &of, const log_entry &entry, bool ours)
{
    log_position now;
    switch (of.feed.take(entry.number, entry.identity())) {
    case redis_feed::step::seen:
        return true;
    case redis_feed::step::gap:
        if (position(of.table(), now) != TQ_MOM_OK)
            return false;
        lose(of, of.feed.cursor(), now);
        return true;
    case redis_feed::step::next:
        break;
    }
    of.heard = questions_;
    if (ours)
        delivery_.put(of.audience, entry);
    return true;
}

// ---- histories

int redis_follower::settle()
{
    for (const auto &each : tables_) {
        const int result = settle(*each);
        if (each->audience.set_aside(result))
            continue;
        if (result != TQ_MOM_OK)
            return result;
        each->audience.aside = false;
    }
    return TQ_MOM_OK;
}

int redis_follower::settle(followed &of)
{
    log_position now;
    int result = position(of.table(), now);
    if (result != TQ_MOM_OK)
        return result;
    auto found = of.feed.compare(now);
    while (found == redis_feed::history::unclear && result == TQ_MOM_OK)
        result = compare_more(of, found);
    if (found == redis_feed::history::damaged)
        return TQ_MOM_CORRUPT;
    if (found == redis_feed::history::parted)
        lose(of, of.feed.common(), now, TQ_MOM_NEW_HISTORY);
    return result;
}

int redis_follower::compare_more(followed &of, redis_feed::history &found)
{
    const auto wanted = of.feed.wanted();
    const int asked = calls_.ask([&](command_buffer &commands) {
        commands.command("XREVRANGE", of.table().log, log_id(wanted.from), log_id(wanted.to), "COUNT", wanted.count);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    std::vector<redis_feed::shown> entries;
    const auto held = calls_.link().replies();
    auto reply = held.first();
    log_entry entry;
    for (size_t i = 0; i < held.size(); ++i, reply = reply.next()) {
        entry.parse(reply);
        entries.push_back({entry.number, entry.identity()});
    }
    found = of.feed.compare(entries);
    return TQ_MOM_OK;
}

void redis_follower::lose(followed &of, uint64_t base, const log_position &now, int reason)
{
    const uint64_t losses = ++calls_.counters().losses;
    report(TQ_ZLOG_WARN, "changes " + std::to_string(base + 1) + " and later of " + of.table().log + " are lost" +
                             (reason == TQ_MOM_NEW_HISTORY ? " with the store's history" : "") + ", resynchronising (" +
                             std::to_string(losses) + " times so far)");
    of.feed.restart(now);
    delivery_.lose(of.audience, base, now.last, reason);
}

int redis_follower::compare(bool &parted)
{
    const uint64_t losses = calls_.counters().losses;
    const int result = settle();
    parted = losses != calls_.counters().losses;
    return result;
}

int redis_follower::step_over()
{
    for (const auto &each : tables_) {
        log_position now;
        const int result = position(each->table(), now);
        if (result != TQ_MOM_OK && !each->audience.set_aside(result))
            return result;
        if (result == TQ_MOM_OK && now.last > each->feed.cursor())
            lose(*each, each->feed.cursor(), now);
    }
    return TQ_MOM_OK;
}

int redis_follower::lose_answers()
{
    for (const auto &each : tables_) {
        if (each->table().ref.type->kind != record_kind::status || each->audience.aside)
            continue;
        log_position now;
        if (const int result = position(each->table(), now); result != TQ_MOM_OK)
            return result;
        lose(*each, each->feed.cursor(), now, TQ_MOM_NEW_HISTORY);
    }
    return TQ_MOM_OK;
}

// ---- what the store knows of this reader

void redis_follower::say_where(uint64_t moved)
{
    std::vector<followed *> tell;
    for (const auto &each : tables_)
        if (!each->said || each->feed.cursor() - *each->said >= moved)
            tell.push_back(each.get());
    auto &script = calls_.scripts().here;
    if (tell.empty() || (refused_ && *refused_ == calls_.link().generation()))
        return;
    if (script.digest().empty() && calls_.load(script) != TQ_MOM_OK)
        return refuse_in_silence();
    const int result = calls_.ask([&](command_buffer &commands) {
        for (const auto *each : tell) {
            script.begin(commands, 1, 3);
            commands.add(each->table().readers).add(calls_.writer().name);
            commands.add(each->feed.cursor()).add(believed_seconds);
        }
    });
    if (result != TQ_MOM_OK)
        return;
    auto reply = calls_.link().replies();
    for (auto *each : tell) {
        if (reply.is(reply_kind::error))
            return reply.text().starts_with("NOSCRIPT") ? script.forget() : refuse_in_silence();
        each->said = each->feed.cursor();
        reply = reply.next();
    }
}

// Who may not tell does without, and does not fill the server's log with refusals.
void redis_follower::refuse_in_silence()
{
    refused_ = calls_.link().generation();
}

void redis_follower::leave()
{
    if (!calls_.link().connected() ||
        std::none_of(tables_.begin(), tables_.end(), [](auto &each) { return each->said; }))
        return;
    std::ignore = calls_.ask([&](command_buffer &commands) {
        for (const auto &each : tables_)
            commands.command("HDEL", each->table().readers, calls_.writer().name);
    });
}

bool redis_follower::any_whole_again()
{
    log_position now;
    return std::any_of(tables_.begin(), tables_.end(), [&](const auto &each) {
        return each->audience.aside && position(each->table(), now) == TQ_MOM_OK;
    });
}

} // namespace mom
