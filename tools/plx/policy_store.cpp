// See policy_store.hpp.
#include "policy_store.hpp"

#include "records/policy_copy.hpp"
#include "records/record.hpp"
#include <algorithm>
#include <array>
#include <map>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>
#include <vector>

namespace plx::tool {

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t part_size = size_t{1} << 20U; // of 16 MiB that a record may have
const std::array<const ProtobufCMessageDescriptor *, 3> copied{&s_policy__acl__descriptor, &s_policy__apply__descriptor,
                                                               &s_policy__ace__descriptor};

Bytes packed(const ProtobufCMessage *message)
{
    Bytes bytes(protobuf_c_message_get_packed_size(message));
    protobuf_c_message_pack(message, bytes.data());
    return bytes;
}

size_t table_of(const ProtobufCMessage &record)
{
    return static_cast<size_t>(std::find(copied.begin(), copied.end(), record.descriptor) - copied.begin());
}

template <typename Take> struct Walk {
    static int32_t on_record(void *, const tq_mom_notification *entry, void *arg)
    {
        if (entry->result == 0 && entry->record != nullptr)
            (*static_cast<Take *>(arg))(*entry->record);
        return 0;
    }
};

// Calls back for each record of a selection that can be read.
template <typename Take> int scan(tq_context *context, uint32_t db, const Record &selection, uint32_t given, Take take)
{
    return tq_mom_scan_sync(context, db, selection.message(), given, &Walk<Take>::on_record, &take);
}

template <typename Take> int scan_application(tq_context *context, uint32_t db, const std::string &app, Take take)
{
    int result = 0;
    for (const auto *table : copied) {
        Record selection(*table);
        selection.set_key_text(0, app.c_str());
        result = result != 0 ? result : scan(context, db, selection, 1, take);
    }
    return result;
}

Record copy_record(const std::string &app, uint32_t slot)
{
    Record record(plx_node__policy_copy__descriptor);
    record.set_key_text(0, app.c_str());
    record.set_key_number(1, slot);
    return record;
}

Record marker(const std::string &app, uint32_t kind)
{
    Record record(s_policy__app_commit__descriptor);
    record.set_key_text(0, app.c_str());
    record.set_key_number(1, kind);
    return record;
}

Record kept_record(const std::string &app)
{
    Record record(plx_node__policy_kept__descriptor);
    record.set_key_text(0, app.c_str());
    return record;
}

// Calls back with the record, if it is there.
template <typename Take> int read_record(tq_context *context, uint32_t db, const Record &wanted, Take take)
{
    const Found found(tq_mom_hgetall_sync(context, db, wanted.message()));
    const int result = found == nullptr ? static_cast<int>(TQ_MOM_DISCONNECTED) : found->status;
    if (found != nullptr && found->record != nullptr)
        take(*found->record);
    return result;
}

int read_slot(tq_context *context, uint32_t db, const Record &wanted, const char *field, std::optional<uint32_t> &slot)
{
    return read_record(context, db, wanted, [&](const ProtobufCMessage &record) {
        slot = static_cast<uint32_t>(number_field(&record, field));
    });
}

// A record's content but for the identifier of the request, by its key.
using Contents = std::array<std::map<Bytes, Bytes>, copied.size()>;

Bytes key_bytes(const ProtobufCMessage &record)
{
    const auto *field = protobuf_c_message_descriptor_get_field_by_name(record.descriptor, "index");
    const auto *key =
        *reinterpret_cast<ProtobufCMessage *const *>(reinterpret_cast<const char *>(&record) + field->offset);
    return key == nullptr ? Bytes() : packed(key);
}

void set_request(const ProtobufCMessage &record, uint64_t request)
{
    const auto *field = protobuf_c_message_descriptor_get_field_by_name(record.descriptor, "req_uuid");
    auto *bytes = const_cast<char *>(reinterpret_cast<const char *>(&record)); // the record is ours, unpacked
    *reinterpret_cast<uint64_t *>(bytes + field->offset) = request;
}

} // namespace

bool rewritten_before(tq_context *context, uint32_t db, const std::string &app)
{
    Record selection(s_policy__ace__descriptor);
    selection.set_key_text(0, app.c_str());
    tq_mom_history history{};
    return tq_mom_history_sync(context, db, selection.message(), 1, &history) != 0 || history.rewritten != 0;
}

void PolicyStore::Copy::add(const ProtobufCMessage &record)
{
    if (++count_ > most_)
        return parts_.clear();
    if (parts_.back().size >= part_size)
        parts_.emplace_back();
    Bytes bytes = packed(&record);
    parts_.back().size += bytes.size();
    parts_.back().records[table_of(record)].push_back(std::move(bytes));
}

int PolicyStore::held(std::optional<uint32_t> &slot) const
{
    return read_slot(context_, db_, marker(app_, hold_marker), "tm_val", slot);
}

int PolicyStore::kept(std::optional<uint32_t> &slot) const
{
    return read_slot(context_, db_, kept_record(app_), "slot", slot);
}

int PolicyStore::set_kept(uint32_t slot)
{
    Record kept = kept_record(app_);
    kept.set_number("slot", slot);
    kept.set_number("time_ms", wall_clock_ms());
    return tq_mom_set_sync(context_, db_, kept.message());
}

// Nodes would withdraw all that they have for a copy that is not there.
int PolicyStore::hold(uint32_t slot)
{
    Record first = copy_record(app_, slot);
    first.set_key_number(2, 0);
    bool there = false;
    const int result = read_record(context_, db_, first, [&there](const ProtobufCMessage &) { there = true; });
    if (result != 0 || !there)
        return result != 0 ? result : static_cast<int>(TQ_MOM_CORRUPT);
    Record hold = marker(app_, hold_marker);
    hold.set_number("tm_val", slot);
    return tq_mom_set_sync(context_, db_, hold.message());
}

int PolicyStore::release()
{
    return tq_mom_del_sync(context_, db_, marker(app_, hold_marker).message());
}

int PolicyStore::clear(uint32_t slot)
{
    std::vector<uint64_t> parts;
    int result = scan(context_, db_, copy_record(app_, slot), 2, [&parts](const ProtobufCMessage &record) {
        const auto *index = reinterpret_cast<const PlxNode__PolicyCopy &>(record).index;
        parts.push_back(index == nullptr ? 0 : index->part);
    });
    for (const uint64_t part : parts) {
        Record gone = copy_record(app_, slot);
        gone.set_key_number(2, part);
        result = result != 0 ? result : tq_mom_del_sync(context_, db_, gone.message());
    }
    return result;
}

int PolicyStore::write(uint32_t slot, uint32_t number, const Copy::Part &part)
{
    std::array<std::vector<ProtobufCBinaryData>, copied.size()> bytes;
    for (size_t table = 0; table < copied.size(); ++table)
        for (const Bytes &record : part.records[table])
            bytes[table].push_back({record.size(), const_cast<uint8_t *>(record.data())}); // is only read
    PlxNode__PolicyCopyIndex index = PLX_NODE__POLICY_COPY_INDEX__INIT;
    PlxNode__PolicyCopy copy = PLX_NODE__POLICY_COPY__INIT;
    index.app = app_.data();
    index.slot = slot;
    index.part = number;
    copy.index = &index;
    copy.acls = bytes[0].data();
    copy.n_acls = bytes[0].size();
    copy.applies = bytes[1].data();
    copy.n_applies = bytes[1].size();
    copy.aces = bytes[2].data();
    copy.n_aces = bytes[2].size();
    return tq_mom_set_sync(context_, db_, &copy.base);
}

int PolicyStore::read(Copy &copy) const
{
    return scan_application(context_, db_, app_, [&copy](const ProtobufCMessage &record) { copy.add(record); });
}

int PolicyStore::sum(PolicySum &sum) const
{
    return scan_application(context_, db_, app_, [&sum](const ProtobufCMessage &record) { sum.add(record); });
}

int PolicyStore::keep(std::optional<uint32_t> used, const Copy &copy, std::optional<uint32_t> &slot)
{
    const uint32_t other = used ? 1 - (*used & 1U) : 0;
    int result = clear(other);
    for (size_t part = 0; part < copy.parts_.size() && result == 0; ++part)
        result = write(other, static_cast<uint32_t>(part), copy.parts_[part]);
    if (result == 0)
        slot = other;
    return result;
}

int PolicyStore::keep_before(const Copy &copy, std::optional<uint32_t> &slot)
{
    if (!copy.whole())
        return tq_mom_del_sync(context_, db_, kept_record(app_).message());
    std::optional<uint32_t> used;
    int result = kept(used);
    result = result != 0 ? result : keep(used, copy, slot);
    return result != 0 ? result : set_kept(*slot);
}

// What is there and should not be goes last, as where a policy is written.
int PolicyStore::put_back(uint32_t slot, size_t &changes)
{
    changes = 0;
    Contents there;
    const auto content = [](const ProtobufCMessage &record) {
        set_request(record, 0);
        return packed(&record);
    };
    int result = scan_application(context_, db_, app_, [&](const ProtobufCMessage &record) {
        there[table_of(record)][key_bytes(record)] = content(record);
    });
    if (result != 0)
        return result;
    bool found = false; // an empty policy has a part, too
    (void)tq_mom_batch_begin(context_);
    result = scan(context_, db_, copy_record(app_, slot), 2, [&](const ProtobufCMessage &part) {
        found = true;
        for_each_copied(&part, [&](const ProtobufCMessage &record) {
            auto &table = there[table_of(record)];
            const auto known = table.find(key_bytes(record));
            const bool same = known != table.end() && known->second == content(record);
            if (known != table.end())
                table.erase(known);
            if (same)
                return;
            ++changes;
            set_request(record, now_us());
            tq_mom_set_sync(context_, db_, &record);
        });
    });
    if (result == 0 && !found)
        result = TQ_MOM_CORRUPT;
    for (size_t table = copied.size(); table-- > 0 && result == 0;)
        for (const auto &[key, bytes] : there[table]) {
            ProtobufCMessage *gone = protobuf_c_message_unpack(copied[table], nullptr, bytes.size(), bytes.data());
            if (gone == nullptr)
                continue;
            ++changes;
            tq_mom_del_sync(context_, db_, gone);
            protobuf_c_message_free_unpacked(gone, nullptr);
        }
    const int written = tq_mom_batch_end(context_, nullptr, 0);
    return result != 0 ? result : written;
}

int PolicyStore::digest(Digest &digest, bool others_alone) const
{
    int result = 0;
    for (const Table &table : tables()) {
        Record selection(*table.requested);
        const bool other = std::find(copied.begin(), copied.end(), table.requested) == copied.end();
        if (!table.by_application || result != 0 || (others_alone && !other))
            continue;
        selection.set_key_text(0, app_.c_str());
        result = scan(context_, db_, selection, 1, [&digest](const ProtobufCMessage &record) {
            if (const auto key = plx::key_of(&record))
                digest.add(digest_of(*key), requested_of(&record).fingerprint());
        });
    }
    return result;
}

} // namespace plx::tool
