// Lists of entries that differ only in values: what can be looked up in one map instead of tested one by one.
//
// Rules with the same shape look at the same places of a frame; each accepts an interval of values at each place. Where
// such intervals do not overlap at every place at once, at most one of the rules matches a frame, so their order does
// not matter, and a map from the concatenated values to a verdict stands for all of them.
#pragma once

#include "plane/packet/rule.hpp"
#include <map>

namespace plx::plane::packet {

// What the rules of a map have in common.
struct Shape {
    std::vector<Test> guards;   // tests that every one of them has: made once, before the map is asked
    std::vector<Source> fields; // of the key, in order
    bool operator==(const Shape &) const = default;
};

// One rule in a map: the lowest and highest accepted values of all fields, concatenated, each field filled up with
// zeros to a multiple of 4 bytes, as the kernel's registers are.
struct Element {
    std::string low, high; // bytes
    Verdict verdict;       // accept or drop
    bool operator==(const Element &) const = default;
};

struct Mappable {
    Shape shape;
    Element element;
};

constexpr size_t largest_key = 64; // bytes, of the kernel's registers

// The rule as an element; nullopt when it does more than count and judge, or has no field to look up.
std::optional<Mappable> mappable(const Rule &rule);

// Elements of one shape, none of which overlap another.
class Run {
  public:
    explicit Run(Shape shape) : shape_(std::move(shape)) {}
    const Shape &shape() const { return shape_; }
    size_t size() const { return size_; }

    bool fits(const Element &element) const; // it overlaps none
    // False, and nothing changes, when it does not fit; when it is not there.
    bool add(const Element &element);
    bool remove(const Element &element);

  private:
    // An interval of values lies in one smallest block of values that have their first bits in common. Elements are
    // kept by the number of those bits, field by field, then by the bits: an overlapping element is in the same block
    // or in one inside of the other's, so that few of them need a look.
    using Bits = std::vector<uint8_t>;
    using Blocks = std::multimap<std::string, Element>;

    Bits common_bits(const Element &element) const;
    std::string block_of(const std::string &value, const Bits &bits, bool last) const;
    bool overlap(const Element &one, const Element &other) const;

    Shape shape_;
    std::map<Bits, Blocks> blocks_;
    size_t size_ = 0;
};

} // namespace plx::plane::packet
