// See redis_engine.hpp: connecting, metadata, single records. Walks over tables are in redis_scan.cpp.
#include "redis_engine.hpp"

#include "redis_reader.hpp"

#include <algorithm>
#include <utility>

namespace mom {

redis_engine::redis_engine(const store_url &url, tq_thread_master *master) : calls_(url, counters)
{
    const auto look = [this] {
        for (auto &[ref, table] : tables_)
            look_for_own(table);
    };
    reader_ = std::make_unique<redis_reader>(calls_, master, look);
}

redis_engine::~redis_engine() = default;

redis_table &redis_engine::table_of(table_ref ref)
{
    return tables_.try_emplace({ref.db, ref.type}, ref).first->second;
}

int redis_engine::state()
{
    return calls_.link().connected() && reader_->hears() ? TQ_MOM_OK : TQ_MOM_DISCONNECTED;
}

// The reader's next question rides along where nothing of the batch was sent yet, and replicas are not asked: they are
// for the connection of the writes. Whatever happens, it hears whether
// the connections lasted.
void redis_engine::flush()
{
    const bool free = calls_.batch().all_unsent() && calls_.link().up() && !calls_.link().wants_replicas();
    const ride along = free ? reader_->offer() : ride{};
    try {
        calls_.flush(along);
    } catch (...) {
        reader_->rode(along, false);
        throw;
    }
    reader_->rode(along, calls_.link().up());
}

int redis_engine::collected()
{
    if (!batching_ || calls_.batch().full())
        flush();
    if (batching_)
        return TQ_MOM_OK;
    const int result = calls_.results().back(); // before it may stand those of a batch that ran out of memory
    calls_.results().clear();
    return result;
}

int redis_engine::end_batch(std::span<int> results)
{
    batching_ = false;
    if (!calls_.batch().empty())
        flush();
    const auto all = std::exchange(calls_.results(), {});
    for (const int result : all) { // each was counted as a success when it was collected
        --counters.results[TQ_MOM_OK];
        count(result);
    }
    if (calls_.spoilt()) { // what was done of it is not known
        std::fill(results.begin(), results.end(), int{TQ_MOM_DISCONNECTED});
        return TQ_MOM_DISCONNECTED;
    }
    std::copy_n(all.begin(), std::min(all.size(), results.size()), results.begin());
    const auto failed = std::find_if(all.begin(), all.end(), [](int result) { return result != TQ_MOM_OK; });
    return failed == all.end() ? TQ_MOM_OK : *failed;
}

// Whether the server that a new connection leads to has what another one, or it itself, has acknowledged. A log that
// was trimmed beyond that, or cannot be asked, tells nothing.
void redis_engine::look_for_own(redis_table &table)
{
    if (table.own_found == calls_.era() || table.own == 0)
        return;
    const auto number = "0-" + std::to_string(table.own);
    const int asked =
        calls_.ask([&](command_buffer &commands) { commands.command("XRANGE", table.log, number, "+", "COUNT", "1"); });
    const uint64_t own = std::exchange(table.own, 0);
    table.own_found = calls_.era();
    if (asked != TQ_MOM_OK || calls_.link().judge(calls_.link().replies()) != TQ_MOM_OK)
        return;
    log_entry entry;
    const bool none = calls_.link().replies().size() == 0;
    entry.parse(calls_.link().replies().at(0));
    if (none || (entry.number == own && entry.writer != calls_.writer().name))
        return reader_->lost_own(table);
    table.own = own;
}

// Makes sure that the metadata was read on this connection, and lists the fields.
int redis_engine::know(redis_table &table, field_values fields)
{
    if (table.known == calls_.era() && table.covers(fields))
        return TQ_MOM_OK;
    look_for_own(table);
    int result =
        calls_.ask([&](command_buffer &commands) { commands.command("HMGET", table.meta, "gen", "fields", "format"); });
    result = result == TQ_MOM_OK ? calls_.link().judge(calls_.link().replies()) : result;
    result = result == TQ_MOM_OK ? check_format(calls_.link().replies().at(2).text()) : result;
    if (result != TQ_MOM_OK)
        return result;
    table.take_meta(calls_.link().replies());
    const bool older = calls_.link().replies().at(2).text() != std::to_string(table_format);
    if (table.generation.empty() || !table.covers(fields) || older) {
        std::string numbers;
        for (const auto &field : fields)
            numbers += (numbers.empty() ? "" : ",") + std::to_string(field.number);
        result = calls_.run(calls_.scripts().meta,
                            [&](command_buffer &commands) { calls_.scripts().make_sure(commands, table, numbers); });
        if (result != TQ_MOM_OK)
            return result;
        table.take_meta(calls_.link().replies());
    }
    table.known = calls_.era();
    return table.covers(fields) ? TQ_MOM_OK : TQ_MOM_BAD_ANSWER;
}

int redis_engine::write(table_ref ref, std::string_view key, const encoded_fields &fields, write_mode mode)
{
    reader_->meanwhile();
    auto &table = table_of(ref);
    int result = calls_.ready_to_collect();
    result = result == TQ_MOM_OK ? know(table, fields.values) : result;
    if (result != TQ_MOM_OK)
        return result;
    calls_.collect([&](command_batch &batch) { batch.write(table, mode, key, fields); });
    return collected();
}

int redis_engine::remove(table_ref ref, std::string_view key)
{
    reader_->meanwhile();
    const int result = calls_.ready_to_collect();
    if (result != TQ_MOM_OK)
        return result;
    auto &table = table_of(ref);
    look_for_own(table);
    calls_.collect([&](command_batch &batch) { batch.remove(table, key); });
    return collected();
}

int redis_engine::read(table_ref ref, std::string_view key, record_sink &sink)
{
    auto &table = table_of(ref);
    const int asked = calls_.ask([&](command_buffer &commands) { commands.command("HGETALL", table.record(key)); });
    if (asked != TQ_MOM_OK)
        return asked;
    const auto reply = calls_.link().replies();
    const int result = calls_.link().judge(reply);
    if (result != TQ_MOM_OK || reply.size() == 0)
        return result;
    std::vector<field_value> fields;
    const bool ours = parse_record(reply, fields);
    sink.record(key, fields, ours ? TQ_MOM_OK : TQ_MOM_CORRUPT);
    return TQ_MOM_OK;
}

int redis_engine::subscribe(table_ref ref, const key_range &range, change_sink &sink)
{
    return reader_->subscribe(table_of(ref), range, sink);
}

} // namespace mom
