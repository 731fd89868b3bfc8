// See redis_group.hpp.
#include "redis_group.hpp"

namespace mom {

constexpr size_t records_per_group = 64;  // so that no command keeps the server from others for long,
constexpr size_t bytes_per_group = 65536; // and no entry of the log is long to read

bool write_group::takes(const redis_table &table, write_mode mode, bool complete) const
{
    return records_ == 0 || (table_ == &table && mode_ == mode && complete_ == complete &&
                             records_ < records_per_group && arguments_.bytes().size() < bytes_per_group);
}

void write_group::add(redis_table &table, write_mode mode, bool complete, std::string_view key,
                      const encoded_fields &fields, const writer_identity &writer)
{
    table_ = &table;
    mode_ = mode;
    complete_ = complete;
    ++records_;
    keys_.add(table.prefix, key);
    arguments_.add(key).add(fields.bytes).add(fields.values.size());
    const size_t values = arguments_.bytes().size();
    for (const auto &field : fields.values)
        arguments_.add(field.number).add(field.bytes);
    argument_count_ += 3 + 2 * fields.values.size();
    if (!known_beforehand())
        return;
    if (!complete_) {
        steps_.begin(3 + table.fields.size());
        steps_.add("HDEL").add(table.prefix, key).add("#");
        for (uint32_t number : table.fields)
            steps_.add(number);
    }
    steps_.begin(4 + 2 * fields.values.size());
    steps_.add("HSET").add(table.prefix, key).add("#").add(table.generation);
    steps_.add_built(arguments_.bytes().substr(values));
    if (records_ == 1)
        only_.command("XADD", table.log, "0-*", "k", key, "w", writer.name, "r", fields.bytes);
    told_.add("r", key).add(fields.bytes);
    listed_.add("0").add(key);
}

void write_group::build_transaction(command_buffer &into, std::string_view writer) const
{
    into.command("MULTI");
    into.command("HMGET", table_->meta, "gen", "fields");
    into.append_built(steps_.bytes(), steps_.commands());
    if (records_ == 1) {
        into.append_built(only_.bytes(), 1);
    } else {
        into.begin(5 + 2 * records_);
        into.add("XADD").add(table_->log).add("0-*").add("w").add(writer).add_built(told_.bytes());
    }
    into.begin(2 + 2 * records_);
    into.add("ZADD").add(table_->index).add_built(listed_.bytes());
    into.command("EXEC");
}

void write_group::build_call(command_buffer &into, const redis_script &script, std::string_view writer) const
{
    script.begin(into, keys_before_records + records_, 4 + argument_count_);
    into.add(table_->index).add(table_->log).add(table_->meta).add_built(keys_.bytes());
    into.add(writer).add(mode_ == write_mode::replace ? "replace" : "merge");
    into.add(complete_ ? std::string_view(table_->field_list) : "?");
    if (table_->requested())
        into.add("");
    else
        into.add(table_->latest + 1);
    into.add_built(arguments_.bytes());
}

void write_group::clear()
{
    keys_.clear();
    arguments_.clear();
    steps_.clear();
    listed_.clear();
    told_.clear();
    only_.clear();
    records_ = argument_count_ = 0;
}

} // namespace mom
