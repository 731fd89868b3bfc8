// Addresses in blocks: reading them, and making few of many.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plx::tool::import {

struct Prefix {
    bool ipv6 = false;
    std::array<uint8_t, 16> bytes{}; // an IPv4 address in the first four
    uint8_t length = 0;
    auto operator<=>(const Prefix &) const = default;

    unsigned width() const { return ipv6 ? 128 : 32; }
    std::string text() const;
    bool contains(const Prefix &other) const;
};

// "10.0.0.0/8", "10.0.0.1", "10.0.0.0/255.0.0.0", "2001:db8::/32". Bits behind the prefix are cleared.
std::optional<Prefix> prefix_of(const std::string &text);
// "10.0.0.1-10.0.0.9" as blocks; empty: no range.
std::vector<Prefix> range_of(const std::string &first, const std::string &last);
// The same addresses in as few blocks as can be, in order.
std::vector<Prefix> merged(std::vector<Prefix> prefixes);
// All addresses of the family but those of the block.
std::vector<Prefix> complement(const Prefix &prefix);

} // namespace plx::tool::import
