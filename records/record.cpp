// See record.hpp. All access to message fields goes by descriptor, through field_at().
#include "records/record.hpp"

#include "records/fnv.hpp"
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <plx/s_policy.pb-c.h>
#include <plx/types.h>
#include <utility>

namespace plx {

namespace {

constexpr std::array<Table, std::variant_size_v<Key>> all_tables{{
    {&s_policy__ace__descriptor, &s_policy__ace_psta__descriptor, &s_policy__ace_counter__descriptor, true},
    {&s_policy__apply__descriptor, &s_policy__apply_psta__descriptor, nullptr, true},
    {&s_policy__port_bindinfo__descriptor, &s_policy__port_bindinfo_psta__descriptor, nullptr, true},
    {&s_policy__port_off__descriptor, &s_policy__port_off_psta__descriptor, nullptr, false},
    {&s_policy__uplink__descriptor, &s_policy__uplink_psta__descriptor, nullptr, false},
    {&s_policy__svi_router__descriptor, &s_policy__svi_router_psta__descriptor, nullptr, false},
}};

const ProtobufCFieldDescriptor *find_field(const ProtobufCMessage *record, const char *name)
{
    return protobuf_c_message_descriptor_get_field_by_name(record->descriptor, name);
}

template <typename T> T load(const ProtobufCMessage *record, const ProtobufCFieldDescriptor &field)
{
    T value;
    std::memcpy(&value, reinterpret_cast<const char *>(record) + field.offset, sizeof value);
    return value;
}

template <typename T> void store(ProtobufCMessage *record, const ProtobufCFieldDescriptor &field, T value)
{
    std::memcpy(reinterpret_cast<char *>(record) + field.offset, &value, sizeof value);
}

uint64_t load_number(const ProtobufCMessage *record, const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_UINT64:
        return load<uint64_t>(record, field);
    case PROTOBUF_C_TYPE_UINT32:
        return load<uint32_t>(record, field);
    case PROTOBUF_C_TYPE_INT32:
        return static_cast<uint64_t>(load<int32_t>(record, field));
    case PROTOBUF_C_TYPE_BOOL:
        return load<protobuf_c_boolean>(record, field) != 0;
    default:
        return 0;
    }
}

void store_number(ProtobufCMessage *record, const ProtobufCFieldDescriptor &field, uint64_t value)
{
    if (field.type == PROTOBUF_C_TYPE_UINT64)
        store(record, field, value);
    else if (field.type == PROTOBUF_C_TYPE_UINT32 || field.type == PROTOBUF_C_TYPE_INT32)
        store(record, field, static_cast<uint32_t>(value));
}

const ProtobufCMessage *key_message(const ProtobufCMessage *record)
{
    const ProtobufCFieldDescriptor *index = find_field(record, "index");
    return index == nullptr ? nullptr : load<const ProtobufCMessage *>(record, *index);
}

bool read(std::string &value, const ProtobufCMessage *record, const ProtobufCFieldDescriptor &field)
{
    const char *text = load<const char *>(record, field);
    if (text != nullptr)
        value.assign(text, strnlen(text, FP_UDP_APP_TYPE_SIZE));
    return value.size() < FP_UDP_APP_TYPE_SIZE;
}

template <typename Number>
bool read(Number &value, const ProtobufCMessage *record, const ProtobufCFieldDescriptor &field)
{
    value = static_cast<Number>(load_number(record, field));
    return true;
}

template <typename KeyType> std::optional<Key> read_key(const ProtobufCMessage *index)
{
    KeyType key;
    const ProtobufCFieldDescriptor *field = index == nullptr ? nullptr : index->descriptor->fields;
    const bool complete =
        std::apply([&](auto &...value) { return (read(value, index, *field++) && ...); }, KeyType::fields(key));
    return complete ? std::optional<Key>(std::move(key)) : std::nullopt;
}

template <size_t... Index>
std::optional<Key> read_key_of_table(size_t table, const ProtobufCMessage *index, std::index_sequence<Index...>)
{
    std::optional<Key> key;
    const bool known =
        ((table == Index && (key = read_key<std::variant_alternative_t<Index, Key>>(index), true)) || ...);
    return known ? key : std::nullopt;
}

uint64_t number_in(const ProtobufCMessage *record, const ProtobufCFieldDescriptor *field)
{
    return field == nullptr ? 0 : load_number(record, *field);
}

std::span<const uint8_t> bytes_in(const ProtobufCMessage *record, const ProtobufCFieldDescriptor *field)
{
    if (field == nullptr || field->type != PROTOBUF_C_TYPE_BYTES)
        return {};
    return span_of(load<ProtobufCBinaryData>(record, *field));
}

// Where a table has what its records ask for: no field, where it has none.
struct RequestedFields {
    explicit RequestedFields(const ProtobufCMessage *record)
        : request(find_field(record, "req_uuid")), value(find_field(record, "value")),
          priority(find_field(record, "ace_pri")), acl_cls(find_field(record, "acl_cls")),
          default_entry(find_field(record, "default_ace")), priv(find_field(record, "priv"))
    {
    }
    const ProtobufCFieldDescriptor *request, *value, *priority, *acl_cls, *default_entry, *priv;
};

// Looked up once for records of one table in a row, as walks meet them.
const RequestedFields &requested_fields(const ProtobufCMessage *record)
{
    thread_local const ProtobufCMessageDescriptor *of = record->descriptor;
    thread_local RequestedFields fields(record);
    if (std::exchange(of, record->descriptor) != record->descriptor)
        fields = RequestedFields(record);
    return fields;
}

// The lowest byte first, on every machine.
template <typename T> void mix_number(uint64_t &hash, T number)
{
    std::array<uint8_t, sizeof(T)> bytes;
    for (size_t at = 0; at < sizeof(T); ++at)
        bytes[at] = static_cast<uint8_t>(number >> 8 * at);
    hash = fnv1a(bytes, hash);
}

ProtobufCMessage *make(std::vector<std::max_align_t> &storage, const ProtobufCMessageDescriptor &descriptor)
{
    storage.resize(descriptor.sizeof_message / sizeof(std::max_align_t) + 1);
    auto *message = reinterpret_cast<ProtobufCMessage *>(storage.data());
    descriptor.message_init(message);
    return message;
}

} // namespace

std::span<const Table> tables()
{
    return all_tables;
}

uint64_t Requested::fingerprint() const
{
    uint64_t hash = fnv_basis;
    mix_number(hash, priority);
    mix_number(hash, acl_cls);
    mix_number(hash, static_cast<uint8_t>(default_entry));
    return fnv1a(value, hash);
}

std::optional<Key> key_of(const ProtobufCMessage *record)
{
    if (record == nullptr)
        return std::nullopt;
    const auto *table = std::find_if(all_tables.begin(), all_tables.end(), [record](const Table &candidate) {
        const auto *descriptor = record->descriptor;
        return candidate.requested == descriptor || candidate.status == descriptor || candidate.counters == descriptor;
    });
    const ProtobufCMessage *index = key_message(record);
    if (table == all_tables.end() || (index == nullptr && find_field(record, "index") != nullptr))
        return std::nullopt;
    return read_key_of_table(static_cast<size_t>(table - all_tables.begin()), index,
                             std::make_index_sequence<std::variant_size_v<Key>>());
}

namespace {

// What an application keeps with its records may be a text, and may be anything.
std::string printable(std::span<const uint8_t> bytes)
{
    const auto end = std::find(bytes.begin(), bytes.end(), 0);
    const bool text = std::all_of(
        bytes.begin(), end, [](uint8_t byte) { return byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\'; });
    return text && end - bytes.begin() <= 32 ? std::string(bytes.begin(), end) : std::string();
}

} // namespace

Requested requested_of(const ProtobufCMessage *record)
{
    const RequestedFields &fields = requested_fields(record);
    const auto value = bytes_in(record, fields.value);
    Requested requested;
    requested.request = number_in(record, fields.request);
    requested.value.assign(value.begin(), value.end());
    requested.priority = number_in(record, fields.priority);
    requested.acl_cls = static_cast<uint32_t>(number_in(record, fields.acl_cls));
    requested.default_entry = number_in(record, fields.default_entry) != 0;
    requested.name = printable(bytes_in(record, fields.priv));
    return requested;
}

// The last field is added as it is: records in a row stand in a row in the table, too, and in the processor's cache.
size_t KeyHash::operator()(const Key &key) const
{
    size_t hash = key.index();
    const auto add = [&hash](const auto &value) {
        hash *= 0x9e3779b97f4a7c15U;
        hash ^= hash >> 32U;
        hash += std::hash<std::remove_cvref_t<decltype(value)>>()(value);
    };
    std::visit(
        [&add]<typename KeyType>(const KeyType &typed) {
            std::apply([&add](const auto &...value) { (add(value), ...); }, KeyType::fields(typed));
        },
        key);
    return hash;
}

const std::string &application_of(const Key &key)
{
    static const std::string none;
    return std::visit(
        [](const auto &typed) -> const std::string & {
            if constexpr (requires { typed.app; })
                return typed.app;
            else
                return none;
        },
        key);
}

uint64_t number_field(const ProtobufCMessage *record, const char *name)
{
    return number_in(record, find_field(record, name));
}

Record::Record(const ProtobufCMessageDescriptor &descriptor)
{
    ProtobufCMessage *record = make(record_, descriptor);
    const ProtobufCFieldDescriptor *index = find_field(record, "index");
    if (index != nullptr)
        store(record, *index, make(key_, *static_cast<const ProtobufCMessageDescriptor *>(index->descriptor)));
}

Record::Record(const ProtobufCMessageDescriptor &descriptor, const Key &key) : Record(descriptor)
{
    unsigned field = 0;
    const auto put = [this, &field](const auto &value) {
        if constexpr (std::is_integral_v<std::remove_cvref_t<decltype(value)>>)
            set_key_number(field++, value);
        else
            set_key_text(field++, value.c_str());
    };
    std::visit(
        [&put]<typename KeyType>(const KeyType &typed) {
            std::apply([&put](const auto &...value) { (put(value), ...); }, KeyType::fields(typed));
        },
        key);
}

void Record::set_number(const char *name, uint64_t value)
{
    auto *record = reinterpret_cast<ProtobufCMessage *>(record_.data());
    if (const ProtobufCFieldDescriptor *field = find_field(record, name))
        store_number(record, *field, value);
}

// As it stands on the wire: the length and the text.
void Record::add_text(uint32_t number, std::string_view text)
{
    text_.assign(1, static_cast<uint8_t>(text.size()));
    text_.insert(text_.end(), text.begin(), text.end());
    beside_ = {{number, PROTOBUF_C_WIRE_TYPE_LENGTH_PREFIXED, text_.size(), text_.data()}};
    auto *record = reinterpret_cast<ProtobufCMessage *>(record_.data());
    record->n_unknown_fields = 1;
    record->unknown_fields = beside_.data();
}

void Record::set_key_text(unsigned field, const char *text)
{
    auto *key = reinterpret_cast<ProtobufCMessage *>(key_.data());
    if (field < key->descriptor->n_fields && key->descriptor->fields[field].type == PROTOBUF_C_TYPE_STRING)
        store(key, key->descriptor->fields[field], text);
}

void Record::set_key_number(unsigned field, uint64_t value)
{
    auto *key = reinterpret_cast<ProtobufCMessage *>(key_.data());
    if (field < key->descriptor->n_fields)
        store_number(key, key->descriptor->fields[field], value);
}

const ProtobufCMessage *Record::message() const
{
    return reinterpret_cast<const ProtobufCMessage *>(record_.data());
}

} // namespace plx
