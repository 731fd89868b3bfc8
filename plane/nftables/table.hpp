// The messages of nf_tables that the plane is made of, for one table of the netdev family: adding to a batch, and
// reading what is there.
#pragma once

#include "plane/nftables/netlink.hpp"
#include "plane/nftables/tags.hpp"
#include "plane/packet/compile.hpp"
#include "plane/packet/runs.hpp"
#include "plane/plane.hpp"
#include <set>

namespace plx::plane::nftables {

// A rule as it is in the kernel.
struct RuleImage {
    uint64_t handle = 0;
    std::optional<Tag> tag; // none: the rule is not of ours
    Counters counters;      // of its own counter
    std::vector<uint8_t> expressions, user_data;
};

// A map of entries, and one of its elements, as they are in the kernel.
struct MapImage {
    std::string name;
    std::vector<uint8_t> user_data;
};

struct ElementImage {
    packet::Element element; // whose mask is the map's
    std::optional<Tag> tag;  // none: the element is not of ours
    Counters counters;
};

struct ChainImage {
    std::string name;
    std::string device; // of a base chain
};

// Where a rule goes in its chain.
struct Place {
    enum { end, before, instead } where = end;
    uint64_t handle = 0; // of the rule that it goes before, or takes the place of
};

// The hook of a base chain.
struct Hook {
    bool out = false;
    std::string interface;
    int32_t priority = 0;
};

class KernelTable {
  public:
    explicit KernelTable(std::string name) : name_(std::move(name)) {}
    const std::string &name() const { return name_; }

    // ---- adding to a batch; `owner` as in Batch::add()
    void create(Batch &batch, bool owned) const;
    void add_chain(Batch &batch, const std::string &chain, size_t owner) const;
    void add_chain(Batch &batch, const std::string &chain, const Hook &hook, size_t owner) const;
    void remove_chain(Batch &batch, const std::string &chain, size_t owner) const; // with its rules
    void remove_rule(Batch &batch, const std::string &chain, uint64_t handle, size_t owner) const;
    void add_set(Batch &batch, const packet::ConstantSet &set) const;
    void add_meter(Batch &batch, uint32_t meter, const packet::Rate &rate) const;
    void remove_meter(Batch &batch, const std::string &meter) const; // that no rule asks any more
    void add_counter(Batch &batch, const std::string &counter, size_t owner) const;

    // A map from a key of these fields to a verdict, with a counter for each element: a hash table of the kernel's.
    void add_map(Batch &batch, const std::string &map, std::span<const packet::Source> fields,
                 std::string_view user_data, size_t owner) const;
    void add_element(Batch &batch, const std::string &map, const packet::Element &element, const Counters &start,
                     const Tag &tag, size_t owner) const;
    void remove_element(Batch &batch, const std::string &map, const packet::Element &element, size_t owner) const;
    void remove_map(Batch &batch, const std::string &map, size_t owner) const; // that no rule looks in any more

    // A rule without expressions and user data, which the caller puts.
    nlmsghdr *add_rule(Batch &batch, const std::string &chain, Place place, bool echo, size_t owner) const;
    void add_image(Batch &batch, const std::string &chain, Place place, const RuleImage &image, size_t owner,
                   bool echo) const;

    // ---- reading: 0 or an errno, ENOENT when the table or the chain is not there
    int read_chains(Netlink &netlink, std::vector<ChainImage> &chains) const;
    int read_rules(Netlink &netlink, const std::string &chain, std::vector<RuleImage> &rules) const;
    uint32_t read_owner(Netlink &netlink) const; // the table's: the socket of a process, called like it; 0 of nobody
    int read_maps(Netlink &netlink, std::vector<MapImage> &maps) const; // the sets too
    int read_elements(Netlink &netlink, const std::string &map, std::vector<ElementImage> &elements) const;
    // Those alone. ENOENT when one is not there.
    int read_elements(Netlink &netlink, const std::string &map, std::span<const packet::Element> some,
                      std::vector<ElementImage> &elements) const;
    int read_names(Netlink &netlink, uint16_t request, uint16_t attribute, std::set<std::string> &names) const;

  private:
    nlmsghdr *begin_elements(nlmsghdr *message, const std::string &map) const;

    std::string name_;
};

void put_user_data(nlmsghdr *rule, const Tag &tag);
void put_counted_drop(nlmsghdr *rule); // all of a rule's expressions: a counter and drop

} // namespace plx::plane::nftables
