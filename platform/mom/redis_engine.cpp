// See redis_engine.hpp: connecting, metadata, single records. Walks over tables are in redis_scan.cpp.
#include "redis_engine.hpp"

#include "redis_changes.hpp"
#include "report.hpp"

#include <random>
#include <utility>

namespace mom {
namespace {

constexpr int conflict = -1; // the metadata changed under a transaction: nothing was done
constexpr int attempts = 16;
constexpr unsigned writes_per_trim = 64; // a log may be longer than its limit by so much

// A name that no other handle has, short in the log.
std::string random_name()
{
    std::random_device device;
    const uint64_t name = (static_cast<uint64_t>(device()) << 32 | device()) >> 8;
    return std::to_string(name);
}

std::vector<uint32_t> parse_fields(std::string_view text)
{
    std::vector<uint32_t> fields;
    while (!text.empty()) {
        uint32_t number = 0;
        const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
        if (parsed.ec == std::errc{} && number > 0)
            fields.push_back(number);
        text.remove_prefix(std::min(text.size(), static_cast<size_t>(parsed.ptr - text.data()) + 1));
    }
    std::sort(fields.begin(), fields.end());
    return fields;
}

bool covers(const redis_table &table, field_values fields)
{
    return std::all_of(fields.begin(), fields.end(), [&](const auto &field) { return table.has_field(field.number); });
}

} // namespace

redis_engine::redis_engine(const store_url &url, tq_thread_master *master)
    : link_(url), writer_{random_name(), std::to_string(url.log_limit.value_or(100'000))},
      changes_(std::make_unique<redis_changes>(*this, master))
{
}

redis_engine::~redis_engine() = default;

redis_table &redis_engine::table_of(table_ref ref)
{
    return tables_.try_emplace({ref.db, ref.type}, ref).first->second;
}

int redis_engine::ready()
{
    ++calls_;
    const int result = link_.ensure();
    if (result == TQ_MOM_OK && generation_ != link_.generation()) {
        generation_ = link_.generation();
        forget_watches();
    }
    return result;
}

void redis_engine::forget_watches()
{
    watch_.clear();
    for (auto &[name, table] : tables_)
        table.watched = false;
}

// Whatever is about to be asked, what was collected goes first.
int redis_engine::ask(const std::function<void(command_buffer &)> &build)
{
    const int result = ready();
    if (result != TQ_MOM_OK)
        return result;
    flush_batch();
    commands_.clear();
    build(commands_);
    return link_.exchange(commands_);
}

// Before something is collected: a batch is of one connection, whose server has the script.
int redis_engine::ready_to_collect(redis_script &script)
{
    const int result = ready();
    if (result != TQ_MOM_OK || !script.digest().empty())
        return result;
    flush_batch();
    return script.load(link_);
}

void redis_engine::send_batch()
{
    if (!batch_.send(link_))
        flush_batch();
}

void redis_engine::flush_full_batch()
{
    if (batch_.full())
        flush_batch();
}

void redis_engine::flush_batch()
{
    if (!batch_.empty() && !batch_.finish(link_, batch_results_))
        forget_watches(); // the metadata may be gone: have the next write look
}

int redis_engine::end_batch(std::span<int> results)
{
    batching_ = false;
    flush_batch();
    const auto all = std::exchange(batch_results_, {});
    std::copy_n(all.begin(), std::min(all.size(), results.size()), results.begin());
    const auto failed = std::find_if(all.begin(), all.end(), [](int result) { return result != TQ_MOM_OK; });
    return failed == all.end() ? TQ_MOM_OK : *failed;
}

int redis_engine::run(redis_script &script, const std::function<void(command_buffer &)> &build)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        int result = ready();
        if (result == TQ_MOM_OK && script.digest().empty())
            result = script.load(link_);
        if (result == TQ_MOM_OK)
            result = ask(build);
        if (result != TQ_MOM_OK)
            return result;
        const auto reply = link_.replies();
        if (!reply.is(reply_kind::error) || !reply.text().starts_with("NOSCRIPT"))
            return link_.judge(reply);
        script.forget();
    }
    return TQ_MOM_STORE_ERROR;
}

// Watches the table's metadata and reads it. Watching comes first: what is read then holds until a transaction says no.
int redis_engine::load_meta(redis_table &table)
{
    const int asked = ask([&](command_buffer &commands) {
        commands.command("WATCH", table.meta);
        commands.command("HMGET", table.meta, "epoch", "gen", "fields");
    });
    if (asked != TQ_MOM_OK)
        return asked;
    const auto watched = link_.replies();
    const auto meta = watched.next();
    for (const auto &reply : {watched, meta})
        if (const int result = link_.judge(reply); result != TQ_MOM_OK)
            return result;
    table.generation = meta.at(1).text();
    table.fields = parse_fields(meta.at(2).text());
    return TQ_MOM_OK;
}

// One's own change of the metadata would fail the next transaction, too: start over with the watches.
int redis_engine::extend_meta(redis_table &table, field_values fields)
{
    std::string numbers;
    for (const auto &field : fields)
        numbers += (numbers.empty() ? "" : ",") + std::to_string(field.number);
    const int result = run(scripts_.meta, [&](command_buffer &commands) {
        scripts_.meta.begin(commands, 1, 2);
        commands.add(table.meta).add(random_name()).add(numbers);
    });
    if (result != TQ_MOM_OK)
        return result;
    forget_watches();
    return ask([](command_buffer &commands) { commands.command("UNWATCH"); });
}

// Makes sure that the metadata is known, watched, and has the fields.
int redis_engine::know(redis_table &table, field_values fields)
{
    for (int attempt = 0; attempt < attempts; ++attempt) {
        int result = ready();
        if (result != TQ_MOM_OK || (table.watched && covers(table, fields)))
            return result;
        result = load_meta(table);
        if (result != TQ_MOM_OK)
            return result;
        if (table.generation.empty() || !covers(table, fields)) {
            result = extend_meta(table, fields);
            if (result != TQ_MOM_OK)
                return result;
            continue;
        }
        table.watched = true;
        command_buffer watch;
        watch.begin(1 + static_cast<size_t>(std::count_if(tables_.begin(), tables_.end(),
                                                          [](const auto &each) { return each.second.watched; })));
        watch.add("WATCH");
        for (const auto &[name, each] : tables_)
            if (each.watched)
                watch.add(each.meta);
        watch_ = watch.bytes();
        return TQ_MOM_OK;
    }
    return TQ_MOM_STORE_ERROR;
}

int redis_engine::write(table_ref ref, std::string_view key, const encoded_fields &fields, write_mode mode)
{
    auto &table = table_of(ref);
    if (!table.requested())
        return write_by_script(table, key, fields, mode);
    for (int attempt = 0; attempt < attempts; ++attempt) {
        int result = know(table, fields.values);
        if (result != TQ_MOM_OK)
            return result;
        const bool whole = mode == write_mode::replace || fields.values.size() == table.fields.size();
        result = whole && !batching_ ? write_by_transaction(table, key, fields, mode)
                                     : write_by_script(table, key, fields, mode);
        if (result != conflict)
            return result;
        forget_watches();
    }
    return TQ_MOM_STORE_ERROR;
}

int redis_engine::write_by_transaction(redis_table &table, std::string_view key, const encoded_fields &fields,
                                       write_mode mode)
{
    record_key_.assign(table.prefix).append(key);
    commands_.clear();
    commands_.command("MULTI");
    if (mode == write_mode::replace)
        commands_.command("DEL", record_key_);
    commands_.begin(4 + 2 * fields.values.size());
    commands_.add("HSET").add(record_key_).add("#").add(table.generation);
    for (const auto &field : fields.values)
        commands_.add(field.number).add(field.bytes);
    commands_.command("ZADD", table.index, "0", key);
    if (writes_++ % writes_per_trim == 0)
        commands_.command("XTRIM", table.log, "MAXLEN", "~", writer_.log_limit);
    commands_.command("XADD", table.log, "0-*", "k", key, "w", writer_.name, "r", fields.bytes);
    const size_t queued = commands_.commands() - 1;
    commands_.command("EXEC");
    commands_.append_built(watch_);
    const int exchanged = link_.exchange(commands_);
    return exchanged != TQ_MOM_OK ? exchanged : judge_transaction(table, key, queued);
}

// The answers: one to MULTI, one to each queued command, those of EXEC, one to WATCH.
int redis_engine::judge_transaction(redis_table &table, std::string_view key, size_t queued)
{
    auto reply = link_.replies();
    for (size_t i = 0; i <= queued; ++i, reply = reply.next())
        if (reply.is(reply_kind::error))
            return link_.judge(reply);
    if (reply.is(reply_kind::nil))
        return conflict;
    if (reply.is(reply_kind::error))
        return link_.judge(reply);
    auto done = reply.first();
    for (size_t i = 0; i < reply.size(); ++i, done = done.next())
        if (done.is(reply_kind::error)) {
            const int result = link_.judge(done);
            return undo(table, key), result;
        }
    return TQ_MOM_OK;
}

// The record could not be written but was listed and told: take that back.
int redis_engine::undo(redis_table &table, std::string_view key)
{
    return run(scripts_.undo, [&](command_buffer &commands) {
        scripts_.undo.begin(commands, 3, 3);
        commands.add(table.record(key)).add(table.index).add(table.log);
        commands.add(key).add(writer_.name).add(writer_.log_limit);
    });
}

int redis_engine::write_by_script(redis_table &table, std::string_view key, const encoded_fields &fields,
                                  write_mode mode)
{
    if (batching_) {
        const int result = ready_to_collect(scripts_.write);
        if (result != TQ_MOM_OK)
            return result;
        batch_.write(table, mode, key, fields);
        flush_full_batch();
        return TQ_MOM_OK;
    }
    const int result = run(scripts_.write, [&](command_buffer &commands) {
        single_.add(table, mode, key, fields);
        single_.build(commands, scripts_.write, writer_);
    });
    if (!link_.has_replies())
        return result;
    const auto reply = link_.replies();
    if (result == TQ_MOM_STORE_ERROR && reply.text().starts_with("NOMETA"))
        return conflict;
    if (result != TQ_MOM_OK)
        return result;
    return reply.size() == 1 ? link_.judge(reply.first()) : int{TQ_MOM_BAD_ANSWER};
}

int redis_engine::remove(table_ref ref, std::string_view key)
{
    auto &table = table_of(ref);
    const auto build = [&](command_buffer &commands) {
        scripts_.remove.begin(commands, 3, 3);
        commands.add(table.prefix, key).add(table.index).add(table.log);
        commands.add(key).add(writer_.name).add(writer_.log_limit);
    };
    if (!batching_)
        return run(scripts_.remove, build);
    const int result = ready_to_collect(scripts_.remove);
    if (result != TQ_MOM_OK)
        return result;
    build(batch_.next());
    flush_full_batch();
    return TQ_MOM_OK;
}

int redis_engine::read(table_ref ref, std::string_view key, record_sink &sink)
{
    auto &table = table_of(ref);
    const int asked = ask([&](command_buffer &commands) { commands.command("HGETALL", table.record(key)); });
    if (asked != TQ_MOM_OK)
        return asked;
    const auto reply = link_.replies();
    const int result = link_.judge(reply);
    if (result != TQ_MOM_OK || reply.size() == 0)
        return result;
    std::vector<field_value> fields;
    const bool ours = parse_record(reply, fields);
    sink.record(key, fields, ours ? TQ_MOM_OK : TQ_MOM_CORRUPT);
    return TQ_MOM_OK;
}

int redis_engine::subscribe(table_ref ref, const key_range &range, change_sink &sink)
{
    return changes_->subscribe(table_of(ref), range, sink);
}

// Three questions about a table's log. Without a log, the first two have no answer; that is no error.
int redis_engine::position(const redis_table &table, log_position &out)
{
    const int asked = ask([&](command_buffer &commands) {
        commands.command("HGET", table.meta, "epoch");
        commands.command("XREVRANGE", table.log, "+", "-", "COUNT", "1");
        commands.command("XINFO", "STREAM", table.log);
    });
    if (asked != TQ_MOM_OK)
        return asked;
    const auto epoch = link_.replies();
    const auto latest = epoch.next();
    const auto info = latest.next();
    for (const auto &reply : {epoch, latest})
        if (const int result = link_.judge(reply); result != TQ_MOM_OK)
            return result;
    const bool no_log = info.is(reply_kind::error) && info.text().starts_with("ERR no such key");
    if (const int result = no_log ? TQ_MOM_OK : link_.judge(info); result != TQ_MOM_OK)
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
