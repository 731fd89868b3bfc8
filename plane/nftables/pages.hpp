// An ACL's entries in the order in which they judge, cut into segments, each a chain of the kernel. Most entries are
// rules in pages, because the kernel walks a chain from its head for every insertion, removal and piece of a dump.
// Where many in a row look at the same places of a frame they are a run, elements of maps.
//
// Nothing here knows the kernel. arrange() makes the segments as they are to be beside those that are, but for runs,
// which are changed in place: what it makes of them it takes back, unless it is told that the kernel agreed.
#pragma once

#include "plane/packet/runs.hpp"
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace plx::plane::nftables {

using packet::Position;
using ShapePointer = std::shared_ptr<const packet::Shape>;

struct Entry : packet::Item {
    uint64_t request = 0;
    uint64_t fingerprint = 0;
    std::string name;  // for people
    uint8_t rules = 0; // none: it takes no part
    uint8_t directions = 0;
    bool unless_default = false;
    bool by_interface = false;
    ShapePointer shape;            // null: it cannot be in a map, or it is not known whether it can
    std::vector<uint64_t> handles; // of its rules in the kernel; empty while they are not known, or in a map
};
using EntryPointer = std::shared_ptr<Entry>;

struct Run {
    explicit Run(ShapePointer of) : shape(std::move(of)), layers(shape->fields) {}
    ShapePointer shape;
    packet::Layers layers;
    std::map<Position, EntryPointer> entries;
    std::map<packet::Layers::Place, uint64_t> maps; // in the kernel, and the handles of their rules, 0 while not known
};
using RunPointer = std::shared_ptr<Run>;

struct Page {
    uint32_t number = 0;
    uint64_t jump = 0; // handle of the rule that leads here, 0 while it is not known
    std::vector<EntryPointer> entries;
    RunPointer run; // instead of entries in a page
    const Position &first() const { return run ? run->entries.begin()->first : entries.front()->position; }
    const Position &last() const { return run ? run->entries.rbegin()->first : entries.back()->position; }
};
using PagePointer = std::shared_ptr<Page>;

struct List {
    std::vector<PagePointer> pages;
    uint32_t next_page = 0;
};

// What becomes of entries, by number: another in place of the old one, or none.
using Changed = std::map<uint64_t, EntryPointer>;

// An entry of a run: the layer that it was in and is in; none: it was not there, it is not there any more.
struct Placement {
    EntryPointer entry;
    std::optional<uint32_t> from, to;
};

struct PageChange {
    PagePointer before, after;         // null: it is new; it goes
    std::vector<Placement> placements; // of a run
};

// What was done to runs: undone in the end, unless it is kept.
class Steps {
  public:
    Steps() = default;
    Steps(Steps &&) = default;
    Steps &operator=(Steps &&) = default;
    ~Steps();

    bool insert(const RunPointer &run, const EntryPointer &entry);              // false: it does not fit
    void put(const RunPointer &run, const EntryPointer &entry, uint32_t layer); // of which it is known that it fits
    void erase(const RunPointer &run, const EntryPointer &entry);
    void keep() { steps_.clear(); }
    std::map<const Run *, std::vector<Placement>> placements() const; // in all

  private:
    struct Step {
        RunPointer run;
        std::vector<Placement> placements;
    };
    std::vector<Step> steps_;
};

struct Arranged {
    List list;                       // as it is to be
    std::vector<PageChange> changes; // of pages that differ, in order
    Steps steps;
};

constexpr size_t page_size = 256;    // of pages that are made
constexpr size_t largest_page = 512; // of pages that grew
constexpr size_t small_page = 64;    // joins its neighbour where both are not more than page_size
constexpr size_t shortest_run = 16;  // that is made, and this times as many entries as it has maps
constexpr size_t entries_per_map = 4;

// `entries` are those in force by number, of which the pages hold those with rules.
Arranged arrange(const List &list, const std::map<uint64_t, EntryPointer> &entries, const Changed &changed);

} // namespace plx::plane::nftables
