// From what the store asks for to rules: compile() knows every attribute name that can be acted on by looking at
// packets.
//
// It is pure: the same entry and configuration give the same rules, on any machine.
#pragma once

#include "plane/packet/rule.hpp"
#include "records/attribute.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include <map>
#include <set>

namespace plx::plane::packet {

// How fast a meter lets packets through.
struct Rate {
    uint64_t per_second = 0;
    bool bytes = false; // else packets
    uint32_t burst = 0; // more, of the same unit
};

// What the operator told the node: which numbers stand for what.
struct Config {
    std::map<uint32_t, std::string> ports;    // port (phyid) and its interface, of at most 15 characters
    std::map<uint32_t, Rate> meters;          // for the action `meter`
    std::map<uint32_t, std::string> mirrors;  // session and its interface, for `mirror_id`
    std::optional<uint16_t> sample_group;     // log group for `stat_sampling`
    std::array<std::optional<Source>, 8> udf; // of `ace_udf1` to 8: link, network or transport, 4 bytes
    std::set<const Form *> ignored;           // attributes that are left out, whatever their value
    bool double_tagged = false;               // frames with two tags pass, and entries may look at them
};

// Directions in which an entry may be applied: bits.
enum Directions : uint8_t { ingress = 1, egress = 2 };

struct Compiled {
    Status status = Status::ok;
    std::string text{}; // why not, naming the attribute; empty when ok
    // In order; all of them are the entry. None: the entry is not to be installed, or no frame here can match it.
    std::vector<Rule> rules{};
    uint8_t directions = ingress | egress;
    bool unless_default = false; // not to be installed while its ACL has a default entry
};

// Statuses: unsupported for a name or a mask that cannot be done, or that needs a configuration which is not there;
// malformed, bad_value as ever; out_of_range for a number beyond its bits, outside of its mask, or of a meter, mirror
// session or port that is not configured; contradiction when no frame can pass all tests, or the actions exclude each
// other.
Compiled compile(const Requested &entry, const Config &config);

// Whether a plane with this configuration can act on an attribute at all.
bool supports(const Form &form, const Config &config);

// Drops frames with two tags; what stands in front of every list while `double_tagged` is not set. Behind two tags
// Linux does not look for addresses: a second tag would get a frame past any entry about them.
Rule double_tagged_drop();

// How the objects that rules share are called: "c7", "m7.1000.5".
std::string counter_name(uint32_t counter);
std::string meter_name(uint32_t meter, const Rate &rate); // another for another rate

} // namespace plx::plane::packet
