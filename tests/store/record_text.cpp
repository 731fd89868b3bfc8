// See record_text.hpp: text to the bytes of a message, and those to text.
#include "record_text.hpp"

#include "store_test.pb-c.h"
#include "store_test_newer.pb-c.h"

#include <cstring>
#include <plx/s_policy.pb-c.h>
#include <stdexcept>

namespace {

enum wire : uint64_t { varint = 0, fixed64 = 1, counted = 2, fixed32 = 5 };

const ProtobufCMessageDescriptor &descriptor_of(const std::string &name)
{
    for (const auto *each :
         {&s_policy__ace__descriptor, &s_policy__ace_psta__descriptor, &s_policy__ace_counter__descriptor,
          &s_policy__service_node__descriptor, &s_policy__svi_router__descriptor, &older__sample__descriptor,
          &newer__sample__descriptor, &newer__unfit__descriptor})
        if (name == std::string(each->name).substr(name.find('.') == name.npos ? strlen(each->package_name) + 1 : 0))
            return *each;
    throw std::invalid_argument("no table " + name);
}

wire wire_of(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_BYTES:
    case PROTOBUF_C_TYPE_MESSAGE:
        return counted;
    case PROTOBUF_C_TYPE_DOUBLE:
        return fixed64;
    case PROTOBUF_C_TYPE_FIXED32:
        return fixed32;
    default:
        return varint;
    }
}

bool zigzag(ProtobufCType type)
{
    return type == PROTOBUF_C_TYPE_SINT32 || type == PROTOBUF_C_TYPE_SINT64;
}

const ProtobufCMessageDescriptor &message_of(const ProtobufCFieldDescriptor &field)
{
    return *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
}

void put_number(std::string &to, uint64_t value)
{
    for (; value > 127; value >>= 7)
        to += static_cast<char>(value | 128);
    to += static_cast<char>(value);
}

std::string bytes_of(const ProtobufCMessageDescriptor &of, const std::vector<std::string> &values);

void put(std::string &to, const ProtobufCFieldDescriptor &field, const std::string &text)
{
    put_number(to, field.id << 3 | wire_of(field.type));
    const uint64_t whole = text[0] == '-' ? static_cast<uint64_t>(std::strtoll(text.c_str(), nullptr, 10))
                                          : std::strtoull(text.c_str(), nullptr, 10);
    const double fraction = wire_of(field.type) == fixed64 ? std::stod(text) : 0;
    const std::string bytes =
        field.type == PROTOBUF_C_TYPE_MESSAGE ? bytes_of(message_of(field), parts_of(text, ':')) : unescaped(text);
    switch (wire_of(field.type)) {
    case varint:
        put_number(to, zigzag(field.type) ? whole << 1 ^ (text[0] == '-' ? UINT64_MAX : 0) : whole);
        break;
    case fixed64:
        to.append(reinterpret_cast<const char *>(&fraction), 8);
        break;
    case fixed32:
        to.append(reinterpret_cast<const char *>(&whole), 4);
        break;
    case counted:
        put_number(to, bytes.size());
        to += bytes;
    }
}

// Of a message's fields in their order.
std::string bytes_of(const ProtobufCMessageDescriptor &of, const std::vector<std::string> &values)
{
    std::string bytes;
    for (size_t i = 0; i < values.size() && i < of.n_fields; ++i)
        put(bytes, of.fields[i], values[i]);
    return bytes;
}

uint64_t take_number(std::string_view &bytes)
{
    uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
        const auto byte = static_cast<uint8_t>(bytes.front());
        bytes.remove_prefix(1);
        value |= uint64_t{byte & 127u} << shift;
        if (byte < 128)
            return value;
    }
}

std::string text_of_bytes(const ProtobufCMessageDescriptor &of, std::string_view bytes);

// Takes one value, or of numbers that are packed all.
std::string take_value(const ProtobufCFieldDescriptor *field, uint64_t kind, std::string_view &bytes)
{
    const auto type = field == nullptr ? PROTOBUF_C_TYPE_BYTES : field->type;
    if (kind == varint) {
        const uint64_t whole = take_number(bytes);
        if (zigzag(type))
            return std::to_string(static_cast<int64_t>(whole >> 1 ^ -(whole & 1)));
        return type == PROTOBUF_C_TYPE_INT32 ? std::to_string(static_cast<int32_t>(whole)) : std::to_string(whole);
    }
    size_t size = kind == fixed64 ? 8 : 4;
    if (kind == counted)
        size = take_number(bytes);
    std::string_view value = bytes.substr(0, size);
    bytes.remove_prefix(size);
    uint32_t whole = 0;
    double fraction = 0;
    if (kind == fixed32)
        return std::memcpy(&whole, value.data(), sizeof whole), std::to_string(whole);
    if (kind == fixed64)
        return std::memcpy(&fraction, value.data(), sizeof fraction), std::to_string(fraction);
    if (type == PROTOBUF_C_TYPE_MESSAGE)
        return text_of_bytes(message_of(*field), value);
    if (wire_of(type) == counted)
        return escaped(std::string(value));
    std::string all;
    while (!value.empty())
        all += (all.empty() ? "" : ";") + take_value(field, wire_of(type), value);
    return all;
}

// A message inside another as its values, any other with the numbers of its fields.
std::string text_of_bytes(const ProtobufCMessageDescriptor &of, std::string_view bytes)
{
    const bool record = of.fields[0].id > 1; // any other message has its first field under 1
    std::vector<std::string> values;
    for (size_t i = 0; !record && i < of.n_fields; ++i)
        values.emplace_back(of.fields[i].type == PROTOBUF_C_TYPE_STRING ? "" : "0");
    std::string key, text;
    uint64_t last = 0;
    while (!bytes.empty()) {
        const uint64_t tag = take_number(bytes), number = tag >> 3;
        const auto *field = protobuf_c_message_descriptor_get_field(&of, static_cast<unsigned>(number));
        const std::string value = take_value(field, tag & 7, bytes);
        if (field != nullptr && !record)
            values[static_cast<size_t>(field - of.fields)] = value;
        else if (field != nullptr && std::string_view(field->name) == "index")
            key = "[" + value + "]";
        else
            text += number == last ? ";" + value
                                   : std::string(field == nullptr ? " ?" : " ") + std::to_string(number) + "=" + value;
        last = number;
    }
    for (const auto &value : values)
        text += (&value == values.data() ? "" : ",") + value;
    return key + text;
}

} // namespace

text_record::text_record(const std::string &name_and_key, const std::vector<std::string> &fields)
{
    const size_t key = name_and_key.find('[');
    table_ = name_and_key.substr(0, key);
    const size_t at = table_.find('@');
    if (at != std::string::npos)
        db_ = static_cast<uint32_t>(std::stoul(table_.substr(at + 1)));
    const auto &of = descriptor_of(table_.substr(0, at));
    std::string bytes;
    if (key != std::string::npos) {
        const auto values = parts_of(name_and_key.substr(key + 1, name_and_key.size() - key - 2), ',');
        key_fields_ = values.size();
        const auto *index = protobuf_c_message_descriptor_get_field_by_name(&of, "index");
        const std::string inside = index == nullptr ? "" : bytes_of(message_of(*index), values);
        put_number(bytes, (index == nullptr ? 99 : index->id) << 3 | counted);
        put_number(bytes, inside.size());
        bytes += inside;
    }
    for (const auto &field : fields) {
        const size_t equals = field.find('=');
        if (equals == std::string::npos)
            continue;
        numbers_.push_back(static_cast<uint32_t>(std::stoul(field)));
        const auto *known = protobuf_c_message_descriptor_get_field(&of, numbers_.back());
        for (const auto &value :
             known == nullptr ? std::vector<std::string>{} : parts_of(field.substr(equals + 1), ';'))
            put(bytes, *known, value);
    }
    message_.reset(
        protobuf_c_message_unpack(&of, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
}

std::string text_of_message(const ProtobufCMessage *message)
{
    if (message == nullptr)
        return "!";
    std::string bytes(protobuf_c_message_get_packed_size(message), '\0');
    protobuf_c_message_pack(message, reinterpret_cast<uint8_t *>(bytes.data()));
    const auto &of = *message->descriptor;
    return std::string(of.name).substr(std::strlen(of.package_name) + 1) + text_of_bytes(of, bytes);
}

std::string unescaped(const std::string &text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '%' && i + 2 < text.size()) {
            bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else if (text[i] == '*' && !bytes.empty() && i + 1 < text.size() && isdigit(text[i + 1]) != 0) {
            size_t digits = 0;
            bytes.append(std::stoul(text.substr(i + 1), &digits) - 1, bytes.back());
            i += digits;
        } else {
            bytes += text[i];
        }
    return bytes;
}

std::string escaped(const std::string &bytes)
{
    std::string text;
    for (size_t at = 0, end; at < bytes.size(); at = end) {
        end = std::min(bytes.find_first_not_of(bytes[at], at), bytes.size());
        const bool run = end - at > 9;
        end = run ? end : at + 1;
        char code[4] = {bytes[at]};
        if (bytes[at] <= ' ' || bytes[at] == '\x7f' || std::strchr("%*,;:[]<>\"\\", bytes[at]) != nullptr)
            std::snprintf(code, sizeof code, "%%%02X", static_cast<uint8_t>(bytes[at]));
        text += code + (run ? "*" + std::to_string(end - at) : "");
    }
    return text;
}

std::vector<std::string> parts_of(const std::string &text, char mark)
{
    std::vector<std::string> parts;
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        end = text.find(mark, at);
        parts.push_back(text.substr(at, end - at));
    }
    return parts;
}
