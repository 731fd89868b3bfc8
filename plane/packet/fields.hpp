// Where in a frame each match field is, and what a frame must be for the field to be there.
#pragma once

#include "plane/packet/rule.hpp"
#include "records/attribute.hpp"

namespace plx::plane::packet {

// What must hold for a field's bytes to be that field. Each includes another (its parent), down to `none`.
enum class Guard : uint8_t {
    none,
    tagged,
    double_tagged,
    ipv4,
    ipv6,
    arp,
    mpls,
    mpls2, // a second label; mpls3: a third, and so on
    mpls3,
    mpls4,
    mpls5,
    fcoe,
    trill,
    trill_plain,  // without options
    trill_tagged, // and with the inner tag in its place
    pppoe,
    ported,
    icmps,
    tcp,
    udp,
    gre,
    l2gre, // without options
    bfd,
    vxlan, // besides it, the UDP port: see vxlan_udp_port
    vxlan_ipv4,
    vxlan_ipv4_first, // without options, not a later fragment
    vxlan_ipv4_ports,
    vxlan_ipv4_icmp,
    vxlan_ipv4_tcp,
    vxlan_ipv6,
    vxlan_ipv6_icmp,
    vxlan_arp,
    vxlan_tag,
    vxlan_tag_ports
};

// How an attribute's value is compared.
enum class Meaning : uint8_t {
    bits,         // with the bits at the field's place
    ethertype,    // the same; numbers below 0x600 are no types
    port_range,   // lowest and highest
    next_header,  // the protocol, or an extension header's presence
    ip_type,      // a state: states_of()
    fragment,     // a state
    vlan_form,    // a state
    input,        // a port's interface
    output,       // a port's interface
    user_defined, // where the configuration says
    vxlan_port    // bits; and the guard of the other VXLAN fields
};

struct Field {
    std::string_view name;
    Meaning meaning = Meaning::bits;
    Guard guard = Guard::none;
    Source source{};
    uint8_t shift = 0; // of the value, to the left
};

// The field of a match form; nullptr for one that cannot be found in a packet.
const Field *field_of(const Form &form);

// The tests of a guard, its parents' first.
void add_guard(Guard guard, std::vector<Test> &tests);

// A value that stands for a condition of its own.
struct State {
    uint8_t value;
    std::vector<Test> tests;
};
const std::vector<State> &states_of(Meaning meaning);

// A field's bits as a test; no test at all when the mask is empty.
std::optional<Test> bits_test(const Source &source, const Bytes &value, const Bytes &mask);
// That the bytes are there, whatever they are.
Test presence(const Source &source);

} // namespace plx::plane::packet
