// How the plane's chains are called, and what its rules carry with them: enough to take up a table whose node is gone.
//
// A rule's user data has a comment, which nft(8) shows ("edge_filter/10/20"), and a tag of ours behind it. User data
// comes from the kernel, where anybody may have put it: a tag that is not whole is none.
#pragma once

#include "plane/packet/runs.hpp"
#include "records/record.hpp"
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace plx::plane::nftables {

struct AclKey {
    std::string app;
    uint32_t acl = 0;
    auto operator<=>(const AclKey &) const = default;
};

enum class Purpose : uint8_t {
    entry = 1, // one of an entry's rules
    hook,      // what an apply or a port that is off does in its own chain
    page,      // the jump to a page
    guard,     // what stands in front of the list that an apply names
    run,       // the jump to the maps of a run
    map        // the look-up in one of them
};

// What a rule is there for.
struct Tag {
    Purpose purpose = Purpose::entry;
    Key key;                  // of an entry, an apply or a port that is off; else any
    uint64_t request = 0;     // that it was programmed for
    uint64_t fingerprint = 0; // of what was asked for
    uint64_t priority = 0;    // of an entry
    std::string name;         // the same
    bool default_entry = false;
    bool unless_default = false; // packet::Compiled
    bool by_interface = false;   // depends on which interfaces there are
    uint8_t directions = 0;      // packet::Compiled
    uint8_t rule = 0, rules = 1; // of the entry's rules, this one
    uint32_t page = 0;           // of the jump to a page or a run
    uint32_t made_by = 0;        // the configuration and the version that the rule was made by
    std::string interface;       // of a hook
    std::string map;             // of a look-up: map_name() ends with it
    bool operator==(const Tag &) const = default;
};

std::string user_data_of(const Tag &tag);
std::optional<Tag> tag_of(std::span<const uint8_t> user_data);

// What a map carries with it: which entries it has.
struct MapTag {
    packet::Shape shape;
    packet::Layers::Place place;
};
std::string map_data_of(const MapTag &tag);
std::optional<MapTag> map_tag_of(std::span<const uint8_t> user_data);
constexpr size_t most_user_data = 256; // bytes, of the kernel's

// Names of chains. What is not a letter, digit, "_" or "-" in an application's name is "%XX".
std::string head_name(const AclKey &acl);                              // acl.edge_filter.10
std::string page_name(const AclKey &acl, uint32_t page);               // acl.edge_filter.10.3
std::string map_name(const std::string &page, const std::string &map); // acl.edge_filter.10.3.0.24
std::string map_part(const packet::Shape &shape, const packet::Layers::Place &place);
std::string hook_name(const Key &key, bool out); // in.49.100.edge_filter.10, out.off.49

// What a head's or a page's name says; nullopt for other names.
struct ListName {
    AclKey acl;
    std::optional<uint32_t> page;
};
std::optional<ListName> list_name(std::string_view name);

} // namespace plx::plane::nftables
