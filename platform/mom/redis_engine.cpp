// See redis_engine.hpp: connecting, metadata, single records. Walks over tables are in redis_scan.cpp.
#include "redis_engine.hpp"

#include "redis_changes.hpp"
#include "report.hpp"

#include <utility>

namespace mom {

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
        forget_metadata();
    }
    return result;
}

void redis_engine::forget_metadata()
{
    for (auto &[name, table] : tables_)
        table.known = false;
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

// Before something is collected: a batch is of one connection, whose server has the scripts.
int redis_engine::ready_to_collect()
{
    int result = ready();
    for (auto *script : {&scripts_.write, &scripts_.remove})
        if (result == TQ_MOM_OK && script->digest().empty()) {
            flush_batch();
            result = script->load(link_);
        }
    return result;
}

int redis_engine::collected()
{
    if (!batching_ || batch_.full())
        flush_batch();
    if (batching_)
        return TQ_MOM_OK;
    const int result = batch_results_.front();
    batch_results_.clear();
    return result;
}

void redis_engine::send_batch()
{
    if (!batch_.send(link_))
        flush_batch();
}

void redis_engine::flush_batch()
{
    if (!batch_.empty() && !batch_.finish(link_, batch_results_))
        forget_metadata(); // it may have changed, or be gone: have the next write look
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

// Makes sure that the metadata was read on this connection, and lists the fields.
int redis_engine::know(redis_table &table, field_values fields)
{
    if (table.known && table.covers(fields))
        return TQ_MOM_OK;
    int result = ask([&](command_buffer &commands) { commands.command("HMGET", table.meta, "gen", "fields"); });
    result = result == TQ_MOM_OK ? link_.judge(link_.replies()) : result;
    if (result != TQ_MOM_OK)
        return result;
    table.take_meta(link_.replies().at(0).text(), link_.replies().at(1).text());
    if (table.generation.empty() || !table.covers(fields)) {
        std::string numbers;
        for (const auto &field : fields)
            numbers += (numbers.empty() ? "" : ",") + std::to_string(field.number);
        result = run(scripts_.meta, [&](command_buffer &commands) { scripts_.make_sure(commands, table, numbers); });
        if (result != TQ_MOM_OK)
            return result;
        table.take_meta(link_.replies().at(0).text(), link_.replies().at(1).text());
    }
    table.known = true;
    return table.covers(fields) ? TQ_MOM_OK : TQ_MOM_BAD_ANSWER;
}

int redis_engine::write(table_ref ref, std::string_view key, const encoded_fields &fields, write_mode mode)
{
    auto &table = table_of(ref);
    int result = ready_to_collect();
    result = result == TQ_MOM_OK ? know(table, fields.values) : result;
    if (result != TQ_MOM_OK)
        return result;
    batch_.write(table, mode, key, fields);
    return collected();
}

int redis_engine::remove(table_ref ref, std::string_view key)
{
    const int result = ready_to_collect();
    if (result != TQ_MOM_OK)
        return result;
    batch_.remove(table_of(ref), key);
    return collected();
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
