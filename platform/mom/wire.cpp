// See wire.hpp.
#include "wire.hpp"

#include <cstring>

namespace mom {
namespace {

template <typename Value> Value load(const void *member)
{
    Value value;
    std::memcpy(&value, member, sizeof value);
    return value;
}

template <typename Value> void append_fixed(std::string &out, Value value)
{
    for (size_t i = 0; i < sizeof value; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
}

uint64_t zigzag(uint64_t raw)
{
    return (raw << 1) ^ (0 - (raw >> 63));
}

wire_type wire_type_of(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_FIXED32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_FLOAT:
        return wire_type::fixed32;
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
        return wire_type::fixed64;
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_BYTES:
    case PROTOBUF_C_TYPE_MESSAGE:
        return wire_type::length;
    default:
        return wire_type::varint;
    }
}

const char *member_at(const ProtobufCMessage &message, unsigned offset)
{
    return reinterpret_cast<const char *>(&message) + offset;
}

void append_packed_message(std::string &out, uint32_t number, const ProtobufCMessage *sub)
{
    if (!is_message(sub))
        return;
    const size_t size = protobuf_c_message_get_packed_size(sub);
    append_tag(out, number, wire_type::length);
    append_varint(out, size);
    const size_t at = out.size();
    out.resize(at + size);
    protobuf_c_message_pack(sub, reinterpret_cast<uint8_t *>(out.data() + at));
}

std::string_view bytes_of(const void *member)
{
    const auto bytes = load<ProtobufCBinaryData>(member);
    return bytes.data == nullptr ? std::string_view{}
                                 : std::string_view(reinterpret_cast<char *>(bytes.data), bytes.len);
}

std::string_view text_of(const void *member)
{
    const auto *text = load<const char *>(member);
    return text == nullptr ? std::string_view{} : std::string_view(text);
}

size_t element_size(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_MESSAGE:
        return sizeof(void *);
    case PROTOBUF_C_TYPE_BYTES:
        return sizeof(ProtobufCBinaryData);
    default:
        return number_size(type);
    }
}

// One element whose presence is already decided.
void append_element(std::string &out, const ProtobufCFieldDescriptor &field, const void *member)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_STRING:
        return append_length_field(out, field.id, text_of(member));
    case PROTOBUF_C_TYPE_BYTES:
        return append_length_field(out, field.id, bytes_of(member));
    case PROTOBUF_C_TYPE_MESSAGE:
        return append_packed_message(out, field.id, load<const ProtobufCMessage *>(member));
    default:
        return append_number_field(out, field, load_number(member, field.type));
    }
}

void append_repeated(std::string &out, const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    const auto count = load<size_t>(member_at(message, field.quantifier_offset));
    const auto *elements = load<const char *>(member_at(message, field.offset));
    if (count == 0 || elements == nullptr)
        return;
    const size_t size = element_size(field.type);
    if ((field.flags & PROTOBUF_C_FIELD_FLAG_PACKED) == 0 || !is_number(field.type)) {
        for (size_t i = 0; i < count; ++i)
            append_element(out, field, elements + i * size);
        return;
    }
    std::string packed;
    for (size_t i = 0; i < count; ++i)
        append_number(packed, field.type, load_number(elements + i * size, field.type));
    append_length_field(out, field.id, packed);
}

bool is_default(const void *member, ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_STRING:
        return text_of(member).empty();
    case PROTOBUF_C_TYPE_BYTES:
        return bytes_of(member).empty();
    case PROTOBUF_C_TYPE_MESSAGE:
        return load<const void *>(member) == nullptr;
    default:
        return load_number(member, type) == 0;
    }
}

bool is_present(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    const void *member = member_at(message, field.offset);
    if (field.label == PROTOBUF_C_LABEL_REQUIRED)
        return true;
    if ((field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0)
        return load<uint32_t>(member_at(message, field.quantifier_offset)) == field.id;
    if (field.label == PROTOBUF_C_LABEL_NONE)
        return !is_default(member, field.type);
    if (field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_MESSAGE) {
        const auto *pointer = load<const void *>(member);
        return pointer != nullptr && pointer != field.default_value;
    }
    return load<protobuf_c_boolean>(member_at(message, field.quantifier_offset)) != 0;
}

bool take_varint(std::string_view &bytes, uint64_t &value)
{
    value = 0;
    for (unsigned shift = 0; shift < 70 && !bytes.empty(); shift += 7) {
        const auto byte = static_cast<unsigned char>(bytes.front());
        bytes.remove_prefix(1);
        if (shift == 63 && byte > 1)
            return false;
        value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (byte < 0x80)
            return true;
    }
    return false;
}

bool skip(std::string_view &bytes, uint64_t size)
{
    if (size > bytes.size())
        return false;
    bytes.remove_prefix(static_cast<size_t>(size));
    return true;
}

bool skip_value(std::string_view &bytes, uint64_t type)
{
    uint64_t value = 0;
    switch (type) {
    case static_cast<uint64_t>(wire_type::varint):
        return take_varint(bytes, value);
    case static_cast<uint64_t>(wire_type::fixed64):
        return skip(bytes, 8);
    case static_cast<uint64_t>(wire_type::length):
        return take_varint(bytes, value) && skip(bytes, value);
    case static_cast<uint64_t>(wire_type::fixed32):
        return skip(bytes, 4);
    default:
        return false;
    }
}

} // namespace

void append_varint(std::string &out, uint64_t value)
{
    char bytes[10];
    size_t size = 0;
    for (; value >= 0x80; value >>= 7)
        bytes[size++] = static_cast<char>(value | 0x80);
    bytes[size++] = static_cast<char>(value);
    out.append(bytes, size);
}

void append_tag(std::string &out, uint32_t number, wire_type type)
{
    append_varint(out, static_cast<uint64_t>(number) << 3 | static_cast<uint64_t>(type));
}

void append_length_field(std::string &out, uint32_t number, std::string_view bytes)
{
    append_tag(out, number, wire_type::length);
    append_varint(out, bytes.size());
    out.append(bytes);
}

bool is_number(ProtobufCType type)
{
    return wire_type_of(type) != wire_type::length;
}

size_t number_size(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
        return 8;
    default:
        return 4;
    }
}

uint64_t load_number(const void *member, ProtobufCType type)
{
    if (number_size(type) == 8)
        return load<uint64_t>(member);
    switch (type) {
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
    case PROTOBUF_C_TYPE_FLOAT:
        return load<uint32_t>(member);
    case PROTOBUF_C_TYPE_BOOL:
        return load<uint32_t>(member) != 0 ? 1 : 0;
    default:
        return static_cast<uint64_t>(static_cast<int64_t>(load<int32_t>(member)));
    }
}

void append_number(std::string &out, ProtobufCType type, uint64_t raw)
{
    switch (wire_type_of(type)) {
    case wire_type::fixed32:
        return append_fixed(out, static_cast<uint32_t>(raw));
    case wire_type::fixed64:
        return append_fixed(out, raw);
    case wire_type::varint:
    case wire_type::length:
        break;
    }
    const bool zigzagged = type == PROTOBUF_C_TYPE_SINT32 || type == PROTOBUF_C_TYPE_SINT64;
    append_varint(out, zigzagged ? zigzag(raw) : raw);
}

void append_number_field(std::string &out, const ProtobufCFieldDescriptor &field, uint64_t raw)
{
    append_tag(out, field.id, wire_type_of(field.type));
    append_number(out, field.type, raw);
}

void append_field(std::string &out, const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    if (field.label == PROTOBUF_C_LABEL_REPEATED)
        append_repeated(out, message, field);
    else if (is_present(message, field))
        append_element(out, field, member_at(message, field.offset));
}

bool holds_only_field(std::string_view bytes, uint32_t number)
{
    while (!bytes.empty()) {
        uint64_t tag = 0;
        if (!take_varint(bytes, tag) || tag >> 3 != number || !skip_value(bytes, tag & 7))
            return false;
    }
    return true;
}

bool holds_no_field(std::string_view bytes, uint32_t number)
{
    while (!bytes.empty()) {
        uint64_t tag = 0;
        if (!take_varint(bytes, tag) || tag >> 3 == 0 || tag >> 3 == number || !skip_value(bytes, tag & 7))
            return false;
    }
    return true;
}

bool is_message(const ProtobufCMessage *message)
{
    return message != nullptr && message->descriptor != nullptr &&
           message->descriptor->magic == PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC;
}

} // namespace mom
