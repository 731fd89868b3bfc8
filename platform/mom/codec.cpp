// See codec.hpp.
#include "codec.hpp"

#include "wire.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace mom {
namespace {

// The message's own name, without its package; empty when it is no identifier.
std::string_view table_name(const ProtobufCMessageDescriptor &descriptor)
{
    constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    std::string_view name = descriptor.name == nullptr ? "" : descriptor.name;
    name.remove_prefix(name.rfind('.') + 1); // npos + 1 is 0
    return name.find_first_not_of(allowed) == std::string_view::npos ? name : std::string_view{};
}

record_kind kind_of(const ProtobufCMessageDescriptor &descriptor)
{
    if (protobuf_c_message_descriptor_get_field_by_name(&descriptor, "rep_uuid") != nullptr)
        return record_kind::status;
    if (protobuf_c_message_descriptor_get_field_by_name(&descriptor, "req_uuid") != nullptr)
        return record_kind::requested;
    return record_kind::publication;
}

std::unique_ptr<record_type> describe(const ProtobufCMessageDescriptor &descriptor)
{
    auto type = std::make_unique<record_type>();
    type->descriptor = &descriptor;
    type->table = table_name(descriptor);
    if (type->table.empty())
        return nullptr;
    type->kind = kind_of(descriptor);
    type->index = protobuf_c_message_descriptor_get_field_by_name(&descriptor, "index");
    if (type->index == nullptr)
        return type;
    if (type->index->type != PROTOBUF_C_TYPE_MESSAGE || type->index->label == PROTOBUF_C_LABEL_REPEATED)
        return nullptr;
    const auto *key = static_cast<const ProtobufCMessageDescriptor *>(type->index->descriptor);
    if (key == nullptr || key->n_fields == 0)
        return nullptr;
    type->key_fields = field_span(key->fields, key->n_fields);
    return std::all_of(type->key_fields.begin(), type->key_fields.end(), can_be_key) ? std::move(type) : nullptr;
}

const ProtobufCFieldDescriptor *value_field(const record_type &type, uint32_t number)
{
    const auto *field = protobuf_c_message_descriptor_get_field(type.descriptor, number);
    return field == type.index ? nullptr : field;
}

wire_type unknown_wire_type(const ProtobufCMessageUnknownField &field)
{
    return static_cast<wire_type>(static_cast<uint32_t>(field.wire_type));
}

// No bytes of a value may bring a key of their own.
bool is_value(const record_type &type, const field_value &field)
{
    const uint32_t key = type.index == nullptr ? 0 : type.index->id;
    if (field.number == joined)
        return holds_no_field(field.bytes, key);
    return field.number != key && holds_only_field(field.bytes, field.number);
}

// Puts the key message's length behind its tag once its fields are there.
void close_index(std::string &out, const record_type &type, size_t start)
{
    std::string head;
    append_tag(head, type.index->id, wire_type::length);
    append_varint(head, out.size() - start);
    out.insert(start, head);
}

// Want of memory is no fault of the record.
ProtobufCMessage *unpack(const record_type &type, std::string_view bytes)
{
    bool short_of_memory = false;
    ProtobufCAllocator allocator{[](void *refused, size_t size) {
                                     void *block = std::malloc(size);
                                     *static_cast<bool *>(refused) |= block == nullptr && size > 0;
                                     return block;
                                 },
                                 [](void *, void *block) { std::free(block); }, &short_of_memory};
    auto *record = protobuf_c_message_unpack(type.descriptor, &allocator, bytes.size(),
                                             reinterpret_cast<const uint8_t *>(bytes.data()));
    if (short_of_memory)
        throw std::bad_alloc();
    return record;
}

} // namespace

const record_type *type_book::find(const ProtobufCMessageDescriptor *descriptor)
{
    if (latest_ != nullptr && latest_->descriptor == descriptor)
        return latest_;
    auto known = types_.find(descriptor);
    if (known == types_.end())
        known = types_.emplace(descriptor, describe(*descriptor)).first;
    if (known->second != nullptr)
        latest_ = known->second.get();
    return known->second.get();
}

const ProtobufCMessage *key_of(const record_type &type, const ProtobufCMessage &record)
{
    if (type.index == nullptr)
        return nullptr;
    const ProtobufCMessage *key = nullptr;
    std::memcpy(&key, reinterpret_cast<const char *>(&record) + type.index->offset, sizeof key);
    return key;
}

void field_encoder::begin()
{
    bytes_.clear();
    sizes_.clear();
    values_.clear();
}

void field_encoder::end_field(uint32_t number, size_t start)
{
    values_.push_back({number, {}});
    sizes_.push_back(bytes_.size() - start);
}

// The buffer does not move any more: give each field its view.
void field_encoder::finish()
{
    const char *at = bytes_.data();
    for (size_t i = 0; i < values_.size(); ++i) {
        values_[i].bytes = std::string_view(at, sizes_[i]);
        at += sizes_[i];
    }
}

bool field_encoder::encode_listed(const record_type &type, const ProtobufCMessage &record,
                                  std::span<const uint32_t> numbers)
{
    begin();
    for (const uint32_t number : numbers) {
        const auto *field = value_field(type, number);
        if (field == nullptr)
            return false;
        if (std::any_of(values_.begin(), values_.end(), [number](const auto &had) { return had.number == number; }))
            continue;
        const size_t start = bytes_.size();
        append_field(bytes_, record, *field);
        end_field(number, start);
    }
    finish();
    return true;
}

void field_encoder::append_unknown(const record_type &type, const ProtobufCMessage &record)
{
    std::vector<const ProtobufCMessageUnknownField *> fields;
    for (unsigned i = 0; record.unknown_fields != nullptr && i < record.n_unknown_fields; ++i) {
        const auto *field = &record.unknown_fields[i];
        const bool known = protobuf_c_message_descriptor_get_field(type.descriptor, field->tag) != nullptr;
        if (!known && field->tag != 0 && field->data != nullptr)
            fields.push_back(field);
    }
    std::stable_sort(fields.begin(), fields.end(), [](const auto *a, const auto *b) { return a->tag < b->tag; });
    for (size_t i = 0; i < fields.size();) {
        const uint32_t number = fields[i]->tag;
        const size_t start = bytes_.size();
        for (; i < fields.size() && fields[i]->tag == number; ++i) {
            append_tag(bytes_, number, unknown_wire_type(*fields[i]));
            bytes_.append(reinterpret_cast<const char *>(fields[i]->data), fields[i]->len);
        }
        if (holds_only_field(std::string_view(bytes_).substr(start), number))
            end_field(number, start);
        else
            bytes_.resize(start); // no reader would take it, and the record with it
    }
}

void field_encoder::encode_all(const record_type &type, const ProtobufCMessage &record)
{
    begin();
    for (const auto &field : field_span(type.descriptor->fields, type.descriptor->n_fields)) {
        const size_t start = bytes_.size();
        if (&field == type.index)
            continue;
        append_field(bytes_, record, field);
        if (bytes_.size() > start)
            end_field(field.id, start);
    }
    append_unknown(type, record);
    finish();
}

ProtobufCMessage *decode_record(const record_type &type, std::string_view key, field_values fields,
                                std::string &scratch)
{
    scratch.clear();
    if (type.index == nullptr && !key.empty())
        return nullptr;
    if (type.index != nullptr) {
        if (!append_key_wire(scratch, type.key_fields, key))
            return nullptr;
        close_index(scratch, type, 0);
    }
    for (const auto &field : fields) {
        if (!is_value(type, field))
            return nullptr;
        scratch.append(field.bytes);
    }
    return unpack(type, scratch);
}

} // namespace mom
