// See prefixes.hpp.
#include "import/prefixes.hpp"

#include "attribute_value.hpp"
#include <algorithm>
#include <arpa/inet.h>
#include <bit>

namespace plx::tool::import {

namespace {

bool bit(const Prefix &prefix, unsigned at)
{
    return (prefix.bytes[at / 8] >> (7 - at % 8) & 1U) != 0;
}

void flip(Prefix &prefix, unsigned at)
{
    prefix.bytes[at / 8] = static_cast<uint8_t>(prefix.bytes[at / 8] ^ 1U << (7 - at % 8));
}

void clear_behind(Prefix &prefix)
{
    for (unsigned at = prefix.length; at < 128; ++at)
        if (bit(prefix, at))
            flip(prefix, at);
}

std::optional<Prefix> address_of(const std::string &text)
{
    Prefix prefix;
    prefix.ipv6 = text.find(':') != std::string::npos;
    prefix.length = static_cast<uint8_t>(prefix.width());
    if (inet_pton(prefix.ipv6 ? AF_INET6 : AF_INET, text.c_str(), prefix.bytes.data()) != 1)
        return std::nullopt;
    return prefix;
}

std::optional<uint8_t> length_of(const std::string &text, unsigned width)
{
    uint64_t length = 0;
    if (parse_number(text, length) && length <= width)
        return static_cast<uint8_t>(length);
    const auto mask = address_of(text);
    if (!mask || mask->width() != width)
        return std::nullopt;
    unsigned ones = 0;
    while (ones < width && bit(*mask, ones))
        ++ones;
    Prefix rest = *mask;
    rest.length = static_cast<uint8_t>(ones);
    clear_behind(rest);
    return rest.bytes == mask->bytes ? std::optional(static_cast<uint8_t>(ones)) : std::nullopt;
}

Prefix last_of(Prefix prefix)
{
    for (unsigned at = prefix.length; at < prefix.width(); ++at)
        flip(prefix, at);
    return prefix;
}

// The address behind; false at the end of all.
bool advance(Prefix &address)
{
    for (unsigned at = address.width(); at-- > 0;) {
        flip(address, at);
        if (bit(address, at))
            return true;
    }
    return false;
}

} // namespace

std::string Prefix::text() const
{
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    inet_ntop(ipv6 ? AF_INET6 : AF_INET, bytes.data(), buffer.data(), buffer.size());
    return buffer.data() + (length == width() ? std::string() : '/' + std::to_string(length));
}

bool Prefix::contains(const Prefix &other) const
{
    Prefix shorter = other;
    shorter.length = length;
    clear_behind(shorter);
    return ipv6 == other.ipv6 && length <= other.length && shorter.bytes == bytes;
}

std::optional<Prefix> prefix_of(const std::string &text)
{
    const size_t slash = text.find('/');
    auto prefix = address_of(text.substr(0, slash));
    if (!prefix || slash == std::string::npos)
        return prefix;
    const auto length = length_of(text.substr(slash + 1), prefix->width());
    if (!length)
        return std::nullopt;
    prefix->length = *length;
    clear_behind(*prefix);
    return prefix;
}

std::vector<Prefix> range_of(const std::string &first, const std::string &last)
{
    auto low = address_of(first);
    const auto high = address_of(last);
    std::vector<Prefix> blocks;
    if (!low || !high || low->ipv6 != high->ipv6 || high->bytes < low->bytes)
        return blocks;
    for (bool more = true; more && low->bytes <= high->bytes;) {
        Prefix block = *low; // the widest that begins here and ends in the range
        while (block.length > 0 && !bit(*low, block.length - 1U)) {
            Prefix wider = block;
            --wider.length;
            if (last_of(wider).bytes > high->bytes)
                break;
            block = wider;
        }
        blocks.push_back(block);
        low = last_of(block);
        low->length = static_cast<uint8_t>(low->width());
        more = advance(*low);
    }
    return blocks;
}

std::vector<Prefix> merged(std::vector<Prefix> prefixes)
{
    std::sort(prefixes.begin(), prefixes.end());
    std::vector<Prefix> kept;
    for (const Prefix &prefix : prefixes) {
        if (!kept.empty() && kept.back().contains(prefix))
            continue;
        kept.push_back(prefix);
        while (kept.size() > 1) { // two halves are a whole
            const Prefix &one = kept[kept.size() - 2], &other = kept.back();
            Prefix half = one;
            if (one.length == 0 || one.length != other.length || one.ipv6 != other.ipv6)
                break;
            flip(half, one.length - 1U);
            if (bit(one, one.length - 1U) || half.bytes != other.bytes)
                break;
            kept.pop_back();
            --kept.back().length;
        }
    }
    return kept;
}

std::vector<Prefix> complement(const Prefix &prefix)
{
    std::vector<Prefix> others;
    for (unsigned at = 0; at < prefix.length; ++at) {
        Prefix other = prefix;
        flip(other, at);
        other.length = static_cast<uint8_t>(at + 1);
        clear_behind(other);
        others.push_back(other);
    }
    return others;
}

} // namespace plx::tool::import
