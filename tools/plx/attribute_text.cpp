// See attribute_text.hpp. Each kind of value has one shape; a mask that is a prefix of an address is shown as its
// length, one of a number in hexadecimal digits, and so is an ethertype without a name.
#include "attribute_text.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cstdio>

namespace plx::tool {

namespace {

using Bytes = std::span<const uint8_t>;

uint64_t number_of(Bytes bytes)
{
    uint64_t number = 0;
    for (const uint8_t byte : bytes)
        number = number << 8 | byte;
    return number;
}

std::string flag_words(NameSet set, uint64_t number)
{
    std::string words;
    for (const NamedValue &named : named_values(set)) {
        if (std::popcount(named.value) != 1 || (number & named.value) == 0)
            continue;
        words += (words.empty() ? "" : "+") + std::string(named.name);
        number &= ~uint64_t{named.value};
    }
    return number == 0 ? words : "";
}

std::string hexadecimal(uint64_t number)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
    return text;
}

std::string number_text(NameSet set, uint64_t number)
{
    if (is_flag_set(set))
        if (std::string words = flag_words(set, number); !words.empty())
            return words;
    for (const NamedValue &named : named_values(set))
        if (named.value == number)
            return std::string(named.name);
    return set == NameSet::ethertype ? hexadecimal(number) : std::to_string(number);
}

std::string address_text(int family, Bytes bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, bytes.data(), text, sizeof text);
    return text;
}

std::string upper_half_text(Bytes bytes)
{
    std::array<uint8_t, 16> whole{};
    std::copy_n(bytes.begin(), bytes.size(), whole.begin());
    return address_text(AF_INET6, whole);
}

std::string range_text(const Form &form, Bytes bytes)
{
    const std::string lowest = number_text(form.names, number_of(bytes.first(2)));
    const std::string highest = number_text(form.names, number_of(bytes.subspan(2)));
    return lowest == highest ? lowest : lowest + "-" + highest;
}

std::string ports_text(Bytes bytes)
{
    const auto has = [&](size_t port) {
        return port < bytes.size() * 8 && (bytes[port / 8] >> (7 - port % 8) & 1) != 0;
    };
    std::string text;
    for (size_t port = 0; port < bytes.size() * 8; ++port) {
        if (!has(port))
            continue;
        size_t last = port;
        while (has(last + 1))
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(port);
        if (last != port)
            text += "-" + std::to_string(last);
        port = last;
    }
    return text;
}

std::string plain_text(const Form &form, Bytes bytes)
{
    switch (form.kind) {
    case ValueKind::number:
        return number_text(form.names, number_of(bytes));
    case ValueKind::flag:
        return bytes[0] == 0 ? "false" : "true";
    case ValueKind::mac:
        return hex(bytes, ":");
    case ValueKind::ipv4:
        return address_text(AF_INET, bytes);
    case ValueKind::ipv6:
        return address_text(AF_INET6, bytes);
    case ValueKind::ipv6_upper:
        return upper_half_text(bytes);
    case ValueKind::range:
        return range_text(form, bytes);
    case ValueKind::ports:
        return ports_text(bytes);
    case ValueKind::octets:
        break;
    }
    return "0x" + hex(bytes);
}

// The number of leading ones when no other bit is set, else -1.
int prefix_length(Bytes mask)
{
    int ones = 0;
    bool ended = false;
    for (const uint8_t byte : mask) {
        const int leading = std::countl_one(byte);
        if (std::popcount(byte) != leading || (ended && byte != 0))
            return -1;
        ones += leading;
        ended |= leading < 8;
    }
    return ones;
}

std::string mask_text(const Form &form, Bytes mask)
{
    if (form.kind == ValueKind::number) {
        const std::string words = is_flag_set(form.names) ? flag_words(form.names, number_of(mask)) : "";
        return words.empty() ? hexadecimal(number_of(mask)) : words;
    }
    const int length = is_address(form.kind) ? prefix_length(mask) : -1;
    return length < 0 ? plain_text(form, mask) : std::to_string(length);
}

} // namespace

std::string hex(std::span<const uint8_t> bytes, std::string_view between)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        if (!text.empty())
            text += between;
        text += {digits[byte >> 4U], digits[byte & 15U]};
    }
    return text;
}

std::string format_value(const Form *form, Bytes value)
{
    if (form == nullptr || (value.size() != form->bytes() && value.size() != 2 * size_t{form->bytes()}))
        return "0x" + hex(value);
    const Bytes plain = value.first(form->bytes());
    const Bytes mask = value.subspan(form->bytes());
    return plain_text(*form, plain) + (mask.empty() ? "" : "/" + mask_text(*form, mask));
}

std::string attribute_name(const Attribute &attribute, const Form *form)
{
    return form == nullptr ? std::to_string(attribute.id) : std::string(form->name);
}

} // namespace plx::tool
