// Lists of entries that differ only in values: what can be looked up in maps instead of tested one by one.
//
// Rules with the same shape look at the same places of a frame; each compares the bits of its mask there with its key.
// Entries with the same mask are one map from key to verdict: an exact look-up, which costs the same for ten entries
// and for a hundred thousand. Where two entries could match the same frame, the order of the list decides: they are in
// different layers, which are asked one after the other. Within a layer nothing overlaps, and the order of its maps
// does not matter.
#pragma once

#include "plane/packet/rule.hpp"
#include <map>

namespace plx::plane::packet {

// What entries that are looked up together have in common.
struct Shape {
    std::vector<Test> guards;   // tests that every one of them has: made once, before any map is asked
    std::vector<Source> fields; // of the key, in order
    bool operator==(const Shape &) const = default;
};

// One rule in a map: the bits of all fields, concatenated, each field filled up with zeros to a multiple of 4 bytes, as
// the kernel's registers are.
struct Element {
    std::string key, mask;             // bytes; the key has no bits outside of the mask
    Verdict verdict = Verdict::accept; // or drop
    bool operator==(const Element &) const = default;
};

struct Mappable {
    Shape shape;
    Element element;
};

constexpr size_t largest_key = 40;  // bytes
size_t padded(const Source &field); // bytes that it takes in a key

// The rule as an element; nullopt when it does more than count and judge, or has no field to look up.
std::optional<Mappable> mappable(const Rule &rule);

// A mask in letters, for the name of a map: the bits of a prefix, or the mask's digits, field by field.
std::string mask_name(std::span<const Source> fields, const std::string &mask);

// Greater priority first, then smaller number; default entries behind all others.
struct Position {
    bool last = false;
    uint64_t rank = 0; // the priority's complement
    uint64_t sn = 0;
    auto operator<=>(const Position &) const = default;
};

// An entry in a map. Whoever owns it keeps it in place while it is in a layer.
struct Item {
    Position position;
    Element element;
    uint32_t layer = 0;
};

class Layers {
  public:
    explicit Layers(std::vector<Source> fields) : fields_(std::move(fields)) {}

    struct Move {
        Item *item;
        std::optional<uint32_t> from, to; // layers; none: it was not there, it is not there any more
    };
    // Adds an item, behind all that it overlaps and that stands before it in the list; what stands behind it moves on.
    // False, and nothing changes, where that is too much to look at, or would make too many maps.
    bool insert(Item &item, std::vector<Move> &moves);
    void remove(Item &item);
    void put(Item &item, uint32_t layer); // unchecked: where it was before

    // Layer and mask of every map.
    using Place = std::pair<uint32_t, std::string>;
    bool has(const Place &place) const { return maps_.contains(place); }
    std::vector<Place> places() const; // in order
    size_t maps() const { return maps_.size(); }

  private:
    using Bits = std::vector<uint8_t>; // how many of a mask's first bits are set, field by field
    struct Map {
        Bits bits;
        std::map<std::string, Item *> items; // by key
    };
    // Items that overlap another.
    struct Found {
        std::vector<Item *> items;
        size_t looks = 0; // at items that may
    };

    Bits prefix_bits(const std::string &mask) const;
    std::string edge(const std::string &key, const Bits &one, const Bits &other, bool last) const;
    bool find(const Item &item, Found &found) const;
    bool find_in(const Map &map, const Place &place, const Item &item, const Bits &bits, Found &found) const;
    bool gather(Item &item, std::vector<Item *> &behind, uint32_t &layer) const;
    bool insert_behind(Item &item, std::vector<Item *> behind, std::vector<Move> &moves);

    std::vector<Source> fields_;
    std::map<Place, Map> maps_;
};

} // namespace plx::plane::packet
