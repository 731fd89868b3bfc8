// Walks over a table in a server: scans and rewrites, a bounded page at a time.
//
// A scan asks for a page's records and the next page's keys in one send. Its callbacks may make calls, so a page's
// answers are taken off the connection first. A sweep's pages are small: the server does nothing else meanwhile.
#include "redis_engine.hpp"

namespace mom {
namespace {

constexpr unsigned scan_page_size = 1000;
constexpr unsigned sweep_page_size = 200;

void add_page(command_buffer &commands, const redis_table &table, const key_range &range, std::string_view after,
              bool continued)
{
    commands.command("ZRANGEBYLEX", table.index, lex_from(range, after, continued), lex_to(range), "LIMIT", "0",
                     scan_page_size);
}

} // namespace

int redis_engine::list_keys(redis_table &table, const key_range &range, std::vector<std::string> &keys)
{
    const int asked = calls_.ask([&](command_buffer &commands) { add_page(commands, table, range, {}, false); });
    if (asked != TQ_MOM_OK)
        return asked;
    const int result = calls_.link().judge(calls_.link().replies());
    return result == TQ_MOM_OK ? take_page(table, calls_.link().replies(), nullptr, keys) : result;
}

// Delivers the records under `keys`, and replaces these by the page behind them.
int redis_engine::scan_page(redis_table &table, std::vector<std::string> &keys, const key_range &range,
                            record_sink &sink)
{
    const bool more = keys.size() == scan_page_size;
    const int asked = calls_.ask([&](command_buffer &commands) {
        for (const auto &key : keys)
            commands.command("HGETALL", table.record(key));
        if (more)
            add_page(commands, table, range, keys.back(), true);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    reply_tape tape;
    calls_.link().take_replies(tape);
    std::vector<field_value> fields;
    reply_view reply(tape, 0);
    for (const auto &key : keys) {
        const int result = calls_.link().judge(reply);
        if (result != TQ_MOM_OK && result != TQ_MOM_CORRUPT)
            return result;
        if (result == TQ_MOM_CORRUPT || (reply.size() > 0 && !parse_record(reply, fields)))
            sink.record(key, {}, TQ_MOM_CORRUPT);
        else if (reply.size() > 0)
            sink.record(key, fields, TQ_MOM_OK);
        reply = reply.next();
    }
    const std::string last = std::move(keys.back());
    keys.clear();
    const int result = more ? calls_.link().judge(reply) : TQ_MOM_OK;
    return more && result == TQ_MOM_OK ? take_page(table, reply, &last, keys) : result;
}

int redis_engine::scan(table_ref ref, const key_range &range, record_sink &sink)
{
    auto &table = table_of(ref);
    std::vector<std::string> keys;
    int result = list_keys(table, range, keys);
    while (result == TQ_MOM_OK && !keys.empty())
        result = scan_page(table, keys, range, sink);
    return result;
}

int redis_engine::mark(table_ref ref, const key_range &range, uint64_t bound_seconds)
{
    auto &table = table_of(ref);
    mark_stamp mark;
    mark.token = random_name();
    table.known = 0;
    const int result = calls_.run(calls_.scripts().mark, [&](command_buffer &commands) {
        calls_.scripts().mark.begin(commands, 2, 3);
        commands.add(table.meta).add(table.log);
        commands.add(calls_.writer().name + mark.token).add(mark.token).add(table.stamp_kind());
    });
    if (result != TQ_MOM_OK)
        return result;
    const auto reply = calls_.link().replies();
    mark.epoch = reply.at(0).text();
    mark.generation = std::to_string(reply.at(1).integer());
    mark.stamp = std::to_string(reply.at(2).integer());
    marks_.set(ref, range, mark, bound_seconds);
    return TQ_MOM_OK;
}

int redis_engine::sweep_page(redis_table &table, const key_range &range, const mark_stamp &mark, std::string &after,
                             bool &continued)
{
    const int result = calls_.run(calls_.scripts().sweep, [&](command_buffer &commands) {
        calls_.scripts().sweep.begin(commands, 3, 10);
        commands.add(table.index).add(table.log).add(table.meta);
        commands.add(calls_.writer().name).add(calls_.writer().log_limit).add(table.prefix);
        commands.add(lex_from(range, after, continued)).add(lex_to(range)).add(sweep_page_size);
        commands.add(mark.stamp).add(mark.epoch).add(mark.generation).add(mark.token);
    });
    if (result != TQ_MOM_OK)
        return result;
    const auto reply = calls_.link().replies();
    if (continued && reply.is(reply_kind::text) && reply.text() <= after)
        return out_of_order(table);
    continued = reply.is(reply_kind::text);
    after = reply.text();
    return TQ_MOM_OK;
}

int redis_engine::sweep(table_ref ref, const key_range &range, uint32_t bound_ms)
{
    const auto mark = marks_.find(ref, range);
    if (!mark)
        return TQ_MOM_NO_MARK;
    const uint64_t deadline = now_ms() + bound_ms;
    auto &table = table_of(ref);
    std::string after;
    bool continued = false;
    do {
        const int result = sweep_page(table, range, *mark, after, continued);
        if (result != TQ_MOM_OK)
            return result;
        if (continued && now_ms() >= deadline)
            return TQ_MOM_TIMEOUT;
    } while (continued);
    marks_.erase(ref, range);
    return TQ_MOM_OK;
}

} // namespace mom
