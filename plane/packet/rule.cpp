// See rule.hpp.
#include "plane/packet/rule.hpp"

#include <algorithm>

namespace plx::plane::packet {

namespace {

constexpr uint32_t tag_types[] = {0x8100, 0x88a8};
constexpr uint32_t port_protocols[] = {6, 17, 132};
constexpr uint32_t icmp_protocols[] = {1, 58};
constexpr uint32_t extension_types[] = {0, 43, 44, 51, 60, 135, 139, 140};
constexpr ConstantSet sets[] = {{"tags", 2, tag_types},
                                {"ported", 1, port_protocols},
                                {"icmps", 1, icmp_protocols},
                                {"extensions", 1, extension_types}};

Bytes masked(Bytes bytes, const Bytes &mask)
{
    for (size_t at = 0; at < mask.size; ++at)
        bytes.data[at] &= mask.data[at];
    return bytes;
}

bool contains(const ConstantSet &set, const Bytes &bytes)
{
    return std::any_of(set.values.begin(), set.values.end(),
                       [&](uint32_t value) { return Bytes(value, set.size) == bytes; });
}

} // namespace

std::span<const ConstantSet> constant_sets()
{
    return sets;
}

Bytes::Bytes(std::span<const uint8_t> bytes) : size(static_cast<uint8_t>(std::min(bytes.size(), data.size())))
{
    std::copy_n(bytes.begin(), size, data.begin());
}

Bytes::Bytes(uint64_t number, size_t width) : size(static_cast<uint8_t>(width))
{
    for (size_t at = width; at-- > 0; number >>= 8U)
        data[at] = static_cast<uint8_t>(number);
}

Bytes ones(size_t size)
{
    Bytes bytes;
    bytes.size = static_cast<uint8_t>(std::min(size, bytes.data.size()));
    std::fill_n(bytes.data.begin(), bytes.size, uint8_t{0xff});
    return bytes;
}

bool holds(const Test &test, const Bytes &found)
{
    switch (test.relation) {
    case Relation::equal:
        return masked(found, test.mask) == test.value;
    case Relation::different:
        return masked(found, test.mask) != test.value;
    case Relation::within:
        return test.value <= found && found <= test.last;
    case Relation::outside:
        return found < test.value || test.last < found;
    case Relation::one_of:
        return contains(*test.set, found);
    case Relation::none_of:
        return !contains(*test.set, found);
    }
    return false;
}

} // namespace plx::plane::packet
