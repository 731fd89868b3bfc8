// See mem_store.hpp.
#include "mem_store.hpp"

#include <algorithm>
#include <cstring>

namespace mom {
namespace {

struct field_head {
    uint32_t number;
    uint32_t size;
};

bool by_number(const field_value &a, const field_value &b)
{
    return a.number < b.number;
}

// `fields` over `older`, ordered by number; of a number given twice the last one counts.
void merge_fields(std::vector<field_value> &older, field_values fields)
{
    for (const auto &field : fields) {
        const auto at = std::lower_bound(older.begin(), older.end(), field, by_number);
        if (at != older.end() && at->number == field.number)
            at->bytes = field.bytes;
        else
            older.insert(at, field);
    }
}

} // namespace

field_image::field_image(field_values fields)
{
    size_t size = 0;
    for (const auto &field : fields)
        size += sizeof(field_head) + field.bytes.size();
    block_.reserve(size);
    for (const auto &field : fields) {
        const field_head head{field.number, static_cast<uint32_t>(field.bytes.size())};
        block_.append(reinterpret_cast<const char *>(&head), sizeof head);
        block_.append(field.bytes);
    }
}

void field_image::list(std::vector<field_value> &out) const
{
    out.clear();
    for (std::string_view rest = block_; !rest.empty();) {
        field_head head;
        std::memcpy(&head, rest.data(), sizeof head);
        out.push_back({head.number, rest.substr(sizeof head, head.size)});
        rest.remove_prefix(sizeof head + head.size);
    }
}

void mem_table::write(std::string_view key, field_values fields, write_mode mode, uint64_t writer)
{
    auto record = records_.find(key);
    merged_.clear();
    if (record != records_.end() && mode == write_mode::merge)
        record->second.image->list(merged_);
    merge_fields(merged_, fields);
    const mem_record written{std::make_shared<const field_image>(merged_), last_ + 1};
    record_map added;
    if (record == records_.end())
        added.emplace(std::string(key), written);
    log(key, written.image, writer); // from here on nothing fails
    if (record == records_.end())
        records_.insert(added.extract(added.begin()));
    else
        record->second = written;
}

void mem_table::remove(std::string_view key, uint64_t writer)
{
    const auto record = records_.find(key);
    if (record == records_.end())
        return;
    log(key, nullptr, writer);
    records_.erase(record);
}

void mem_table::log(std::string_view key, image_ptr image, uint64_t writer)
{
    if (readers_.empty()) {
        ++last_;
        return;
    }
    log_.push_back(std::make_shared<const mem_change>(mem_change{std::string(key), std::move(image), writer}));
    ++last_;
    log_bytes_ += log_.back()->bytes();
    while (log_.size() > limits_.changes && log_bytes_ > limits_.bytes)
        drop_oldest();
    for (auto *reader : readers_)
        reader->wake();
}

std::shared_ptr<const mem_change> mem_table::change_at(uint64_t number) const
{
    return number < first() || number > last_ ? nullptr : log_[static_cast<size_t>(number - first())];
}

void mem_table::remove_reader(mem_reader &reader)
{
    std::erase(readers_, &reader);
    trim();
}

void mem_table::trim()
{
    uint64_t seen = last_;
    for (const auto *reader : readers_)
        seen = std::min(seen, reader->seen());
    while (!log_.empty() && first() <= seen)
        drop_oldest();
}

void mem_table::drop_oldest()
{
    log_bytes_ -= log_.front()->bytes();
    log_.pop_front();
}

std::shared_ptr<mem_store> mem_store::open(const store_url &url)
{
    static std::map<std::string, std::weak_ptr<mem_store>> stores;
    std::erase_if(stores, [](const auto &known) { return known.second.expired(); });
    auto store = stores[url.name].lock();
    if (store == nullptr) {
        store = std::make_shared<mem_store>();
        stores[url.name] = store;
    }
    store->limits_.changes = url.log_limit.value_or(store->limits_.changes);
    store->limits_.bytes = url.log_memory.value_or(store->limits_.bytes);
    return store;
}

mem_table &mem_store::table(const table_ref &table)
{
    return tables_.try_emplace({table.db, table.type->table}, limits_).first->second;
}

} // namespace mom
