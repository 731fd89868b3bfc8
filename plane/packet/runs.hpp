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
// zeros to a multiple of 4 bytes, as the kernel's registers are. The mark's are in network order.
struct Element {
    std::vector<uint8_t> low, high;
    Verdict verdict; // accept or drop
};

struct Mappable {
    Shape shape;
    Element element;
};

// The rule as an element; nullopt when it does more than count and judge, or its tests are not intervals.
std::optional<Mappable> mappable(const Rule &rule);

bool overlap(const Shape &shape, const Element &one, const Element &other);

// Elements of one shape, none of which overlap.
class Run {
  public:
    explicit Run(Shape shape);
    const Shape &shape() const { return shape_; }
    size_t size() const { return size_; }

    // False, and nothing changes, when it overlaps another.
    bool add(const Element &element);
    bool remove(const Element &element); // false when it is not there
    bool fits(const Element &element) const;

  private:
    Shape shape_;
    size_t size_ = 0;
};

} // namespace plx::plane::packet
