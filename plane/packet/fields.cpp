// See fields.hpp.
#include "plane/packet/fields.hpp"

#include <algorithm>
#include <iterator>
#include <map>

namespace plx::plane::packet {

namespace {

using enum Meaning;

constexpr Source link(uint16_t offset, uint8_t size)
{
    return {Load::link, size, offset};
}
constexpr Source network(uint16_t offset, uint8_t size)
{
    return {Load::network, size, offset};
}
constexpr Source transport(uint16_t offset, uint8_t size)
{
    return {Load::transport, size, offset};
}
constexpr Source mark{Load::mark, 4, 0};
constexpr Source input_name{Load::input, 16, 0};
constexpr Source output_name{Load::output, 16, 0};

constexpr uint32_t arp_type = 0x0806;

// clang-format off
constexpr Field fields[] = {
    {"dst_mac", bits, Guard::none, link(0, 6)},
    {"src_mac", bits, Guard::none, link(6, 6)},
    {"snd_mac", bits, Guard::arp, network(8, 6)},
    {"trgt_mac", bits, Guard::arp, network(18, 6)},
    {"vid", bits, Guard::tagged, link(14, 2)},
    {"vid_in", bits, Guard::double_tagged, link(18, 2)},
    {"cos", bits, Guard::tagged, link(14, 1), 5},
    {"cos_in", bits, Guard::double_tagged, link(18, 1), 5},
    {"etype", ethertype, Guard::none, protocol},
    {"ipv4_prec", bits, Guard::ipv4, network(1, 1), 5},
    {"ipv4_tos", bits, Guard::ipv4, network(1, 1)},
    {"ipv4_dscp", bits, Guard::ipv4, network(1, 1), 2},
    {"ipv4_frag", fragment, Guard::ipv4, network(6, 2)},
    {"ipv4_ttl", bits, Guard::ipv4, network(8, 1)},
    {"ipv4_proto", bits, Guard::ipv4, network(9, 1)},
    {"ipv4_src", bits, Guard::ipv4, network(12, 4)},
    {"ipv4_dst", bits, Guard::ipv4, network(16, 4)},
    {"ipv4_snd", bits, Guard::arp, network(14, 4)},
    {"ipv4_trgt", bits, Guard::arp, network(24, 4)},
    {"ipv6_tc", bits, Guard::ipv6, network(0, 2), 4},
    {"ipv6_flowlab", bits, Guard::ipv6, network(1, 3)},
    {"ipv6_next_hdr", next_header, Guard::ipv6, network(6, 1)},
    {"ipv6_hop_lmt", bits, Guard::ipv6, network(7, 1)},
    {"ipv6_src", bits, Guard::ipv6, network(8, 16)},
    {"ipv6_dst", bits, Guard::ipv6, network(24, 16)},
    {"icmp_type", bits, Guard::icmps, transport(0, 1)},
    {"icmp_code", bits, Guard::icmps, transport(1, 1)},
    {"src_l4port", bits, Guard::ported, transport(0, 2)},
    {"dst_l4port", bits, Guard::ported, transport(2, 2)},
    {"src_range", port_range, Guard::ported, transport(0, 2)},
    {"dst_range", port_range, Guard::ported, transport(2, 2)},
    {"tcp_flag", bits, Guard::tcp, transport(13, 1)},
    {"mpls_lab", bits, Guard::mpls, network(0, 3), 4},
    {"mpls_exp", bits, Guard::mpls, network(2, 1), 1},
    {"fc_hdr1", bits, Guard::fcoe, network(14, 4)},
    {"fc_hdr2", bits, Guard::fcoe, network(18, 4)},
    {"fc_did", bits, Guard::fcoe, network(15, 3)},
    {"fc_sid", bits, Guard::fcoe, network(19, 3)},
    {"input_port", input, Guard::none, input_name},
    {"ip_type", ip_type, Guard::none, {}},
    {"trill_etype", bits, Guard::trill_tagged, network(22, 2)},
    {"trill_mac_dst", bits, Guard::trill_plain, network(6, 6)},
    {"trill_ttl", bits, Guard::trill, network(1, 1)},
    {"mpls_bos", bits, Guard::mpls, network(2, 1)},
    {"ipv6_src_up", bits, Guard::ipv6, network(8, 8)},
    {"ipv6_dst_up", bits, Guard::ipv6, network(24, 8)},
    {"gre_proto_type", bits, Guard::gre, transport(2, 2)},
    {"l2gre_dmac", bits, Guard::l2gre, transport(4, 6)},
    {"ipv4_flags", bits, Guard::ipv4, network(6, 1), 5},
    {"ipv4_offset", bits, Guard::ipv4, network(6, 2)},
    {"vpn_id", bits, Guard::vxlan, transport(12, 3)},
    {"l2gre_etype", bits, Guard::l2gre, transport(16, 2)},
    {"pppoe_ptype", bits, Guard::pppoe, network(6, 2)},
    {"vlan_form", vlan_form, Guard::none, {}},
    {"dst_port", output, Guard::none, output_name},
    {"ip_id", bits, Guard::ipv4, network(4, 2)},
    {"mpls_label1", bits, Guard::mpls, network(0, 3), 4},
    {"mpls_label2", bits, Guard::mpls2, network(4, 3), 4},
    {"mpls_label3", bits, Guard::mpls3, network(8, 3), 4},
    {"mpls_label4", bits, Guard::mpls4, network(12, 3), 4},
    {"mpls_label5", bits, Guard::mpls5, network(16, 3), 4},
    {"bfd_msg_flags", bits, Guard::bfd, transport(9, 1)},
    {"bfd_echo_interval", bits, Guard::bfd, transport(28, 4)},
    {"ace_udf1", user_defined},
    {"ace_udf2", user_defined},
    {"ace_udf3", user_defined},
    {"ace_udf4", user_defined},
    {"ace_udf5", user_defined},
    {"ace_udf6", user_defined},
    {"ace_udf7", user_defined},
    {"ace_udf8", user_defined},
    {"ipv4_dst_low16", bits, Guard::ipv4, network(18, 2)},
    {"vxlan_etype", bits, Guard::vxlan, transport(28, 2)},
    {"vxlan_icmp_type", bits, Guard::vxlan_ipv4_icmp, transport(50, 1)},
    {"vxlan_ip_protocol", bits, Guard::vxlan_ipv4, transport(39, 1)},
    {"vxlan_ip_ttl", bits, Guard::vxlan_ipv4, transport(38, 1)},
    {"vxlan_dmac", bits, Guard::vxlan, transport(16, 6)},
    {"vxlan_ipv4_src", bits, Guard::vxlan_ipv4, transport(42, 4)},
    {"vxlan_ipv4_dst", bits, Guard::vxlan_ipv4, transport(46, 4)},
    {"vxlan_src_l4port", bits, Guard::vxlan_ipv4_ports, transport(50, 2)},
    {"vxlan_dst_l4port", bits, Guard::vxlan_ipv4_ports, transport(52, 2)},
    {"vxlan_tcp_flag", bits, Guard::vxlan_ipv4_tcp, transport(63, 1)},
    {"vxlan_v6_next_hdr", bits, Guard::vxlan_ipv6, transport(36, 1)},
    {"vxlan_udp_port", vxlan_port, Guard::udp, transport(2, 2)},
    {"mpls_label1_ttl", bits, Guard::mpls, network(3, 1)},
    {"arp_op_code", bits, Guard::arp, network(6, 2)},
    {"vxlan_ipv4_snd", bits, Guard::vxlan_arp, transport(44, 4)},
    {"vxlan_ipv4_trgt", bits, Guard::vxlan_arp, transport(54, 4)},
    {"vxlan_arp_op_code", bits, Guard::vxlan_arp, transport(36, 2)},
    {"vxlan_ipv6_src_up", bits, Guard::vxlan_ipv6, transport(38, 8)},
    {"vxlan_icmpv6_type", bits, Guard::vxlan_ipv6_icmp, transport(70, 1)},
    {"vxlan_tag_ipproto", bits, Guard::vxlan_tag, transport(43, 1)},
    {"vxlan_tag_ipv4src", bits, Guard::vxlan_tag, transport(46, 4)},
    {"vxlan_tag_ipv4dst", bits, Guard::vxlan_tag, transport(50, 4)},
    {"vxlan_tag_srcl4pt", bits, Guard::vxlan_tag_ports, transport(54, 2)},
    {"vxlan_tag_dstl4pt", bits, Guard::vxlan_tag_ports, transport(56, 2)},
    {"meta_data", bits, Guard::none, mark},
};
// clang-format on

// A test as a table holds it.
struct Need {
    Source source{};
    uint32_t mask = ~0U, value = 0, last = 0;
    Relation relation = Relation::equal;
    Common set = Common::tags;
};

constexpr Need is(Source source, uint32_t value, uint32_t mask = ~0U)
{
    return {source, mask, value};
}
constexpr Need is_not(Source source, uint32_t value, uint32_t mask = ~0U)
{
    return {source, mask, value, 0, Relation::different};
}
constexpr Need in(Source source, uint32_t first, uint32_t last, Relation relation = Relation::within)
{
    return {source, ~0U, first, last, relation};
}
constexpr Need among(Source source, Common set, Relation relation = Relation::one_of)
{
    return {source, ~0U, 0, 0, relation, set};
}

constexpr uint32_t bottom = 1; // of an MPLS label stack, in the third byte of a label
constexpr uint32_t fragment_bits = 0x3fff, more_fragments = 0x2000;

struct GuardRow {
    Guard parent = Guard::none;
    std::array<Need, 3> needs{}; // those of a size
};

// By Guard.
constexpr GuardRow guards[] = {
    {},
    {Guard::none, {among(link(12, 2), Common::tags)}},
    {Guard::tagged, {among(link(16, 2), Common::tags)}},
    {Guard::none, {is(protocol, ipv4_type)}},
    {Guard::none, {is(protocol, ipv6_type)}},
    {Guard::none, {is(protocol, arp_type)}},
    {Guard::none, {in(protocol, 0x8847, 0x8848)}},
    {Guard::mpls, {is(network(2, 1), 0, bottom)}},
    {Guard::mpls2, {is(network(6, 1), 0, bottom)}},
    {Guard::mpls3, {is(network(10, 1), 0, bottom)}},
    {Guard::mpls4, {is(network(14, 1), 0, bottom)}},
    {Guard::none, {is(protocol, 0x8906)}},
    {Guard::none, {is(protocol, 0x22f3)}},
    {Guard::trill, {is(network(0, 2), 0, 0x07c0)}},
    {Guard::trill_plain, {among(network(18, 2), Common::tags)}},
    {Guard::none, {is(protocol, 0x8864)}},
    {Guard::none, {among(l4proto, Common::ported)}},
    {Guard::none, {among(l4proto, Common::icmps)}},
    {Guard::none, {is(l4proto, 6)}},
    {Guard::none, {is(l4proto, 17)}},
    {Guard::none, {is(l4proto, 47)}},
    {Guard::gre, {is(transport(0, 4), 0x6558)}},
    {Guard::udp, {is(transport(2, 2), 3784)}},
    {Guard::udp, {}},
    {Guard::vxlan, {is(transport(28, 2), ipv4_type)}},
    {Guard::vxlan_ipv4, {is(transport(30, 1), 0x45), is(transport(36, 2), 0, offset_bits)}},
    {Guard::vxlan_ipv4_first, {among(transport(39, 1), Common::ported)}},
    {Guard::vxlan_ipv4_first, {is(transport(39, 1), 1)}},
    {Guard::vxlan_ipv4_first, {is(transport(39, 1), 6)}},
    {Guard::vxlan, {is(transport(28, 2), ipv6_type)}},
    {Guard::vxlan_ipv6, {is(transport(36, 1), 58)}},
    {Guard::vxlan, {is(transport(28, 2), arp_type)}},
    {Guard::vxlan, {among(transport(28, 2), Common::tags), is(transport(32, 2), ipv4_type)}},
    {Guard::vxlan_tag,
     {is(transport(34, 1), 0x45), is(transport(40, 2), 0, offset_bits), among(transport(43, 1), Common::ported)}},
};
static_assert(std::size(guards) == static_cast<size_t>(Guard::vxlan_tag_ports) + 1);

struct StateRow {
    Meaning meaning;
    uint8_t value;
    Guard guard;
    std::array<Need, 5> needs{};
};
constexpr StateRow state_rows[] = {
    {ip_type, 0, Guard::none, {in(protocol, 0, 0x5ff)}},
    {ip_type, 1, Guard::ipv4, {is(network(0, 1), 0x45)}},
    {ip_type, 2, Guard::ipv4, {in(network(0, 1), 0x46, 0x4f)}},
    {ip_type, 3, Guard::ipv6, {among(network(6, 1), Common::extensions, Relation::none_of)}},
    {ip_type, 4, Guard::ipv6, {among(network(6, 1), Common::extensions)}},
    {ip_type, 5, Guard::arp},
    {ip_type, 6, Guard::mpls},
    {ip_type,
     7,
     Guard::none,
     {in(protocol, 0x600, 0xffff), is_not(protocol, ipv4_type), is_not(protocol, ipv6_type), is_not(protocol, arp_type),
      in(protocol, 0x8847, 0x8848, Relation::outside)}},
    {fragment, 0, Guard::ipv4, {is(network(6, 2), 0, fragment_bits)}},
    {fragment, 1, Guard::ipv4, {is(network(6, 2), more_fragments, fragment_bits)}},
    {fragment, 2, Guard::ipv4, {is_not(network(6, 2), 0, offset_bits)}},
    {vlan_form, 0, Guard::none, {among(link(12, 2), Common::tags, Relation::none_of)}},
    {vlan_form, 1, Guard::tagged, {among(link(16, 2), Common::tags, Relation::none_of)}},
    {vlan_form, 3, Guard::double_tagged},
};

Test test_of(const Need &need)
{
    Test test{.source = need.source, .relation = need.relation};
    if (need.relation == Relation::one_of || need.relation == Relation::none_of) {
        test.set = &constant_sets()[static_cast<size_t>(need.set)];
        return test;
    }
    const size_t size = need.source.size;
    test.value = Bytes(need.value, size);
    if (need.relation == Relation::within || need.relation == Relation::outside)
        test.last = Bytes(need.last, size);
    else if (Bytes(need.mask, size) != Bytes(~0ULL, size))
        test.mask = Bytes(need.mask, size);
    return test;
}

void add_needs(std::span<const Need> needs, std::vector<Test> &tests)
{
    for (const Need &need : needs) {
        if (need.source.size != 0)
            tests.push_back(test_of(need));
    }
}

} // namespace

const Field *field_of(const Form &form)
{
    static const std::vector<const Field *> by_form = [] {
        std::vector<const Field *> all(forms().size());
        for (const Field &field : fields)
            all[static_cast<size_t>(find_form(FP_UDP_ATTR_FIELD, field.name) - forms().data())] = &field;
        return all;
    }();
    return by_form[static_cast<size_t>(&form - forms().data())];
}

void add_guard(Guard guard, std::vector<Test> &tests)
{
    if (guard == Guard::none)
        return;
    const GuardRow &row = guards[static_cast<size_t>(guard)];
    add_guard(row.parent, tests);
    add_needs(row.needs, tests);
}

const std::vector<State> &states_of(Meaning meaning)
{
    static const std::map<Meaning, std::vector<State>> all = [] {
        std::map<Meaning, std::vector<State>> map;
        for (const StateRow &row : state_rows) {
            State state{row.value, {}};
            add_guard(row.guard, state.tests);
            add_needs(row.needs, state.tests);
            map[row.meaning].push_back(std::move(state));
        }
        return map;
    }();
    return all.at(meaning);
}

std::optional<Test> bits_test(const Source &source, const Bytes &value, const Bytes &mask)
{
    const auto all_are = [&mask](uint8_t byte) {
        return std::all_of(mask.data.begin(), mask.data.begin() + mask.size,
                           [byte](uint8_t other) { return other == byte; });
    };
    if (all_are(0))
        return std::nullopt;
    return Test{.source = source, .mask = all_are(0xff) ? Bytes() : mask, .value = value};
}

Test presence(const Source &source)
{
    const std::vector<uint8_t> lowest(source.size, 0), highest(source.size, 0xff);
    return {.source = source, .relation = Relation::within, .value = Bytes(lowest), .last = Bytes(highest)};
}

} // namespace plx::plane::packet
