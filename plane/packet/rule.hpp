// The compiled form of an entry: what a frame must show, and what is done with it then.
//
// It is data alone, the same for everybody who needs to know what an entry does to a packet: a plane turns it into its
// own instructions, the interpreter (interpreter.hpp) into a verdict on the bytes of a frame. A rule holds for a frame
// when all of its tests do. Bytes are in network order throughout, those of the packet's mark too.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace plx::plane::packet {

// Up to 16 bytes, held in place.
struct Bytes {
    std::array<uint8_t, 16> data{}; // zero behind `size`
    uint8_t size = 0;

    Bytes() = default;
    explicit Bytes(std::span<const uint8_t> bytes); // the first 16
    Bytes(uint64_t number, size_t width);           // the lowest `width` bytes of it, at most 8
    std::span<const uint8_t> span() const { return {data.data(), size}; }
    auto operator<=>(const Bytes &) const = default;
};
Bytes ones(size_t size); // every bit set, at most 16 bytes

// Where a test's or a write's bytes are. What is not there is not compared: the test fails, whatever its relation.
enum class Load : uint8_t {
    link,      // from the first byte of the frame, tags in their places
    network,   // from the byte behind the Ethernet type: behind the first tag, where there is one
    transport, // from the header behind IPv4 or IPv6 and its extension headers; none in later fragments
    protocol,  // 2 bytes: the Ethernet type, that behind the first tag where there is one
    l4proto,   // 1 byte: the protocol behind IPv4 or IPv6 and its extension headers, in later fragments too
    mark,      // 4 bytes: the packet's mark
    input,     // 16 bytes: name of the interface that the packet came in by, filled up with zeros
    output,    // 16 bytes: name of the interface that it leaves by
    extension  // 1 byte: 1 when an IPv6 header of type `offset` is among the extension headers, else 0
};

struct Source {
    Load load = Load::link;
    uint8_t size = 0;
    uint16_t offset = 0; // at most 255
    auto operator<=>(const Source &) const = default;
};
inline constexpr Source protocol{Load::protocol, 2, 0}, l4proto{Load::l4proto, 1, 0};
inline constexpr uint16_t ipv4_type = 0x0800, ipv6_type = 0x86dd; // values of the former
inline constexpr uint16_t offset_bits = 0x1fff; // of an IPv4 header's fragment word: zero in a first fragment

// A set of values that entries have in common. A plane makes each once, under this name.
struct ConstantSet {
    std::string_view name;
    uint8_t size; // of a value
    std::span<const uint32_t> values;
};
enum class Common : uint8_t {
    tags,      // Ethernet types of VLAN tags
    ported,    // protocols whose header begins with two ports: TCP, UDP, SCTP
    icmps,     // ICMP and ICMPv6
    extensions // IPv6 headers behind which others follow
};
std::span<const ConstantSet> constant_sets(); // by Common

enum class Relation : uint8_t {
    equal,     // to `value`
    different, // from it
    within,    // value to last, both included
    outside,   // less than value or greater than last
    one_of,    // the values of `set`
    none_of
};

struct Test {
    Source source;
    Relation relation = Relation::equal;
    Bytes mask{}; // bits that are compared, of the source's size; empty: all. Only `equal` and `different` have one
    Bytes value{}, last{};
    const ConstantSet *set = nullptr;
    bool operator==(const Test &) const = default;
};

// Whether bytes that were found at the test's source pass it.
bool holds(const Test &test, const Bytes &found);

// Count on the counter object of that number, which the plane has for all entries together.
struct CountOn {
    uint32_t counter;
    bool operator==(const CountOn &) const = default;
};
// Hand a copy to whoever listens to the log group.
struct Log {
    uint16_t group;
    bool operator==(const Log &) const = default;
};
// Send a copy out of the interface.
struct Copy {
    std::string interface;
    bool operator==(const Copy &) const = default;
};
// Replace the bits of `mask` by those of `value`; what `at` names is there, the rule's tests see to that.
struct Write {
    Source at;
    Bytes mask, value;  // of the size of `at`
    bool ipv4_checksum; // mend the checksum of the IPv4 header
    bool operator==(const Write &) const = default;
};
struct SetPriority {
    uint32_t priority;
    bool operator==(const SetPriority &) const = default;
};
using Action = std::variant<CountOn, Log, Copy, Write, SetPriority>;

enum class Verdict : uint8_t {
    next,    // go on with the next rule
    accept,  // no rule of this list judges the frame any more
    drop,    // nor one of another list
    redirect // the frame leaves by `interface`, whatever other lists say
};

struct Rule {
    std::vector<Test> tests; // in the order in which a plane is to make them
    // Beyond the frame, asked after the tests: the meter of that name is exceeded, once this frame is counted on it;
    // the frame is the first of each so many for which the tests hold. Nothing, or 0: no matter.
    std::string over_meter;
    uint32_t one_in = 0;
    bool counted = true; // a hit counts as a hit of the entry
    std::vector<Action> actions;
    Verdict verdict = Verdict::next;
    std::string interface; // of redirect
    bool operator==(const Rule &) const = default;
};

} // namespace plx::plane::packet
