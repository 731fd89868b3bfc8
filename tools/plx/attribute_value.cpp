// See attribute_value.hpp. Each form has a parser that appends the value's bytes; encode() joins value and mask.
#include "attribute_value.hpp"

#include "document.hpp"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <numeric>
#include <optional>

namespace plx::tool {

namespace {

using Buffer = std::vector<uint8_t>;
using Failure = std::optional<std::string>; // what is wrong

constexpr uint32_t switch_ports = 256; // that a `ports` value has bits for

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return result;
}

bool all_digits(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void put_number(Buffer &out, uint64_t number, uint32_t bytes)
{
    for (uint32_t left = bytes; left > 0; --left)
        out.push_back(static_cast<uint8_t>(number >> (8 * (left - 1))));
}

std::optional<uint64_t> word_value(NameSet set, std::string_view word)
{
    for (const NamedValue &named : named_values(set)) {
        if (named.name == word)
            return named.value;
    }
    return std::nullopt;
}

// "a+b" of a set of flags; one word of any other set.
std::optional<uint64_t> words_value(NameSet set, std::string_view words)
{
    if (!is_flag_set(set))
        return word_value(set, words);
    uint64_t flags = 0;
    while (true) {
        const size_t plus = std::min(words.find('+'), words.size());
        const auto flag = word_value(set, words.substr(0, plus));
        if (!flag)
            return std::nullopt;
        flags |= *flag;
        if (plus == words.size())
            return flags;
        words.remove_prefix(plus + 1);
    }
}

std::string not_a_number(NameSet set, std::string_view text)
{
    std::string message = quoted(text) + " is not a number";
    std::vector<std::string_view> words;
    for (const NamedValue &named : named_values(set))
        words.push_back(named.name);
    if (words.empty())
        return message;
    message += " and not one of ";
    for (const std::string_view word : words)
        message += std::string(word) + (word == words.back() ? "" : ", ");
    const std::string_view close = nearest(text, words);
    return close.empty() ? message : message + "; did you mean '" + std::string(close) + "'?";
}

bool word_or_number(NameSet set, std::string_view text, uint64_t &number)
{
    const std::string folded = lower(text);
    if (const auto word = words_value(set, folded))
        number = *word;
    else
        return parse_number(folded, number);
    return true;
}

Failure number_value(NameSet set, std::string_view text, uint32_t bits, uint64_t &number)
{
    if (!word_or_number(set, text, number))
        return not_a_number(set, text);
    const uint64_t largest = bits >= 64 ? UINT64_MAX : (1ULL << bits) - 1;
    if (number > largest)
        return quoted(text) + " is out of range: 0 to " + std::to_string(largest);
    return std::nullopt;
}

Failure put_flag(std::string_view text, Buffer &out)
{
    bool value = text == "1";
    if (text != "0" && text != "1" && !parse_bool(text, value))
        return quoted(text) + " is neither true nor false";
    out.push_back(value ? 1 : 0);
    return std::nullopt;
}

std::optional<uint8_t> hex_byte(std::string_view text)
{
    uint8_t byte = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), byte, 16);
    const bool whole = text.size() == 2 && error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(byte) : std::nullopt;
}

Failure put_mac(std::string_view text, Buffer &out)
{
    const std::string wrong = quoted(text) + " is not a MAC address such as 00:11:22:33:44:55";
    if (text.size() != 17)
        return wrong;
    for (size_t at = 0; at < text.size(); at += 3) {
        const auto byte = hex_byte(text.substr(at, 2));
        if (!byte || (at + 2 < text.size() && text[at + 2] != ':' && text[at + 2] != '-'))
            return wrong;
        out.push_back(*byte);
    }
    return std::nullopt;
}

Failure put_address(int family, std::string_view text, Buffer &out)
{
    std::array<uint8_t, 16> address{};
    const std::string terminated(text);
    if (text.find('\0') != std::string_view::npos || inet_pton(family, terminated.c_str(), address.data()) != 1)
        return quoted(text) + " is not an " + (family == AF_INET ? "IPv4" : "IPv6") + " address";
    out.insert(out.end(), address.begin(), address.begin() + (family == AF_INET ? 4 : 16));
    return std::nullopt;
}

Failure put_upper_half(std::string_view text, Buffer &out)
{
    Buffer address;
    if (Failure failure = put_address(AF_INET6, text, address))
        return failure;
    if (std::any_of(address.begin() + 8, address.end(), [](uint8_t byte) { return byte != 0; }))
        return quoted(text) + " has bits in its lower half";
    out.insert(out.end(), address.begin(), address.begin() + 8);
    return std::nullopt;
}

// A word may have hyphens of its own, so every hyphen is tried as the one between the ends.
Failure put_range(const Form &form, std::string_view text, Buffer &out)
{
    constexpr size_t longest = 64; // two words
    uint64_t low = 0;
    uint64_t high = 0;
    const auto take = [&form](std::string_view end, uint64_t &port) {
        return word_or_number(form.names, end, port) && port <= UINT16_MAX;
    };
    bool found = take(text, low);
    high = low;
    for (size_t at = text.size() > longest ? text.npos : text.find('-'); !found && at != text.npos;
         at = text.find('-', at + 1))
        found = take(text.substr(0, at), low) && take(text.substr(at + 1), high);
    if (!found)
        return quoted(text) + " is not a range of ports such as 1024-65535";
    if (low > high)
        return quoted(text) + " begins after its end";
    put_number(out, low, 2);
    put_number(out, high, 2);
    return std::nullopt;
}

Failure put_ports(std::string_view text, Buffer &out)
{
    std::array<uint8_t, switch_ports / 8> bits{};
    while (true) {
        const std::string_view item = text.substr(0, text.find(','));
        const size_t hyphen = std::min(item.find('-'), item.size());
        uint64_t first = 0;
        uint64_t last = 0;
        if (!parse_number(item.substr(0, hyphen), first) ||
            !parse_number(hyphen == item.size() ? item : item.substr(hyphen + 1), last) || first > last ||
            last >= switch_ports)
            return quoted(item) + " is not a port or range of ports from 0 to 255, such as 1-4";
        for (auto port = static_cast<size_t>(first); port <= last; ++port)
            bits[port / 8] = static_cast<uint8_t>(bits[port / 8] | (0x80U >> (port % 8)));
        if (item.size() == text.size())
            break;
        text.remove_prefix(item.size() + 1);
    }
    out.insert(out.end(), bits.begin(), bits.end());
    return std::nullopt;
}

Failure put_octets(const Form &form, std::string_view text, Buffer &out)
{
    std::string_view digits = text;
    if (digits.starts_with("0x"))
        digits.remove_prefix(2);
    const std::string wrong = quoted(text) + " is not " + std::to_string(2 * form.bytes()) + " hexadecimal digits";
    if (digits.size() != 2 * size_t{form.bytes()})
        return wrong;
    for (size_t at = 0; at < digits.size(); at += 2) {
        const auto byte = hex_byte(digits.substr(at, 2));
        if (!byte)
            return wrong;
        out.push_back(*byte);
    }
    return std::nullopt;
}

Failure put_plain(const Form &form, std::string_view text, Buffer &out)
{
    switch (form.kind) {
    case ValueKind::number: {
        uint64_t number = 0;
        Failure failure = number_value(form.names, text, form.bits, number);
        put_number(out, number, form.bytes());
        return failure;
    }
    case ValueKind::flag:
        return put_flag(text, out);
    case ValueKind::mac:
        return put_mac(text, out);
    case ValueKind::ipv4:
        return put_address(AF_INET, text, out);
    case ValueKind::ipv6:
        return put_address(AF_INET6, text, out);
    case ValueKind::ipv6_upper:
        return put_upper_half(text, out);
    case ValueKind::range:
        return put_range(form, text, out);
    case ValueKind::ports:
        return put_ports(text, out);
    case ValueKind::octets:
        return put_octets(form, text, out);
    }
    return "has a form that is not known";
}

Failure put_prefix(const Form &form, std::string_view text, Buffer &out)
{
    uint64_t length = 0;
    if (!parse_number(text, length) || length > form.bits)
        return quoted(text) + " is not a prefix length: 0 to " + std::to_string(form.bits);
    for (uint64_t byte = 0; byte < form.bytes(); ++byte) {
        const uint64_t left = length > 8 * byte ? length - 8 * byte : 0;
        out.push_back(static_cast<uint8_t>(left >= 8 ? 0xffU : 0xff00U >> left));
    }
    return std::nullopt;
}

Failure put_mask(const Form &form, std::string_view text, Buffer &out)
{
    const Failure failure =
        is_address(form.kind) && all_digits(text) ? put_prefix(form, text, out) : put_plain(form, text, out);
    return failure ? "mask " + *failure : failure;
}

Failure put(const Form &form, std::string_view text, Buffer &out)
{
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return put_plain(form, text, out);
    if (!form.mask)
        return quoted(text) + " has a mask, which this attribute does not take";
    Failure failure = put_plain(form, text.substr(0, slash), out);
    if (!failure)
        failure = put_mask(form, text.substr(slash + 1), out);
    if (failure)
        return failure;
    const size_t bytes = form.bytes();
    for (size_t at = 0; at < bytes; ++at) {
        if ((out[at] & ~out[bytes + at]) != 0)
            return quoted(text) + " has bits outside its mask";
    }
    return std::nullopt;
}

// Letters to change, add, take out, or exchange with their neighbour, to make `a` into `b`.
size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> before(b.size() + 1);
    std::vector<size_t> above(b.size() + 1);
    std::vector<size_t> row(b.size() + 1);
    std::iota(above.begin(), above.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); ++j) {
            row[j + 1] = std::min({above[j] + (a[i] == b[j] ? 0 : 1), above[j + 1] + 1, row[j] + 1});
            if (i > 0 && j > 0 && a[i] == b[j - 1] && a[i - 1] == b[j])
                row[j + 1] = std::min(row[j + 1], before[j - 1] + 1);
        }
        before.swap(above);
        above.swap(row);
    }
    return above[b.size()];
}

} // namespace

Encoding encode(const Form &form, std::string_view text)
{
    Encoding encoding;
    if (const Failure failure = put(form, text, encoding.bytes))
        encoding = {.bytes = {}, .error = *failure};
    return encoding;
}

std::string_view nearest(std::string_view text, const std::vector<std::string_view> &candidates)
{
    constexpr size_t longest = 64; // of a slip; longer text is none
    std::string_view best;
    size_t least = std::min<size_t>(3, text.size() / 3 + 1) + 1;
    if (text.size() > longest)
        return best;
    const std::string folded = lower(text);
    for (const std::string_view candidate : candidates) {
        size_t distance =
            std::max(folded.size(), candidate.size()) - std::min(folded.size(), candidate.size()); // or more
        if (distance < least)
            distance = edit_distance(folded, candidate);
        if (distance < least) {
            best = candidate;
            least = distance;
        }
    }
    return best;
}

bool parse_number(std::string_view text, uint64_t &number)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool parse_bool(std::string_view text, bool &value)
{
    const std::string folded = lower(text);
    value = folded == "true" || folded == "yes" || folded == "on";
    return value || folded == "false" || folded == "no" || folded == "off";
}

} // namespace plx::tool
