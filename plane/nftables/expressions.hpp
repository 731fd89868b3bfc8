// Compiled rules as the kernel's expressions: the attributes of a netlink message.
//
// The order of the tests of a rule is the compiler's, and matters: nft(8) 1.0.6 ends on an assertion when it lists some
// payload tests behind a test of the protocol.
#pragma once

#include "plane/packet/rule.hpp"
#include "plane/packet/runs.hpp"
#include "plane/plane.hpp"

struct nlmsghdr;

namespace plx::plane::nftables {

// Index of a network interface, nullopt when there is none of that name (now).
class Interfaces {
  public:
    virtual ~Interfaces() = default;
    virtual std::optional<uint32_t> index_of(const std::string &name) const = 0;
};

// Appends NFTA_RULE_EXPRESSIONS to a message in a buffer of `capacity` bytes in all: tests, then the meter and
// sampling, the entry's counter starting at `start`, actions, verdict. Counters are named by counter_name(),
// sets by ConstantSet::name. False when an interface has no index, or there is no room: the message is
// as before then.
bool put_rule_expressions(nlmsghdr *message, size_t capacity, const packet::Rule &rule, const Interfaces &interfaces,
                          const Counters &start);

// The same for a run of entries: the tests that all of them have, then the jump to the chain of its maps.
bool put_jump_expressions(nlmsghdr *message, size_t capacity, std::span<const packet::Test> guards,
                          const std::string &chain);

// The same for one of its maps: the bits of a mask in the fields, looked up in the verdict map of that name.
bool put_lookup_expressions(nlmsghdr *message, size_t capacity, std::span<const packet::Source> fields,
                            const std::string &mask, const std::string &map);

// Room for the expressions of any rule that compile() makes.
constexpr size_t rule_expressions_max = 8192;

} // namespace plx::plane::nftables
