// The form of every attribute's value, one row for each row of the three name tables, and the words that stand for
// numbers. docs/attributes.md is the same for people; a test holds the two together.
#include "records/attribute.hpp"

namespace plx {

namespace {

constexpr NamedValue protocol_names[] = {{"icmp", 1},    {"igmp", 2},        {"ipip", 4},   {"tcp", 6},   {"udp", 17},
                                         {"ipv6", 41},   {"ipv6-frag", 44},  {"gre", 47},   {"esp", 50},  {"ah", 51},
                                         {"icmpv6", 58}, {"ipv6-nonxt", 59}, {"eigrp", 88}, {"ospf", 89}, {"pim", 103},
                                         {"vrrp", 112},  {"l2tp", 115},      {"sctp", 132}};
constexpr NamedValue port_names[] = {
    {"ftp-data", 20},       {"ftp", 21},      {"ssh", 22},         {"telnet", 23},        {"smtp", 25},
    {"tacacs", 49},         {"dns", 53},      {"dhcp-server", 67}, {"dhcp-client", 68},   {"tftp", 69},
    {"http", 80},           {"ntp", 123},     {"snmp", 161},       {"snmp-trap", 162},    {"bgp", 179},
    {"ldap", 389},          {"https", 443},   {"syslog", 514},     {"rip", 520},          {"dhcpv6-client", 546},
    {"dhcpv6-server", 547}, {"netconf", 830}, {"radius", 1812},    {"radius-acct", 1813}, {"bfd", 3784},
    {"vxlan", 4789},        {"gnmi", 9339}};
constexpr NamedValue ethertype_names[] = {
    {"ipv4", 0x800},        {"arp", 0x806},     {"trill", 0x22f3}, {"vlan", 0x8100},
    {"ipv6", 0x86dd},       {"slow", 0x8809},   {"mpls", 0x8847},  {"mpls-mc", 0x8848},
    {"pppoe-disc", 0x8863}, {"pppoe", 0x8864},  {"eapol", 0x888e}, {"qinq", 0x88a8},
    {"lldp", 0x88cc},       {"macsec", 0x88e5}, {"ptp", 0x88f7},   {"fcoe", 0x8906}};
constexpr NamedValue dscp_names[] = {{"cs0", 0},   {"le", 1},    {"cs1", 8},   {"af11", 10}, {"af12", 12}, {"af13", 14},
                                     {"cs2", 16},  {"af21", 18}, {"af22", 20}, {"af23", 22}, {"cs3", 24},  {"af31", 26},
                                     {"af32", 28}, {"af33", 30}, {"cs4", 32},  {"af41", 34}, {"af42", 36}, {"af43", 38},
                                     {"cs5", 40},  {"va", 44},   {"ef", 46},   {"cs6", 48},  {"cs7", 56}};
constexpr NamedValue tcp_flags_names[] = {{"fin", 1},  {"syn", 2},  {"rst", 4},  {"psh", 8},
                                          {"ack", 16}, {"urg", 32}, {"ece", 64}, {"cwr", 128}};
constexpr NamedValue ip_flags_names[] = {{"mf", 1}, {"df", 2}, {"evil", 4}};
constexpr NamedValue icmp_type_names[] = {{"echo-reply", 0},         {"unreachable", 3},       {"redirect", 5},
                                          {"echo-request", 8},       {"time-exceeded", 11},    {"v6-unreachable", 1},
                                          {"v6-packet-too-big", 2},  {"v6-time-exceeded", 3},  {"v6-echo-request", 128},
                                          {"v6-echo-reply", 129},    {"router-solicit", 133},  {"router-advert", 134},
                                          {"neighbor-solicit", 135}, {"neighbor-advert", 136}, {"v6-redirect", 137}};
constexpr NamedValue arp_op_names[] = {{"request", 1}, {"reply", 2}};
constexpr NamedValue verdict_names[] = {{"deny", 0}, {"permit", 1}};
constexpr NamedValue fragment_names[] = {{"whole", 0}, {"first", 1}, {"later", 2}};
constexpr NamedValue stp_state_names[] = {
    {"disabled", 0}, {"blocking", 1}, {"listening", 2}, {"learning", 3}, {"forwarding", 4}};
constexpr NamedValue ip_type_names[] = {{"none", 0},           {"ipv4", 1}, {"ipv4-options", 2}, {"ipv6", 3},
                                        {"ipv6-extension", 4}, {"arp", 5},  {"mpls", 6},         {"other", 7}};
constexpr NamedValue vlan_form_names[] = {{"untagged", 0}, {"outer", 1}, {"inner", 2}, {"both", 3}};
constexpr NamedValue color_names[] = {{"green", 0}, {"yellow", 1}, {"red", 2}};

// clang-format off
constexpr Form all_forms[] = {
    {FP_UDP_ATTR_FIELD, "dst_mac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "src_mac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "snd_mac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "trgt_mac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "vid", ValueKind::number, 12, true},
    {FP_UDP_ATTR_FIELD, "vid_in", ValueKind::number, 12, true},
    {FP_UDP_ATTR_FIELD, "cos", ValueKind::number, 3, true},
    {FP_UDP_ATTR_FIELD, "cos_in", ValueKind::number, 3, true},
    {FP_UDP_ATTR_FIELD, "prio_in", ValueKind::number, 4, true},
    {FP_UDP_ATTR_FIELD, "etype", ValueKind::number, 16, true, NameSet::ethertype},
    {FP_UDP_ATTR_FIELD, "ipv4_prec", ValueKind::number, 3, true},
    {FP_UDP_ATTR_FIELD, "ipv4_tos", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv4_dscp", ValueKind::number, 6, true, NameSet::dscp},
    {FP_UDP_ATTR_FIELD, "ipv4_frag", ValueKind::number, 2, true, NameSet::fragment},
    {FP_UDP_ATTR_FIELD, "ipv4_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv4_proto", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "ipv4_src", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "ipv4_dst", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "ipv4_snd", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "ipv4_trgt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "ipv6_tc", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv6_flowlab", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "ipv6_next_hdr", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "ipv6_hop_lmt", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv6_src", ValueKind::ipv6, 128, true},
    {FP_UDP_ATTR_FIELD, "ipv6_dst", ValueKind::ipv6, 128, true},
    {FP_UDP_ATTR_FIELD, "icmp_type", ValueKind::number, 8, true, NameSet::icmp_type},
    {FP_UDP_ATTR_FIELD, "icmp_code", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "src_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "dst_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "src_range", ValueKind::range, 32, false, NameSet::port},
    {FP_UDP_ATTR_FIELD, "dst_range", ValueKind::range, 32, false, NameSet::port},
    {FP_UDP_ATTR_FIELD, "tcp_flag", ValueKind::number, 8, true, NameSet::tcp_flags},
    {FP_UDP_ATTR_FIELD, "mpls_lab", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_exp", ValueKind::number, 3, true},
    {FP_UDP_ATTR_FIELD, "vrf", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "fc_hdr1", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "fc_hdr2", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "fc_did", ValueKind::number, 24, true},
    {FP_UDP_ATTR_FIELD, "fc_sid", ValueKind::number, 24, true},
    {FP_UDP_ATTR_FIELD, "stp_state", ValueKind::number, 3, true, NameSet::stp_state},
    {FP_UDP_ATTR_FIELD, "l3_da_host_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l3_da_route_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l3_ipmc_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l2_da_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l2_sa_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l2_sa_stc_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "input_port", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "l3_known_uc", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l3_known_mc", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "l3_uc", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "pre_stage_drop", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "acl80", ValueKind::octets, 80, true},
    {FP_UDP_ATTR_FIELD, "icmp_dldp", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "ip_type", ValueKind::number, 8, true, NameSet::ip_type},
    {FP_UDP_ATTR_FIELD, "l3_class_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "vlan_class_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "trill_etype", ValueKind::number, 16, true, NameSet::ethertype},
    {FP_UDP_ATTR_FIELD, "trill_mac_dst", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "trill_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "my_mac_hit", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "mpls_bos", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "forward_type", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv6_src_up", ValueKind::ipv6_upper, 64, true},
    {FP_UDP_ATTR_FIELD, "ipv6_dst_up", ValueKind::ipv6_upper, 64, true},
    {FP_UDP_ATTR_FIELD, "gre_proto_type", ValueKind::number, 16, true, NameSet::ethertype},
    {FP_UDP_ATTR_FIELD, "l2gre_dmac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "ipv4_flags", ValueKind::number, 3, true, NameSet::ip_flags},
    {FP_UDP_ATTR_FIELD, "ipv4_offset", ValueKind::number, 13, true},
    {FP_UDP_ATTR_FIELD, "vpn_id", ValueKind::number, 24, true},
    {FP_UDP_ATTR_FIELD, "l2gre_etype", ValueKind::number, 16, true, NameSet::ethertype},
    {FP_UDP_ATTR_FIELD, "mpls_ver", ValueKind::number, 4, true},
    {FP_UDP_ATTR_FIELD, "mpls_fwd_act", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "fwd_header", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "mpls_ip_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "mpls_term", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "pppoe_ptype", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "vlan_form", ValueKind::number, 2, true, NameSet::vlan_form},
    {FP_UDP_ATTR_FIELD, "vfi_class_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "dst_port", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "l2_known_uc", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "decap", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "tunnel_type", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "mpls_fwd_lab", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_fwd_lab_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "dst_trunk", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "src_trunk", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "hg_enable", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "src_vp_class_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "fwd_vid", ValueKind::number, 12, true},
    {FP_UDP_ATTR_FIELD, "egr_l3_clsssid", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "l3", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "vfp_dst_class", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "vfp_src_class", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "rif", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "stat_id_7", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "outer_vid", ValueKind::number, 12, true},
    {FP_UDP_ATTR_FIELD, "l2_known_mc", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_FIELD, "cpu_reason_id", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "fec_id", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "ip_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "mpls_label1", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_label2", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_label3", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_label4", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_label5", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "mpls_label6", ValueKind::number, 20, true},
    {FP_UDP_ATTR_FIELD, "bfd_msg_flags", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "bfd_echo_interval", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf1", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf2", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf3", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf4", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf5", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf6", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf7", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "ace_udf8", ValueKind::octets, 32, true},
    {FP_UDP_ATTR_FIELD, "hash_value", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "ipv4_dst_low16", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "container", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "rx_trap_code", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "src_vxlan_gport", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "dst_vxlan_gport", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "evlan_id", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "out_vport", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "inner_sip", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "inner_dip", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "src_class", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "dst_class", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "vxlan_etype", ValueKind::number, 16, true, NameSet::ethertype},
    {FP_UDP_ATTR_FIELD, "vxlan_icmp_type", ValueKind::number, 8, true, NameSet::icmp_type},
    {FP_UDP_ATTR_FIELD, "vxlan_ip_protocol", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "vxlan_ip_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "vxlan_dmac", ValueKind::mac, 48, true},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4_src", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4_dst", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_src_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vxlan_dst_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vxlan_tcp_flag", ValueKind::number, 8, true, NameSet::tcp_flags},
    {FP_UDP_ATTR_FIELD, "vxlan_v6_next_hdr", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "vxlan_udp_port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "inner_ipv4_proto", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "inner_dst_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "mpls_label1_ttl", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "arp_op_code", ValueKind::number, 16, true, NameSet::arp_op},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4_snd", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4_trgt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_arp_op_code", ValueKind::number, 16, true, NameSet::arp_op},
    {FP_UDP_ATTR_FIELD, "inner_src_l4port", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "fec_msb", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv6_src_up", ValueKind::ipv6_upper, 64, true},
    {FP_UDP_ATTR_FIELD, "vxlan_icmpv6_type", ValueKind::number, 8, true, NameSet::icmp_type},
    {FP_UDP_ATTR_FIELD, "vxlan_ipproto_dpt", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4src_dpt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_ipv4dst_dpt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_srcport_dpt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vxlan_dstport_dpt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vxlan_tcpflag_dpt", ValueKind::number, 8, true, NameSet::tcp_flags},
    {FP_UDP_ATTR_FIELD, "vxlan_tag_ipproto", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "vxlan_tag_ipv4src", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_tag_ipv4dst", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vxlan_tag_srcl4pt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vxlan_tag_dstl4pt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vx_tag_proto_dpt", ValueKind::number, 8, true, NameSet::protocol},
    {FP_UDP_ATTR_FIELD, "vx_tag_sip4_dpt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vx_tag_dip4_dpt", ValueKind::ipv4, 32, true},
    {FP_UDP_ATTR_FIELD, "vx_tag_sport_dpt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "vx_tag_dport_dpt", ValueKind::number, 16, true, NameSet::port},
    {FP_UDP_ATTR_FIELD, "in_vport", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "header_format", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "ipv4_proto_type", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "src_class_l3", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "src_class_l2", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "em_class0", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "em_class1", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "act_em_class", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "ipv6_nexthdr_type", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "l3_type", ValueKind::number, 8, true},
    {FP_UDP_ATTR_FIELD, "meta_data", ValueKind::number, 32, true},
    {FP_UDP_ATTR_FIELD, "dpm", ValueKind::number, 16, true},
    {FP_UDP_ATTR_FIELD, "internal_port", ValueKind::number, 32, true},
    {FP_UDP_ATTR_ACTION, "ctrl", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "fwd", ValueKind::number, 1, false, NameSet::verdict},
    {FP_UDP_ATTR_ACTION, "mirror", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "redirect", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "l3_switch", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "cpu_code", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "egress_mask", ValueKind::ports, 255, false},
    {FP_UDP_ATTR_ACTION, "meter", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "counter", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "ctrl_cos", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "cos", ValueKind::number, 3, false},
    {FP_UDP_ATTR_ACTION, "cos_in", ValueKind::number, 3, false},
    {FP_UDP_ATTR_ACTION, "vid", ValueKind::number, 12, false},
    {FP_UDP_ATTR_ACTION, "vid_in", ValueKind::number, 12, false},
    {FP_UDP_ATTR_ACTION, "add_tag", ValueKind::number, 12, false},
    {FP_UDP_ATTR_ACTION, "prio_in", ValueKind::number, 4, false},
    {FP_UDP_ATTR_ACTION, "ipv4_tos", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "ipv4_prec", ValueKind::number, 3, false},
    {FP_UDP_ATTR_ACTION, "ipv4_dscp", ValueKind::number, 6, false, NameSet::dscp},
    {FP_UDP_ATTR_ACTION, "ipv6_tc", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "voq_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "wred_id", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "mirror_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "vlan_act_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "trap_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "snoop_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "mc_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "sys_header", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "strip", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "vrf", ValueKind::number, 16, false},
    {FP_UDP_ATTR_ACTION, "redirect_vlan", ValueKind::number, 12, false},
    {FP_UDP_ATTR_ACTION, "vxlan_terminate", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_ACTION, "vfp_dst_class_set", ValueKind::number, 16, false},
    {FP_UDP_ATTR_ACTION, "vfp_src_class_set", ValueKind::number, 16, false},
    {FP_UDP_ATTR_ACTION, "stat_sampling", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "do_not_learn", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_ACTION, "sc", ValueKind::number, 8, false},
    {FP_UDP_ATTR_ACTION, "mpls_exp", ValueKind::number, 3, false},
    {FP_UDP_ATTR_ACTION, "container", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "drop_prec", ValueKind::number, 2, false, NameSet::color},
    {FP_UDP_ATTR_ACTION, "act_src_class", ValueKind::number, 16, false},
    {FP_UDP_ATTR_ACTION, "act_dst_class", ValueKind::number, 16, false},
    {FP_UDP_ATTR_ACTION, "srcvxlan_gport", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "sample_enable", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_ACTION, "service_id", ValueKind::number, 32, false},
    {FP_UDP_ATTR_ACTION, "logic_port", ValueKind::number, 32, false},
    {FP_UDP_ATTR_CTRL, "meter_grp", ValueKind::number, 32, false},
    {FP_UDP_ATTR_CTRL, "intf_grp", ValueKind::number, 32, false},
    {FP_UDP_ATTR_CTRL, "no_default", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_CTRL, "permit2deny", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_CTRL, "no_deny", ValueKind::flag, 1, false},
    {FP_UDP_ATTR_CTRL, "no_permit", ValueKind::flag, 1, false},
};
// clang-format on

} // namespace

std::span<const Form> forms()
{
    return all_forms;
}

std::span<const NamedValue> named_values(NameSet set)
{
    switch (set) {
    case NameSet::none:
        return {};
    case NameSet::protocol:
        return protocol_names;
    case NameSet::port:
        return port_names;
    case NameSet::ethertype:
        return ethertype_names;
    case NameSet::dscp:
        return dscp_names;
    case NameSet::tcp_flags:
        return tcp_flags_names;
    case NameSet::ip_flags:
        return ip_flags_names;
    case NameSet::icmp_type:
        return icmp_type_names;
    case NameSet::arp_op:
        return arp_op_names;
    case NameSet::verdict:
        return verdict_names;
    case NameSet::fragment:
        return fragment_names;
    case NameSet::stp_state:
        return stp_state_names;
    case NameSet::ip_type:
        return ip_type_names;
    case NameSet::vlan_form:
        return vlan_form_names;
    case NameSet::color:
        return color_names;
    }
    return {};
}

std::string_view name_of(NameSet set)
{
    switch (set) {
    case NameSet::none:
        return "-";
    case NameSet::protocol:
        return "protocol";
    case NameSet::port:
        return "port";
    case NameSet::ethertype:
        return "ethertype";
    case NameSet::dscp:
        return "dscp";
    case NameSet::tcp_flags:
        return "tcp-flags";
    case NameSet::ip_flags:
        return "ip-flags";
    case NameSet::icmp_type:
        return "icmp-type";
    case NameSet::arp_op:
        return "arp-op";
    case NameSet::verdict:
        return "verdict";
    case NameSet::fragment:
        return "fragment";
    case NameSet::stp_state:
        return "stp-state";
    case NameSet::ip_type:
        return "ip-type";
    case NameSet::vlan_form:
        return "vlan-form";
    case NameSet::color:
        return "color";
    }
    return "-";
}

} // namespace plx
