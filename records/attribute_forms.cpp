// The form of every attribute's value, one row for each row of the three name tables, and the words that stand for
// numbers. The tables of docs/attributes.md are made from them (attribute_tables.cpp).
#include "records/attribute.hpp"

#include <iterator>

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

using enum ValueKind;
using enum NameSet;
constexpr auto field = FP_UDP_ATTR_FIELD;
constexpr auto action = FP_UDP_ATTR_ACTION;
constexpr auto ctrl = FP_UDP_ATTR_CTRL;

// clang-format off
constexpr Form all_forms[] = {
    {field, "dst_mac", mac, 48, true, "destination MAC address"},
    {field, "src_mac", mac, 48, true, "source MAC address"},
    {field, "snd_mac", mac, 48, true, "ARP sender hardware address"},
    {field, "trgt_mac", mac, 48, true, "ARP target hardware address"},
    {field, "vid", number, 12, true, "VLAN of the outer tag"},
    {field, "vid_in", number, 12, true, "VLAN of the inner tag"},
    {field, "cos", number, 3, true, "priority bits of the outer tag"},
    {field, "cos_in", number, 3, true, "priority bits of the inner tag"},
    {field, "prio_in", number, 4, true, "internal priority"},
    {field, "etype", number, 16, true, "Ethernet type", ethertype},
    {field, "ipv4_prec", number, 3, true, "IPv4 precedence"},
    {field, "ipv4_tos", number, 8, true, "IPv4 type of service, the whole octet"},
    {field, "ipv4_dscp", number, 6, true, "IPv4 differentiated services code point", dscp},
    {field, "ipv4_frag", number, 2, true, "place of a fragment", fragment},
    {field, "ipv4_ttl", number, 8, true, "IPv4 time to live"},
    {field, "ipv4_proto", number, 8, true, "IPv4 protocol", protocol},
    {field, "ipv4_src", ipv4, 32, true, "IPv4 source address"},
    {field, "ipv4_dst", ipv4, 32, true, "IPv4 destination address"},
    {field, "ipv4_snd", ipv4, 32, true, "ARP sender address"},
    {field, "ipv4_trgt", ipv4, 32, true, "ARP target address"},
    {field, "ipv6_tc", number, 8, true, "IPv6 traffic class"},
    {field, "ipv6_flowlab", number, 20, true, "IPv6 flow label"},
    {field, "ipv6_next_hdr", number, 8, true, "IPv6 next header", protocol},
    {field, "ipv6_hop_lmt", number, 8, true, "IPv6 hop limit"},
    {field, "ipv6_src", ipv6, 128, true, "IPv6 source address"},
    {field, "ipv6_dst", ipv6, 128, true, "IPv6 destination address"},
    {field, "icmp_type", number, 8, true, "ICMP or ICMPv6 type", icmp_type},
    {field, "icmp_code", number, 8, true, "ICMP or ICMPv6 code"},
    {field, "src_l4port", number, 16, true, "TCP, UDP or SCTP source port", port},
    {field, "dst_l4port", number, 16, true, "TCP, UDP or SCTP destination port", port},
    {field, "src_range", range, 32, false, "range of source ports", port},
    {field, "dst_range", range, 32, false, "range of destination ports", port},
    {field, "tcp_flag", number, 8, true, "TCP flags", tcp_flags},
    {field, "mpls_lab", number, 20, true, "label on top of the stack"},
    {field, "mpls_exp", number, 3, true, "traffic class of the top label"},
    {field, "vrf", number, 16, true, "routing instance"},
    {field, "fc_hdr1", number, 32, true, "first word of the Fibre Channel header"},
    {field, "fc_hdr2", number, 32, true, "second word of the Fibre Channel header"},
    {field, "fc_did", number, 24, true, "Fibre Channel destination"},
    {field, "fc_sid", number, 24, true, "Fibre Channel source"},
    {field, "stp_state", number, 3, true, "spanning tree state of the input port", stp_state},
    {field, "l3_da_host_hit", flag, 1, false, "destination found in the host table"},
    {field, "l3_da_route_hit", flag, 1, false, "destination found in the route table"},
    {field, "l3_ipmc_hit", flag, 1, false, "group found in the IP multicast table"},
    {field, "l2_da_hit", flag, 1, false, "destination found in the MAC table"},
    {field, "l2_sa_hit", flag, 1, false, "source found in the MAC table"},
    {field, "l2_sa_stc_hit", flag, 1, false, "source found as a static MAC entry"},
    {field, "input_port", number, 32, true, "port that the packet came in by"},
    {field, "l3_known_uc", flag, 1, false, "known IP unicast"},
    {field, "l3_known_mc", flag, 1, false, "known IP multicast"},
    {field, "l3_uc", flag, 1, false, "IP unicast"},
    {field, "pre_stage_drop", flag, 1, false, "an earlier stage wants the packet dropped"},
    {field, "acl80", octets, 80, true, "80-bit lookup key"},
    {field, "icmp_dldp", flag, 1, false, "device link detection packet"},
    {field, "ip_type", number, 8, true, "kind of layer 3 packet", ip_type},
    {field, "l3_class_id", number, 16, true, "class of the layer 3 lookup"},
    {field, "vlan_class_id", number, 16, true, "class of the VLAN"},
    {field, "trill_etype", number, 16, true, "Ethernet type behind a TRILL header", ethertype},
    {field, "trill_mac_dst", mac, 48, true, "destination MAC address behind a TRILL header"},
    {field, "trill_ttl", number, 8, true, "TRILL hop count"},
    {field, "my_mac_hit", flag, 1, false, "addressed to the router's own MAC"},
    {field, "mpls_bos", flag, 1, false, "top label is the bottom of the stack"},
    {field, "forward_type", number, 8, true, "how the packet is forwarded"},
    {field, "ipv6_src_up", ipv6_upper, 64, true, "upper half of the IPv6 source address"},
    {field, "ipv6_dst_up", ipv6_upper, 64, true, "upper half of the IPv6 destination address"},
    {field, "gre_proto_type", number, 16, true, "protocol type of a GRE header", ethertype},
    {field, "l2gre_dmac", mac, 48, true, "destination MAC address inside L2 over GRE"},
    {field, "ipv4_flags", number, 3, true, "IPv4 flags", ip_flags},
    {field, "ipv4_offset", number, 13, true, "IPv4 fragment offset"},
    {field, "vpn_id", number, 24, true, "virtual network"},
    {field, "l2gre_etype", number, 16, true, "Ethernet type inside L2 over GRE", ethertype},
    {field, "mpls_ver", number, 4, true, "first four bits behind the label stack"},
    {field, "mpls_fwd_act", number, 8, true, "label action of the forwarding lookup"},
    {field, "fwd_header", number, 8, true, "header that forwarding looks at"},
    {field, "mpls_ip_ttl", number, 8, true, "time to live of the IP packet behind the labels"},
    {field, "mpls_term", flag, 1, false, "the label stack ends here"},
    {field, "pppoe_ptype", number, 16, true, "PPP protocol of a PPPoE session packet"},
    {field, "vlan_form", number, 2, true, "tags on the packet", vlan_form},
    {field, "vfi_class_id", number, 16, true, "class of the virtual forwarding instance"},
    {field, "dst_port", number, 32, true, "port that the packet leaves by"},
    {field, "l2_known_uc", flag, 1, false, "known layer 2 unicast"},
    {field, "decap", flag, 1, false, "a tunnel ended here"},
    {field, "tunnel_type", number, 8, true, "kind of tunnel"},
    {field, "mpls_fwd_lab", number, 20, true, "label that forwarding looked up"},
    {field, "mpls_fwd_lab_ttl", number, 8, true, "time to live of that label"},
    {field, "dst_trunk", number, 16, true, "link aggregation that the packet leaves by"},
    {field, "src_trunk", number, 16, true, "link aggregation that the packet came in by"},
    {field, "hg_enable", flag, 1, false, "came in by a stacking port"},
    {field, "src_vp_class_id", number, 16, true, "class of the source virtual port"},
    {field, "fwd_vid", number, 12, true, "VLAN that forwarding uses"},
    {field, "egr_l3_clsssid", number, 16, true, "class of the outgoing layer 3 interface"},
    {field, "l3", flag, 1, false, "routed"},
    {field, "vfp_dst_class", number, 16, true, "destination class set by the VLAN stage"},
    {field, "vfp_src_class", number, 16, true, "source class set by the VLAN stage"},
    {field, "rif", number, 16, true, "router interface"},
    {field, "stat_id_7", number, 32, true, "seventh statistics identifier"},
    {field, "outer_vid", number, 12, true, "VLAN of the outer tag after translation"},
    {field, "l2_known_mc", flag, 1, false, "known layer 2 multicast"},
    {field, "cpu_reason_id", number, 32, true, "why the packet went to the processor"},
    {field, "fec_id", number, 32, true, "forwarding equivalence class"},
    {field, "ip_id", number, 16, true, "IPv4 identification"},
    {field, "mpls_label1", number, 20, true, "first label of the stack"},
    {field, "mpls_label2", number, 20, true, "second label"},
    {field, "mpls_label3", number, 20, true, "third label"},
    {field, "mpls_label4", number, 20, true, "fourth label"},
    {field, "mpls_label5", number, 20, true, "fifth label"},
    {field, "mpls_label6", number, 20, true, "sixth label"},
    {field, "bfd_msg_flags", number, 8, true, "flags of a BFD control packet"},
    {field, "bfd_echo_interval", number, 32, true,
     "required minimum echo interval of a BFD control packet, microseconds"},
    {field, "ace_udf1", octets, 32, true, "user-defined field 1"},
    {field, "ace_udf2", octets, 32, true, "user-defined field 2"},
    {field, "ace_udf3", octets, 32, true, "user-defined field 3"},
    {field, "ace_udf4", octets, 32, true, "user-defined field 4"},
    {field, "ace_udf5", octets, 32, true, "user-defined field 5"},
    {field, "ace_udf6", octets, 32, true, "user-defined field 6"},
    {field, "ace_udf7", octets, 32, true, "user-defined field 7"},
    {field, "ace_udf8", octets, 32, true, "user-defined field 8"},
    {field, "hash_value", number, 16, true, "hash of the packet's flow"},
    {field, "ipv4_dst_low16", number, 16, true, "lower half of the IPv4 destination address"},
    {field, "container", number, 32, true, "container of the key builder"},
    {field, "rx_trap_code", number, 16, true, "trap that caught the packet"},
    {field, "src_vxlan_gport", number, 32, true, "VXLAN port that the packet came in by"},
    {field, "dst_vxlan_gport", number, 32, true, "VXLAN port that the packet leaves by"},
    {field, "evlan_id", number, 16, true, "extended VLAN"},
    {field, "out_vport", number, 32, true, "virtual port that the packet leaves by"},
    {field, "inner_sip", ipv4, 32, true, "IPv4 source address inside a tunnel"},
    {field, "inner_dip", ipv4, 32, true, "IPv4 destination address inside a tunnel"},
    {field, "src_class", number, 16, true, "class of the source"},
    {field, "dst_class", number, 16, true, "class of the destination"},
    {field, "vxlan_etype", number, 16, true, "inside VXLAN: Ethernet type", ethertype},
    {field, "vxlan_icmp_type", number, 8, true, "inside VXLAN: ICMP type", icmp_type},
    {field, "vxlan_ip_protocol", number, 8, true, "inside VXLAN: IPv4 protocol", protocol},
    {field, "vxlan_ip_ttl", number, 8, true, "inside VXLAN: IPv4 time to live"},
    {field, "vxlan_dmac", mac, 48, true, "inside VXLAN: destination MAC address"},
    {field, "vxlan_ipv4_src", ipv4, 32, true, "inside VXLAN: IPv4 source address"},
    {field, "vxlan_ipv4_dst", ipv4, 32, true, "inside VXLAN: IPv4 destination address"},
    {field, "vxlan_src_l4port", number, 16, true, "inside VXLAN: source port", port},
    {field, "vxlan_dst_l4port", number, 16, true, "inside VXLAN: destination port", port},
    {field, "vxlan_tcp_flag", number, 8, true, "inside VXLAN: TCP flags", tcp_flags},
    {field, "vxlan_v6_next_hdr", number, 8, true, "inside VXLAN: IPv6 next header", protocol},
    {field, "vxlan_udp_port", number, 16, true, "UDP port that VXLAN itself uses", port},
    {field, "inner_ipv4_proto", number, 8, true, "inside a tunnel: IPv4 protocol", protocol},
    {field, "inner_dst_l4port", number, 16, true, "inside a tunnel: destination port", port},
    {field, "mpls_label1_ttl", number, 8, true, "time to live of the first label"},
    {field, "arp_op_code", number, 16, true, "ARP operation", arp_op},
    {field, "vxlan_ipv4_snd", ipv4, 32, true, "inside VXLAN: ARP sender address"},
    {field, "vxlan_ipv4_trgt", ipv4, 32, true, "inside VXLAN: ARP target address"},
    {field, "vxlan_arp_op_code", number, 16, true, "inside VXLAN: ARP operation", arp_op},
    {field, "inner_src_l4port", number, 16, true, "inside a tunnel: source port", port},
    {field, "fec_msb", number, 8, true, "top bits of the forwarding equivalence class"},
    {field, "vxlan_ipv6_src_up", ipv6_upper, 64, true, "inside VXLAN: upper half of the IPv6 source address"},
    {field, "vxlan_icmpv6_type", number, 8, true, "inside VXLAN: ICMPv6 type", icmp_type},
    {field, "vxlan_ipproto_dpt", number, 8, true, "VXLAN packet to be unpacked here: IPv4 protocol", protocol},
    {field, "vxlan_ipv4src_dpt", ipv4, 32, true, "VXLAN packet to be unpacked here: IPv4 source address"},
    {field, "vxlan_ipv4dst_dpt", ipv4, 32, true, "VXLAN packet to be unpacked here: IPv4 destination address"},
    {field, "vxlan_srcport_dpt", number, 16, true, "VXLAN packet to be unpacked here: source port", port},
    {field, "vxlan_dstport_dpt", number, 16, true, "VXLAN packet to be unpacked here: destination port", port},
    {field, "vxlan_tcpflag_dpt", number, 8, true, "VXLAN packet to be unpacked here: TCP flags", tcp_flags},
    {field, "vxlan_tag_ipproto", number, 8, true, "inside VXLAN behind a tag: IPv4 protocol", protocol},
    {field, "vxlan_tag_ipv4src", ipv4, 32, true, "inside VXLAN behind a tag: IPv4 source address"},
    {field, "vxlan_tag_ipv4dst", ipv4, 32, true, "inside VXLAN behind a tag: IPv4 destination address"},
    {field, "vxlan_tag_srcl4pt", number, 16, true, "inside VXLAN behind a tag: source port", port},
    {field, "vxlan_tag_dstl4pt", number, 16, true, "inside VXLAN behind a tag: destination port", port},
    {field, "vx_tag_proto_dpt", number, 8, true, "tagged VXLAN packet to be unpacked here: IPv4 protocol", protocol},
    {field, "vx_tag_sip4_dpt", ipv4, 32, true, "tagged VXLAN packet to be unpacked here: IPv4 source address"},
    {field, "vx_tag_dip4_dpt", ipv4, 32, true, "tagged VXLAN packet to be unpacked here: IPv4 destination address"},
    {field, "vx_tag_sport_dpt", number, 16, true, "tagged VXLAN packet to be unpacked here: source port", port},
    {field, "vx_tag_dport_dpt", number, 16, true, "tagged VXLAN packet to be unpacked here: destination port", port},
    {field, "in_vport", number, 32, true, "virtual port that the packet came in by"},
    {field, "header_format", number, 8, true, "headers that the parser found"},
    {field, "ipv4_proto_type", number, 8, true, "class of the IPv4 protocol"},
    {field, "src_class_l3", number, 16, true, "source class by layer 3"},
    {field, "src_class_l2", number, 16, true, "source class by layer 2"},
    {field, "em_class0", number, 16, true, "first exact match class"},
    {field, "em_class1", number, 16, true, "second exact match class"},
    {field, "act_em_class", number, 16, true,
     "exact match class that is in effect; shares its id with `l2_sa_hit`, the length tells which is meant"},
    {field, "ipv6_nexthdr_type", number, 8, true, "class of the IPv6 next header"},
    {field, "l3_type", number, 8, true, "kind of layer 3 header"},
    {field, "meta_data", number, 32, true, "metadata of an earlier stage"},
    {field, "dpm", number, 16, true, "destination port map"},
    {field, "internal_port", number, 32, true, "port inside the switch"},
    {action, "ctrl", number, 32, false, "control word of the plane"},
    {action, "fwd", number, 1, false, "forward or drop", verdict},
    {action, "mirror", number, 32, false, "port to mirror to"},
    {action, "redirect", number, 32, false, "port to send to instead"},
    {action, "l3_switch", number, 32, false, "next hop to route by"},
    {action, "cpu_code", number, 32, false, "reason to give to the processor"},
    {action, "egress_mask", ports, 255, false, "ports that the packet may not leave by"},
    {action, "meter", number, 32, false, "meter to pass"},
    {action, "counter", number, 32, false, "counter to count on"},
    {action, "ctrl_cos", number, 8, false, "queue towards the processor"},
    {action, "cos", number, 3, false, "set the outer tag's priority"},
    {action, "cos_in", number, 3, false, "set the inner tag's priority"},
    {action, "vid", number, 12, false, "set the outer tag's VLAN"},
    {action, "vid_in", number, 12, false, "set the inner tag's VLAN"},
    {action, "add_tag", number, 12, false, "add a tag with this VLAN"},
    {action, "prio_in", number, 4, false, "set the internal priority"},
    {action, "ipv4_tos", number, 8, false, "set the type of service"},
    {action, "ipv4_prec", number, 3, false, "set the precedence"},
    {action, "ipv4_dscp", number, 6, false, "set the code point", dscp},
    {action, "ipv6_tc", number, 8, false, "set the traffic class"},
    {action, "voq_id", number, 32, false, "virtual output queue"},
    {action, "wred_id", number, 8, false, "drop curve"},
    {action, "mirror_id", number, 32, false, "mirror session"},
    {action, "vlan_act_id", number, 32, false, "VLAN action profile"},
    {action, "trap_id", number, 32, false, "trap"},
    {action, "snoop_id", number, 32, false, "snoop"},
    {action, "mc_id", number, 32, false, "multicast group"},
    {action, "sys_header", number, 32, false, "system header profile"},
    {action, "strip", number, 8, false, "number of tags to take off"},
    {action, "vrf", number, 16, false, "routing instance to look up in"},
    {action, "redirect_vlan", number, 12, false, "VLAN to flood instead"},
    {action, "vxlan_terminate", flag, 1, false, "end the VXLAN tunnel here"},
    {action, "vfp_dst_class_set", number, 16, false, "destination class for later stages"},
    {action, "vfp_src_class_set", number, 16, false, "source class for later stages"},
    {action, "stat_sampling", number, 32, false, "one packet in so many goes to statistics"},
    {action, "do_not_learn", flag, 1, false, "do not learn the source MAC address"},
    {action, "sc", number, 8, false, "service class"},
    {action, "mpls_exp", number, 3, false, "set the top label's traffic class"},
    {action, "container", number, 32, false, "value for the key builder's container"},
    {action, "drop_prec", number, 2, false, "drop precedence", color},
    {action, "act_src_class", number, 16, false, "source class"},
    {action, "act_dst_class", number, 16, false, "destination class"},
    {action, "srcvxlan_gport", number, 32, false, "VXLAN port to take as source"},
    {action, "sample_enable", flag, 1, false, "sample the flow"},
    {action, "service_id", number, 32, false, "service"},
    {action, "logic_port", number, 32, false, "logical port"},
    {ctrl, "meter_grp", number, 32, false, "meter group of the entry"},
    {ctrl, "intf_grp", number, 32, false, "interface group of the entry"},
    {ctrl, "no_default", flag, 1, false, "do not install behind a default entry"},
    {ctrl, "permit2deny", flag, 1, false, "install a permit as a deny"},
    {ctrl, "no_deny", flag, 1, false, "do not install while the verdict is deny"},
    {ctrl, "no_permit", flag, 1, false, "do not install while the verdict is permit"},
};
// clang-format on

struct NamedSet {
    std::string_view name;
    std::span<const NamedValue> values;
};

// By NameSet.
constexpr NamedSet name_sets[] = {
    {"-", {}},
    {"protocol", protocol_names},
    {"port", port_names},
    {"ethertype", ethertype_names},
    {"dscp", dscp_names},
    {"tcp-flags", tcp_flags_names},
    {"ip-flags", ip_flags_names},
    {"icmp-type", icmp_type_names},
    {"arp-op", arp_op_names},
    {"verdict", verdict_names},
    {"fragment", fragment_names},
    {"stp-state", stp_state_names},
    {"ip-type", ip_type_names},
    {"vlan-form", vlan_form_names},
    {"color", color_names},
};
static_assert(std::size(name_sets) == static_cast<size_t>(color) + 1);

} // namespace

std::span<const Form> forms()
{
    return all_forms;
}

std::span<const NamedValue> named_values(NameSet set)
{
    return name_sets[static_cast<size_t>(set)].values;
}

std::string_view name_of(NameSet set)
{
    return name_sets[static_cast<size_t>(set)].name;
}

} // namespace plx
