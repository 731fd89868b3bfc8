// See redis_group.hpp.
#include "redis_group.hpp"

#include <algorithm>

namespace mom {
namespace {

std::string list_of(const std::vector<uint32_t> &numbers)
{
    std::string list;
    for (const uint32_t number : numbers)
        list += (list.empty() ? "" : ",") + std::to_string(number);
    return list;
}

} // namespace

constexpr size_t worth_asking = 8;        // for the number of the next entry, or by what number it is stamped
constexpr size_t records_per_group = 64;  // so that no command keeps the server from others for long,
constexpr size_t bytes_per_group = 65536; // and no entry of the log is long to read

bool write_group::takes(const redis_table &table, write_mode mode, bool complete, field_values fields) const
{
    if (records_ == 0)
        return true;
    const auto same = [](uint32_t number, const field_value &field) { return number == field.number; };
    return table_ == &table && mode_ == mode && complete_ == complete && records_ < records_per_group &&
           arguments_.bytes().size() < bytes_per_group &&
           (mode == write_mode::merge ||
            std::equal(numbers_.begin(), numbers_.end(), fields.begin(), fields.end(), same));
}

void write_group::add(redis_table &table, write_mode mode, bool complete, std::string_view key,
                      const encoded_fields &fields, const writer_identity &writer)
{
    if (records_++ == 0)
        foreseen_ =
            table.requested() ? complete || mode == write_mode::replace : table.alone() && mode == write_mode::replace;
    table_ = &table;
    mode_ = mode;
    complete_ = complete;
    keys_.add(table.prefix, key);
    arguments_.add(key);
    if (mode_ == write_mode::replace) {
        numbers_.clear();
        for (const auto &field : fields.values) {
            numbers_.push_back(field.number);
            arguments_.add(field.bytes);
        }
        argument_count_ += 1 + fields.values.size();
    } else {
        arguments_.add(fields.bytes).add(fields.values.size());
        for (const auto &field : fields.values)
            arguments_.add(field.number).add(field.bytes);
        argument_count_ += 3 + 2 * fields.values.size();
    }
    if (foreseen_)
        add_to_transaction(key, fields, writer);
}

bool write_group::known_beforehand() const
{
    return foreseen_ && (table_->requested() || records_ >= worth_asking);
}

void write_group::add_to_transaction(std::string_view key, const encoded_fields &fields, const writer_identity &writer)
{
    if (!complete_) {
        steps_.begin(3 + table_->fields.size());
        steps_.add("HDEL").add(table_->prefix, key).add("#");
        for (uint32_t number : table_->fields)
            steps_.add(number);
    }
    steps_.begin(4 + 2 * fields.values.size());
    steps_.add("HSET").add(table_->prefix, key).add("#");
    if (table_->requested())
        steps_.add(table_->generation);
    else
        steps_.add(table_->latest + 1);
    for (const auto &field : fields.values)
        steps_.add(field.number).add(field.bytes);
    if (records_ == 1)
        only_.command("XADD", table_->log, "0-*", "k", key, "w", writer.name, "r", fields.bytes);
    told_.add("r", key).add(fields.bytes);
    listed_.add("0").add(key);
}

void write_group::build_transaction(command_buffer &into, const redis_scripts &scripts, std::string_view writer) const
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
    if (!table_->requested()) {
        scripts.stamp.begin(into, 1, 2);
        into.add(table_->log).add(table_->latest + 2).add(table_->prefix);
    }
    into.command("EXEC");
}

void write_group::build_call(command_buffer &into, const redis_scripts &scripts, std::string_view writer,
                             bool alone) const
{
    const bool replaces = mode_ == write_mode::replace;
    (replaces ? scripts.replace : scripts.merge).begin(into, keys_before_records + records_, 3 + argument_count_);
    into.add(table_->index).add(table_->log).add(table_->meta).add_built(keys_.bytes());
    into.add(writer);
    if (!replaces)
        into.add(complete_ ? std::string_view(table_->field_list) : "?");
    if (table_->requested())
        into.add("");
    else if (replaces && !alone && records_ >= worth_asking)
        into.add("?");
    else
        into.add(table_->latest + 1);
    if (replaces)
        into.add(list_of(numbers_));
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
