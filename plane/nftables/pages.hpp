// An ACL's entries in the order in which they judge, cut into pages: chains of the kernel, which walks a chain from its
// head for every insertion, removal and piece of a dump.
//
// Nothing here knows the kernel. What is in force is never changed in place: arrange() makes the pages as they are to
// be beside those that are, so that a change that the kernel refuses leaves no trace.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace plx::plane::nftables {

// Greater priority first, then smaller number; default entries behind all others.
struct Position {
    bool last = false;
    uint64_t rank = 0; // the priority's complement
    uint64_t sn = 0;
    auto operator<=>(const Position &) const = default;
};

struct Entry {
    Position position;
    uint64_t request = 0;
    uint64_t fingerprint = 0;
    uint8_t rules = 0; // none: it takes no part
    uint8_t directions = 0;
    bool unless_default = false;
    bool by_interface = false;
    std::vector<uint64_t> handles; // of its rules in the kernel; empty while they are not known
};
using EntryPointer = std::shared_ptr<Entry>;

struct Page {
    uint32_t number = 0;
    uint64_t jump = 0; // handle of the rule that leads here, 0 while it is not known
    std::vector<EntryPointer> entries;
};
using PagePointer = std::shared_ptr<Page>;

struct List {
    std::vector<PagePointer> pages;
    uint32_t next_page = 0;
};

// What becomes of entries, by number: another in place of the old one, or none.
using Changed = std::map<uint64_t, EntryPointer>;

struct PageChange {
    PagePointer before, after; // null: it is new; it goes
};

struct Arranged {
    List list;                       // as it is to be
    std::vector<PageChange> changes; // of pages that differ, in order
};

constexpr size_t page_size = 256;    // of pages that are made
constexpr size_t largest_page = 512; // of pages that grew

// `entries` are those in force by number, of which the pages hold those with rules.
Arranged arrange(const List &list, const std::map<uint64_t, EntryPointer> &entries, const Changed &changed);

} // namespace plx::plane::nftables
