// Walks over a table in a server: scans and rewrites, a bounded page at a time.
//
// A scan asks for a page's records and the next page's keys in one send, and for the next page before it delivers the
// one that came: the server reads while the callbacks work. These may make calls: what is on its way then is taken off
// the connection first. What it takes in at once is bounded, so that a record of any size costs
// neither memory nor the others: who is sent more gives the connection up, asks on a new one how big the records are,
// and then for fewer. A sweep's pages are small: the server does nothing else meanwhile.
#include "redis_engine.hpp"

#include <algorithm>
#include <functional>
#include <span>
#include <tuple>
#include <utility>

namespace mom {
namespace {

constexpr unsigned scan_page_size = 1000;
constexpr unsigned sweep_page_size = 64; // as many as a group of writes
constexpr uint64_t longest_mark_seconds = uint64_t{366} * 86'400;
constexpr size_t part_limit = size_t{1} << 20;
constexpr size_t answer_limit = size_t{32} << 20; // of a page; a record of a common size takes a few hundred bytes

void add_page(command_buffer &commands, const redis_table &table, const key_range &range, std::string_view after,
              bool continued)
{
    commands.command("ZRANGEBYLEX", table.index, lex_from(range, after, continued), lex_to(range), "LIMIT", "0",
                     scan_page_size);
}

void add_records(command_buffer &commands, const redis_table &table, std::span<const std::string> keys)
{
    commands.limit_answers(answer_limit);
    for (const auto &key : keys)
        commands.command("HGETALL", table.record(key));
}

// Of the table's metadata: the generation of the latest rewrite of the selection that was ended.
std::string swept_field(const key_range &range)
{
    return "swept:" + range.begin;
}

// How many of the first records to ask for at once.
size_t part_size(std::span<const size_t> sizes, size_t most)
{
    size_t count = 1;
    for (size_t bytes = sizes[0]; count < std::min(most, sizes.size()); ++count) {
        bytes += sizes[count];
        if (bytes > part_limit)
            break;
    }
    return count;
}

// Delivers the records under `keys`, whose answers begin at `reply`, which is left behind them.
int deliver_records(redis_link &link, reply_view &reply, std::span<const std::string> keys, record_sink &sink)
{
    std::vector<field_value> fields;
    for (const auto &key : keys) {
        const int result = link.judge(reply);
        if (result != TQ_MOM_OK && result != TQ_MOM_CORRUPT)
            return result;
        if (result == TQ_MOM_CORRUPT || (reply.size() > 0 && !parse_record(reply, fields)))
            sink.record(key, {}, TQ_MOM_CORRUPT);
        else if (reply.size() > 0)
            sink.record(key, fields, TQ_MOM_OK);
        reply = reply.next();
    }
    return TQ_MOM_OK;
}

} // namespace

int redis_engine::list_keys(redis_table &table, const key_range &range, std::vector<std::string> &keys,
                            const std::string *after)
{
    const int asked = calls_.ask([&](command_buffer &commands) {
        add_page(commands, table, range, after == nullptr ? std::string_view{} : *after, after != nullptr);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    const int result = calls_.link().judge(calls_.link().replies());
    return result == TQ_MOM_OK ? take_page(table, calls_.link().replies(), after, keys) : result;
}

// The page behind `keys` comes first, where there may be one.
int redis_engine::ask_page(redis_table &table, const std::vector<std::string> &keys, const key_range &range,
                           question_ahead &ahead)
{
    return calls_.ask_ahead(ahead, [&](command_buffer &commands) {
        if (keys.size() == scan_page_size)
            add_page(commands, table, range, keys.back(), true);
        add_records(commands, table, keys);
    });
}

// Delivers the records under `keys`, which were asked for, replaces these by the page behind them, and asks for that.
int redis_engine::scan_page(redis_table &table, std::vector<std::string> &keys, const key_range &range,
                            record_sink &sink, question_ahead &ahead)
{
    int result = calls_.take_ahead(ahead);
    if (result == TQ_MOM_CORRUPT || result == TQ_MOM_TIMEOUT) {
        result = scan_in_parts(table, keys, range, sink);
        return result == TQ_MOM_OK && !keys.empty() ? ask_page(table, keys, range, ahead) : result;
    }
    if (result != TQ_MOM_OK)
        return result;
    reply_tape tape;
    std::swap(tape, ahead.answers);
    reply_view reply(tape, 0);
    std::vector<std::string> next;
    if (keys.size() == scan_page_size) {
        result = calls_.link().judge(reply);
        result = result == TQ_MOM_OK ? take_page(table, reply, &keys.back(), next) : result;
        reply = reply.next();
    }
    if (result == TQ_MOM_OK && !next.empty())
        result = ask_page(table, next, range, ahead);
    const int delivered = deliver_records(calls_.link(), reply, keys, sink);
    keys = std::move(next);
    return delivered != TQ_MOM_OK ? delivered : result;
}

// How many bytes each record's known fields take: zeros where the user may not ask.
int redis_engine::measure(redis_table &table, const std::vector<std::string> &keys, std::vector<size_t> &sizes)
{
    const auto &type = *table.ref.type->descriptor;
    const std::span fields(type.fields, type.n_fields);
    const int asked = calls_.ask([&](command_buffer &commands) {
        for (const auto &key : keys)
            for (const auto &field : fields)
                commands.command("HSTRLEN", table.record(key), field.id);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    auto reply = calls_.link().replies();
    for (size_t i = 0; i < keys.size() * fields.size(); ++i, reply = reply.next())
        if (reply.is(reply_kind::integer))
            sizes[i / fields.size()] += static_cast<size_t>(reply.integer());
    return TQ_MOM_OK;
}

// The same where the answers are more than is taken in, or do not come in time: fewer at a time, without those that are
// too big.
int redis_engine::scan_in_parts(redis_table &table, std::vector<std::string> &keys, const key_range &range,
                                record_sink &sink)
{
    std::vector<size_t> sizes(keys.size());
    int result = measure(table, keys, sizes);
    size_t most = keys.size();
    for (size_t from = 0; result == TQ_MOM_OK && from < keys.size();) {
        const size_t count = part_size(std::span(sizes).subspan(from), most);
        const auto part = std::span(keys).subspan(from, count);
        result = sizes[from] > answer_limit
                     ? int{TQ_MOM_CORRUPT}
                     : calls_.ask([&](command_buffer &commands) { add_records(commands, table, part); });
        most = result == TQ_MOM_CORRUPT ? (count + 1) / 2 : 2 * count;
        if (result == TQ_MOM_CORRUPT && count > 1) {
            result = TQ_MOM_OK;
            continue;
        }
        if (result == TQ_MOM_CORRUPT) {
            sink.record(part.front(), {}, std::exchange(result, TQ_MOM_OK));
        } else if (result == TQ_MOM_OK) {
            reply_tape tape;
            calls_.link().take_replies(tape);
            reply_view reply(tape, 0);
            result = deliver_records(calls_.link(), reply, part, sink);
        }
        from += count;
    }
    const bool more = keys.size() == scan_page_size;
    const std::string last = std::move(keys.back());
    keys.clear();
    return more && result == TQ_MOM_OK ? list_keys(table, range, keys, &last) : result;
}

int redis_engine::scan(table_ref ref, const key_range &range, record_sink &sink)
{
    struct owned : question_ahead {
        explicit owned(redis_calls &calls) : of(calls) {}
        ~owned() { of.forget_ahead(*this); }
        owned(const owned &) = delete;
        owned &operator=(const owned &) = delete;
        redis_calls &of;
    } ahead(calls_);
    auto &table = table_of(ref);
    std::vector<std::string> keys;
    int result = list_keys(table, range, keys);
    if (result == TQ_MOM_OK && !keys.empty())
        result = ask_page(table, keys, range, ahead);
    while (result == TQ_MOM_OK && !keys.empty())
        result = scan_page(table, keys, range, sink, ahead);
    return result;
}

int redis_engine::scan_keys(table_ref ref, const key_range &range, record_sink &sink)
{
    auto &table = table_of(ref);
    std::vector<std::string> keys;
    int result = list_keys(table, range, keys);
    while (result == TQ_MOM_OK && !keys.empty()) {
        const auto page = std::exchange(keys, {});
        for (const auto &key : page)
            sink.record(key, {}, TQ_MOM_OK);
        result = page.size() == scan_page_size ? list_keys(table, range, keys, &page.back()) : TQ_MOM_OK;
    }
    return result;
}

int redis_engine::mark(table_ref ref, const key_range &range, uint64_t bound_seconds)
{
    auto &table = table_of(ref);
    const uint64_t seconds = std::min(bound_seconds, longest_mark_seconds);
    const std::string token = random_name();
    table.known = 0;
    const int result = calls_.run(calls_.scripts().mark, [&](command_buffer &commands) {
        calls_.scripts().mark.begin(commands, 3, 7);
        commands.add(table.meta).add(table.log).add(table.index);
        commands.add(calls_.writer().name + token).add(token).add(table.stamp_kind());
        commands.add(lex_from(range, {}, false)).add(lex_to(range)).add(seconds).add(table_format);
    });
    if (result != TQ_MOM_OK)
        return result;
    const auto reply = calls_.link().replies();
    const auto text = [&](size_t index) { return std::string(reply.at(index).text()); };
    const auto number = [&](size_t index) { return std::to_string(reply.at(index).integer()); };
    marks_.set(ref, range, {text(0), number(1), text(2), number(3), reply.at(4).integer() == 0, {}, false}, seconds);
    return TQ_MOM_OK;
}

// Where the selection was empty no page is looked at, but whether the mark still holds.
int redis_engine::sweep_page(redis_table &table, const key_range &range, mark_stamp &mark)
{
    const int result = calls_.run(calls_.scripts().sweep, [&](command_buffer &commands) {
        calls_.scripts().sweep.begin(commands, 3, 10);
        commands.add(table.index).add(table.log).add(table.meta);
        commands.add(calls_.writer().name).add(table.prefix);
        commands.add(lex_from(range, mark.after, mark.begun)).add(lex_to(range));
        commands.add(mark.was_empty ? 0u : sweep_page_size);
        commands.add(mark.stamp).add(mark.epoch).add(mark.generation).add(mark.token).add(swept_field(range));
    });
    if (result != TQ_MOM_OK)
        return result;
    const auto reply = calls_.link().replies();
    const auto last = reply.at(1);
    if (mark.begun && last.is(reply_kind::text) && last.text() <= mark.after)
        return out_of_order(table);
    const auto gone = static_cast<size_t>(reply.at(0).integer());
    mark.begun = last.is(reply_kind::text);
    mark.after = last.text();
    if (gone > 0 && table.trim_due(gone, 1, calls_.writer().log_limit)) // a longer log is no reason to fail
        std::ignore = calls_.run(calls_.scripts().trim, [&](command_buffer &commands) {
            calls_.scripts().trim_log(commands, table, calls_.writer());
        });
    return TQ_MOM_OK;
}

int redis_engine::history(table_ref ref, const key_range &range, tq_mom_history &out)
{
    auto &table = table_of(ref);
    int result = calls_.ask(
        [&](command_buffer &commands) { commands.command("HMGET", table.meta, "epoch", swept_field(range)); });
    result = result == TQ_MOM_OK ? calls_.link().judge(calls_.link().replies()) : result;
    if (result != TQ_MOM_OK)
        return result;
    const auto epoch = calls_.link().replies().at(0).text();
    out.name = epoch.empty() ? 0 : std::hash<std::string_view>{}(epoch) | 1;
    out.rewritten = calls_.link().replies().at(1).is(reply_kind::text) ? 1 : 0;
    return TQ_MOM_OK;
}

// Where it was stays in the mark.
int redis_engine::sweep(table_ref ref, const key_range &range, uint32_t bound_ms)
{
    auto *mark = marks_.find(ref, range);
    if (mark == nullptr)
        return TQ_MOM_NO_MARK;
    const uint64_t deadline = now_ms() + bound_ms;
    auto &table = table_of(ref);
    for (bool gets_on = false;; gets_on = true) {
        const int result = sweep_page(table, range, *mark);
        if (result != TQ_MOM_OK)
            return gets_on && result == TQ_MOM_TIMEOUT ? int{TQ_MOM_UNFINISHED} : result;
        if (!mark->begun)
            break;
        if (now_ms() >= deadline)
            return TQ_MOM_UNFINISHED;
    }
    marks_.erase(ref, range);
    return TQ_MOM_OK;
}

} // namespace mom
