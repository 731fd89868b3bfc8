// See key_text.hpp.
#include "key_text.hpp"

#include "wire.hpp"

#include <charconv>
#include <cstring>
#include <limits>

namespace mom {
namespace {

constexpr char separator = ',';

bool needs_escape(unsigned char byte)
{
    return byte <= ' ' || byte == '%' || byte == separator || byte == 0x7f;
}

void append_escaped(std::string &out, std::string_view text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (needs_escape(byte)) {
            const char escape[] = {'%', digits[byte >> 4], digits[byte & 15]};
            out.append(escape, sizeof escape);
        } else {
            out.push_back(character);
        }
    }
}

int hex_digit(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

bool append_unescaped(std::string &out, std::string_view text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            if (needs_escape(static_cast<unsigned char>(text[i])))
                return false;
            out.push_back(text[i]);
            continue;
        }
        const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        const int low = high >= 0 ? hex_digit(text[i + 2]) : -1;
        if (low < 0 || !needs_escape(static_cast<unsigned char>(high << 4 | low)))
            return false;
        out.push_back(static_cast<char>(high << 4 | low));
        i += 2;
    }
    return true;
}

bool is_signed(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_ENUM:
        return true;
    default:
        return false;
    }
}

void append_number_text(std::string &out, ProtobufCType type, uint64_t raw)
{
    const bool negative = is_signed(type) && (raw >> 63) != 0;
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, negative ? 0 - raw : raw).ptr;
    const auto last = static_cast<char>(end - digits - 1);
    out.push_back(negative ? static_cast<char>('Z' - last) : static_cast<char>('a' + last));
    for (char *digit = digits; negative && digit < end; ++digit)
        *digit = static_cast<char>('0' + ('9' - *digit));
    out.append(digits, end);
}

bool fits(ProtobufCType type, bool negative, uint64_t magnitude)
{
    const bool wide = number_size(type) == 8;
    if (type == PROTOBUF_C_TYPE_BOOL)
        return magnitude <= 1;
    if (!is_signed(type))
        return wide || magnitude <= std::numeric_limits<uint32_t>::max();
    const uint64_t limit = wide ? uint64_t{1} << 63 : uint64_t{1} << 31;
    return negative ? magnitude <= limit : magnitude < limit;
}

bool parse_key_number(std::string_view text, ProtobufCType type, uint64_t &raw)
{
    if (text.size() < 2 || text.size() > 21)
        return false;
    const auto last = static_cast<int>(text.size()) - 2;
    const bool negative = text.front() == 'Z' - last && is_signed(type);
    if (!negative && text.front() != 'a' + last)
        return false;
    char digits[24];
    std::memcpy(digits, text.data() + 1, text.size() - 1);
    char *end = digits + text.size() - 1;
    for (char *digit = digits; digit < end; ++digit) {
        if (*digit < '0' || *digit > '9')
            return false;
        *digit = negative ? static_cast<char>('0' + ('9' - *digit)) : *digit;
    }
    uint64_t magnitude = 0;
    const auto parsed = std::from_chars(digits, end, magnitude);
    const bool leading_zero = digits[0] == '0' && (last > 0 || negative);
    if (parsed.ec != std::errc{} || leading_zero || !fits(type, negative, magnitude))
        return false;
    raw = negative ? 0 - magnitude : magnitude;
    return true;
}

std::string_view text_member(const void *member, ProtobufCType type)
{
    if (type == PROTOBUF_C_TYPE_STRING) {
        const char *text = nullptr;
        std::memcpy(&text, member, sizeof text);
        return text == nullptr ? std::string_view{} : std::string_view(text);
    }
    ProtobufCBinaryData bytes;
    std::memcpy(&bytes, member, sizeof bytes);
    return bytes.data == nullptr ? std::string_view{}
                                 : std::string_view(reinterpret_cast<char *>(bytes.data), bytes.len);
}

void append_field_text(std::string &out, const ProtobufCFieldDescriptor &field, const ProtobufCMessage *key)
{
    const void *member = key == nullptr ? nullptr : reinterpret_cast<const char *>(key) + field.offset;
    if (is_number(field.type))
        append_number_text(out, field.type, member == nullptr ? 0 : load_number(member, field.type));
    else if (member != nullptr)
        append_escaped(out, text_member(member, field.type));
}

bool append_field_wire(std::string &out, const ProtobufCFieldDescriptor &field, std::string_view text)
{
    if (is_number(field.type)) {
        uint64_t raw = 0;
        if (!parse_key_number(text, field.type, raw))
            return false;
        if (raw != 0 || field.label == PROTOBUF_C_LABEL_REQUIRED)
            append_number_field(out, field, raw);
        return true;
    }
    std::string value;
    if (!append_unescaped(value, text))
        return false;
    if (!value.empty() || field.label == PROTOBUF_C_LABEL_REQUIRED)
        append_length_field(out, field.id, value);
    return field.type == PROTOBUF_C_TYPE_BYTES || value.find('\0') == std::string::npos;
}

} // namespace

bool can_be_key(const ProtobufCFieldDescriptor &field)
{
    const bool real = field.type == PROTOBUF_C_TYPE_FLOAT || field.type == PROTOBUF_C_TYPE_DOUBLE;
    const bool oneof = (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0;
    return field.label != PROTOBUF_C_LABEL_REPEATED && field.type != PROTOBUF_C_TYPE_MESSAGE && !real && !oneof;
}

void append_key_text(std::string &out, field_span fields, const ProtobufCMessage *key, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (i > 0)
            out.push_back(separator);
        append_field_text(out, fields[i], key);
    }
}

key_range select_keys(field_span fields, const ProtobufCMessage *key, size_t count)
{
    key_range range;
    if (count == 0)
        return range;
    append_key_text(range.begin, fields, key, count);
    range.bounded = true;
    range.end = range.begin;
    if (count == fields.size()) {
        range.end.push_back('\0');
    } else {
        range.begin.push_back(separator);
        range.end.push_back(separator + 1);
    }
    return range;
}

bool append_key_wire(std::string &out, field_span fields, std::string_view text)
{
    for (size_t i = 0; i < fields.size(); ++i) {
        const size_t end = i + 1 < fields.size() ? text.find(separator) : text.size();
        if (end == std::string_view::npos || !append_field_wire(out, fields[i], text.substr(0, end)))
            return false;
        text.remove_prefix(i + 1 < fields.size() ? end + 1 : end);
    }
    return text.empty();
}

} // namespace mom
