// The store double. Records are kept packed under their rendered address; a field list is applied as the real store
// applies it. Whatever a real store client would refuse (null arguments, a missing key, unknown fields, a selection
// beyond the key) is refused with TQ_MOM_INVALID and leaves a line "refused" in the calls.
#include "fakes.h"

#include <cstdarg>
#include <cstring>

namespace fake {

store_double store;

int results::next()
{
    if (empty())
        return 0;
    int result = front();
    pop_front();
    return result;
}

std::string format(const char *form, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, form);
    vsnprintf(text, sizeof text, form, arguments);
    va_end(arguments);
    return text;
}

std::string hex(const uint8_t *bytes, size_t length)
{
    bool counting = length >= 8;
    std::string text;
    for (size_t i = 0; i < length; i++) {
        counting = counting && bytes[i] == static_cast<uint8_t>(bytes[0] + i);
        text += format("%02x", bytes[i]);
    }
    return counting ? format("<%d:%zu>", bytes[0], length) : text;
}

static const void *member(const ProtobufCMessage &record, const ProtobufCFieldDescriptor &field)
{
    return reinterpret_cast<const char *>(&record) + field.offset;
}

static std::string value(const ProtobufCMessage &record, const ProtobufCFieldDescriptor &field)
{
    const void *at = member(record, field);
    switch (field.type) {
    case PROTOBUF_C_TYPE_UINT64:
        return std::to_string(*static_cast<const uint64_t *>(at));
    case PROTOBUF_C_TYPE_UINT32:
        return std::to_string(*static_cast<const uint32_t *>(at));
    case PROTOBUF_C_TYPE_STRING: {
        const char *text = *static_cast<const char *const *>(at);
        return text ? text : "<null>";
    }
    case PROTOBUF_C_TYPE_BYTES: {
        const auto *bytes = static_cast<const ProtobufCBinaryData *>(at);
        return hex(bytes->data, bytes->len);
    }
    default:
        return std::to_string(*static_cast<const int32_t *>(at));
    }
}

static const ProtobufCFieldDescriptor *index_of(const ProtobufCMessage &record)
{
    return protobuf_c_message_descriptor_get_field_by_name(record.descriptor, "index");
}

static const ProtobufCMessage *key_of(const ProtobufCMessage &record)
{
    const ProtobufCFieldDescriptor *index = index_of(record);
    return index ? *static_cast<const ProtobufCMessage *const *>(member(record, *index)) : nullptr;
}

static std::string table_of(const ProtobufCMessage &record)
{
    return strrchr(record.descriptor->name, '.') + 1;
}

// "table[key", the first `selection` key fields closed by commas; a whole key is closed by "]".
static std::string prefix(const ProtobufCMessage &record, uint32_t selection)
{
    std::string text = table_of(record) + "[";
    const ProtobufCMessage *key = key_of(record);
    for (uint32_t i = 0; key && i < selection; i++)
        text += value(*key, key->descriptor->fields[i]) + ",";
    return text;
}

std::string address(const ProtobufCMessage &record)
{
    const ProtobufCMessage *key = key_of(record);
    std::string text = prefix(record, key ? key->descriptor->n_fields : 0);
    if (text.back() == ',')
        text.pop_back();
    return text + "]";
}

static std::string place(uint32_t db, const std::string &where)
{
    return std::to_string(db) + " " + where;
}

void store_double::put(uint32_t db, const ProtobufCMessage &record)
{
    std::string packed(protobuf_c_message_get_packed_size(&record), '\0');
    protobuf_c_message_pack(&record, reinterpret_cast<uint8_t *>(packed.data()));
    const std::string where = place(db, address(record));
    records[where] = packed;
    for (auto &mark : stale)
        mark.second.erase(where);
}

struct free_message {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using owned_message = std::unique_ptr<ProtobufCMessage, free_message>;

static owned_message unpack(const ProtobufCMessageDescriptor *descriptor, const std::string &packed)
{
    return owned_message(protobuf_c_message_unpack(descriptor, nullptr, packed.size(),
                                                   reinterpret_cast<const uint8_t *>(packed.data())));
}

// What a read hands out: a copy, so that whoever changes it does not change what is freed.
struct given_result : tq_mom_hash_res {
    owned_message own;
    std::vector<char> copy;
};

static bool refuses(const void *handle, const ProtobufCMessage *record, uint32_t selection = 0)
{
    bool known = handle && record && record->descriptor && (!index_of(*record) || key_of(*record));
    const ProtobufCMessage *key = known ? key_of(*record) : nullptr;
    if (known && selection <= (key ? key->descriptor->n_fields : 0))
        return false;
    store.calls.push_back("refused");
    return true;
}

// Notes a call and tells its result.
static int called(const std::string &operation, uint32_t db, const std::string &what)
{
    store.calls.push_back(operation + " " + (what.empty() ? std::to_string(db) : place(db, what)));
    if (++store.asked == store.turn) {
        store.turn_operation = operation;
        return store.turn_result;
    }
    if (store.failing == operation || store.failing == "all")
        return 9;
    const auto scripted = store.script.find(operation);
    return scripted == store.script.end() ? 0 : scripted->second.next();
}

// The stored record with the listed fields taken from `record`.
static void merge(uint32_t db, const ProtobufCMessage &record, const uint32_t *fields, uint32_t count)
{
    auto held = store.records.find(place(db, address(record)));
    std::string empty;
    owned_message old = unpack(record.descriptor, held == store.records.end() ? empty : held->second);
    std::vector<uint64_t> space(record.descriptor->sizeof_message / sizeof(uint64_t) + 1);
    memcpy(space.data(), old.get(), record.descriptor->sizeof_message);
    auto *merged = reinterpret_cast<ProtobufCMessage *>(space.data());
    auto take = [&](const ProtobufCFieldDescriptor *field) {
        const auto *descriptor_at = static_cast<const char *>(member(record, *field));
        size_t size = field->type == PROTOBUF_C_TYPE_BYTES     ? sizeof(ProtobufCBinaryData)
                      : field->type == PROTOBUF_C_TYPE_MESSAGE ? sizeof(void *)
                      : field->type == PROTOBUF_C_TYPE_UINT64  ? sizeof(uint64_t)
                                                               : sizeof(uint32_t);
        memcpy(reinterpret_cast<char *>(merged) + field->offset, descriptor_at, size);
    };
    if (const ProtobufCFieldDescriptor *index = index_of(record))
        take(index);
    for (uint32_t i = 0; i < count; i++)
        take(protobuf_c_message_descriptor_get_field(record.descriptor, fields[i]));
    store.put(db, *merged);
}

int32_t store_double::deliver(const std::string &table, int32_t event, const ProtobufCMessage *record, int32_t result,
                              int32_t flag)
{
    for (auto it = subscriptions.rbegin(); it != subscriptions.rend(); ++it) {
        if (it->table != table)
            continue;
        tq_mom_notification notification{event, record, result, flag};
        return it->callback(it->handle, &notification, it->arg);
    }
    return -1000;
}

} // namespace fake

using namespace fake;

extern "C" {

int tq_mom_client_connect_sync(void *handle, uint32_t db)
{
    return handle ? called("connect", db, "") : TQ_MOM_INVALID;
}

int tq_mom_state_get(void *handle, uint32_t db, int reserved)
{
    return handle && reserved == 0 ? called("state", db, "") : TQ_MOM_INVALID;
}

int tq_mom_hmset_sync(void *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields, uint32_t count)
{
    if (refuses(handle, record))
        return TQ_MOM_INVALID;
    std::string list, values;
    for (uint32_t i = 0; i < count; i++) {
        const ProtobufCFieldDescriptor *field = protobuf_c_message_descriptor_get_field(record->descriptor, fields[i]);
        if (!field)
            return TQ_MOM_INVALID;
        list += (i ? "," : "") + std::to_string(fields[i]);
        values += std::string(" ") + field->name + "=" + value(*record, *field);
    }
    int result = called("hmset", db, address(*record) + " " + list + values);
    if (result == 0)
        merge(db, *record, fields, count);
    return store.answered(result);
}

int tq_mom_set_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    if (refuses(handle, record))
        return TQ_MOM_INVALID;
    std::string values;
    for (unsigned i = 0; i < record->descriptor->n_fields; i++) {
        const ProtobufCFieldDescriptor &field = record->descriptor->fields[i];
        if (field.type != PROTOBUF_C_TYPE_MESSAGE)
            values += std::string(" ") + field.name + "=" + value(*record, field);
    }
    int result = called("set", db, address(*record) + values);
    if (result == 0)
        store.put(db, *record);
    return store.answered(result);
}

tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    if (refuses(handle, record))
        return nullptr;
    int result = called("get", db, address(*record));
    if (result == store_double::no_answer)
        return nullptr;
    auto held = store.records.find(place(db, address(*record)));
    auto *given = new given_result{{result == store_double::no_record ? 0 : result, nullptr}, nullptr, {}};
    if (held != store.records.end() && !result)
        given->own = unpack(record->descriptor, held->second);
    if (given->own) {
        const auto *bytes = reinterpret_cast<const char *>(given->own.get());
        given->copy.assign(bytes, bytes + record->descriptor->sizeof_message);
        given->record = reinterpret_cast<ProtobufCMessage *>(given->copy.data());
        if (store.on_read)
            store.on_read(*given->record);
    }
    return *store.unreleased.insert(given).first;
}

void tq_mom_hash_res_free(tq_mom_hash_res *res)
{
    if (store.unreleased.erase(res) == 0)
        abort(); // freed twice, or never given out
    delete static_cast<given_result *>(res);
}

int tq_mom_del_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    if (refuses(handle, record))
        return TQ_MOM_INVALID;
    int result = called("del", db, address(*record));
    if (result == 0)
        store.records.erase(place(db, address(*record)));
    return store.answered(result);
}

int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    if (refuses(handle, record, selection) || !cb)
        return TQ_MOM_INVALID;
    int result =
        called("scan", db, address(*record) + format(" %u '%s'", selection, arg ? static_cast<const char *>(arg) : ""));
    if (result)
        return result;
    const std::string selected = place(db, prefix(*record, selection));
    const std::map<std::string, std::string> copy = store.records;
    for (const auto &[where, packed] : copy) {
        if (where.compare(0, selected.size(), selected) != 0)
            continue;
        owned_message found = unpack(record->descriptor, packed);
        tq_mom_notification entry{TQ_MOM_EVENT_SET, found.get(), 0, 0};
        cb(handle, &entry, arg);
    }
    for (const auto &[table, entry] : store.scan_entries)
        if (table == table_of(*record))
            cb(handle, &entry, arg);
    return 0;
}

int tq_mom_subscribe(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    if (refuses(handle, record, selection) || !cb)
        return TQ_MOM_INVALID;
    int result = called("subscribe", db, address(*record) + format(" %u %s", selection, arg ? "arg" : "0"));
    if (result == 0)
        store.subscriptions.push_back({db, table_of(*record), handle, cb, arg});
    return result;
}

int tq_mom_dsbegin_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint64_t bound)
{
    if (refuses(handle, record, selection))
        return TQ_MOM_INVALID;
    int result = called("dsbegin", db, address(*record) + format(" %u %llu", selection, (unsigned long long)bound));
    if (result != 0)
        return result;
    const std::string selected = place(db, prefix(*record, selection));
    store.marks.insert(selected);
    store.stale[selected].clear();
    for (auto at = store.records.lower_bound(selected);
         at != store.records.end() && at->first.compare(0, selected.size(), selected) == 0; ++at)
        store.stale[selected].insert(at->first);
    return 0;
}

int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound)
{
    if (refuses(handle, record, selection))
        return TQ_MOM_INVALID;
    int result = called("dsend", db, address(*record) + format(" %u %u", selection, bound));
    const std::string selected = place(db, prefix(*record, selection));
    if (result != 0)
        return result;
    for (const std::string &where : std::exchange(store.stale[selected], {}))
        store.records.erase(where);
    return store.marks.erase(selected) != 0 ? 0 : TQ_MOM_NO_MARK;
}

const char *tq_mom_strerror(int)
{
    return "scripted";
}

} // extern "C"
