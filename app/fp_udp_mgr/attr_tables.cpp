// The attribute names and the ids that stand for them in packed attributes.
//
// The ids are wire values: gaps, two rows out of order, one misspelt name, and the id that `l2_sa_hit` and
// `act_em_class` share are all part of the interface. Rows are looked up from the first on.
#include <plx/types.h>

extern "C" {

// clang-format off
fp_udp_attr_entry ctrl_attr[FP_UDP_CTRL_ATTR_COUNT] = {
    {"meter_grp", 1}, {"intf_grp", 2}, {"no_default", 3}, {"permit2deny", 4}, {"no_deny", 5}, {"no_permit", 6},
};

fp_udp_attr_entry field_attr[FP_UDP_FIELD_ATTR_COUNT] = {
    {"dst_mac", 1}, {"src_mac", 2}, {"snd_mac", 3}, {"trgt_mac", 4}, {"vid", 5}, {"vid_in", 6}, {"cos", 7},
    {"cos_in", 8}, {"prio_in", 9}, {"etype", 10}, {"ipv4_prec", 11}, {"ipv4_tos", 12}, {"ipv4_dscp", 13},
    {"ipv4_frag", 14}, {"ipv4_ttl", 15}, {"ipv4_proto", 16}, {"ipv4_src", 17}, {"ipv4_dst", 18}, {"ipv4_snd", 19},
    {"ipv4_trgt", 20}, {"ipv6_tc", 21}, {"ipv6_flowlab", 22}, {"ipv6_next_hdr", 23}, {"ipv6_hop_lmt", 24},
    {"ipv6_src", 25}, {"ipv6_dst", 26}, {"icmp_type", 27}, {"icmp_code", 28}, {"src_l4port", 29}, {"dst_l4port", 30},
    {"src_range", 31}, {"dst_range", 32}, {"tcp_flag", 33}, {"mpls_lab", 34}, {"mpls_exp", 35}, {"vrf", 36},
    {"fc_hdr1", 37}, {"fc_hdr2", 38}, {"fc_did", 39}, {"fc_sid", 40}, {"stp_state", 41}, {"l3_da_host_hit", 42},
    {"l3_da_route_hit", 43}, {"l3_ipmc_hit", 44}, {"l2_da_hit", 45}, {"l2_sa_hit", 46}, {"l2_sa_stc_hit", 47},
    {"input_port", 48}, {"l3_known_uc", 49}, {"l3_known_mc", 50}, {"l3_uc", 51}, {"pre_stage_drop", 52}, {"acl80", 53},
    {"icmp_dldp", 54}, {"ip_type", 55}, {"l3_class_id", 56}, {"vlan_class_id", 57}, {"trill_etype", 58},
    {"trill_mac_dst", 59}, {"trill_ttl", 60}, {"my_mac_hit", 61}, {"mpls_bos", 62}, {"forward_type", 63},
    {"ipv6_src_up", 64}, {"ipv6_dst_up", 65}, {"gre_proto_type", 66}, {"l2gre_dmac", 67}, {"ipv4_flags", 68},
    {"ipv4_offset", 69}, {"vpn_id", 70}, {"l2gre_etype", 71}, {"mpls_ver", 72}, {"mpls_fwd_act", 73},
    {"fwd_header", 74}, {"mpls_ip_ttl", 75}, {"mpls_term", 76}, {"pppoe_ptype", 77}, {"vlan_form", 78},
    {"vfi_class_id", 79}, {"dst_port", 80}, {"l2_known_uc", 81}, {"decap", 82}, {"tunnel_type", 83},
    {"mpls_fwd_lab", 84}, {"mpls_fwd_lab_ttl", 85}, {"dst_trunk", 86}, {"src_trunk", 87}, {"hg_enable", 88},
    {"src_vp_class_id", 92}, {"fwd_vid", 93}, {"egr_l3_clsssid", 94}, {"l3", 97}, {"vfp_dst_class", 98},
    {"vfp_src_class", 99}, {"rif", 102}, {"stat_id_7", 103}, {"outer_vid", 104}, {"l2_known_mc", 105},
    {"cpu_reason_id", 106}, {"fec_id", 107}, {"ip_id", 108}, {"mpls_label1", 109}, {"mpls_label2", 110},
    {"mpls_label3", 111}, {"mpls_label4", 112}, {"mpls_label5", 113}, {"mpls_label6", 114}, {"bfd_msg_flags", 115},
    {"bfd_echo_interval", 116}, {"ace_udf1", 117}, {"ace_udf2", 118}, {"ace_udf3", 119}, {"ace_udf4", 120},
    {"ace_udf5", 121}, {"ace_udf6", 122}, {"ace_udf7", 123}, {"ace_udf8", 124}, {"hash_value", 137},
    {"ipv4_dst_low16", 138}, {"container", 139}, {"rx_trap_code", 140}, {"src_vxlan_gport", 141},
    {"dst_vxlan_gport", 142}, {"evlan_id", 143}, {"out_vport", 146}, {"inner_sip", 147}, {"inner_dip", 148},
    {"src_class", 150}, {"dst_class", 149}, {"vxlan_etype", 151}, {"vxlan_icmp_type", 152}, {"vxlan_ip_protocol", 153},
    {"vxlan_ip_ttl", 154}, {"vxlan_dmac", 155}, {"vxlan_ipv4_src", 156}, {"vxlan_ipv4_dst", 157},
    {"vxlan_src_l4port", 158}, {"vxlan_dst_l4port", 159}, {"vxlan_tcp_flag", 160}, {"vxlan_v6_next_hdr", 161},
    {"vxlan_udp_port", 162}, {"inner_ipv4_proto", 163}, {"inner_dst_l4port", 164}, {"mpls_label1_ttl", 165},
    {"arp_op_code", 166}, {"vxlan_ipv4_snd", 167}, {"vxlan_ipv4_trgt", 168}, {"vxlan_arp_op_code", 169},
    {"inner_src_l4port", 170}, {"fec_msb", 171}, {"vxlan_ipv6_src_up", 172}, {"vxlan_icmpv6_type", 173},
    {"vxlan_ipproto_dpt", 174}, {"vxlan_ipv4src_dpt", 175}, {"vxlan_ipv4dst_dpt", 176}, {"vxlan_srcport_dpt", 177},
    {"vxlan_dstport_dpt", 178}, {"vxlan_tcpflag_dpt", 179}, {"vxlan_tag_ipproto", 180}, {"vxlan_tag_ipv4src", 181},
    {"vxlan_tag_ipv4dst", 182}, {"vxlan_tag_srcl4pt", 183}, {"vxlan_tag_dstl4pt", 184}, {"vx_tag_proto_dpt", 185},
    {"vx_tag_sip4_dpt", 186}, {"vx_tag_dip4_dpt", 187}, {"vx_tag_sport_dpt", 188}, {"vx_tag_dport_dpt", 189},
    {"in_vport", 190}, {"header_format", 145}, {"ipv4_proto_type", 191}, {"src_class_l3", 192}, {"src_class_l2", 193},
    {"em_class0", 194}, {"em_class1", 195}, {"act_em_class", 46}, {"ipv6_nexthdr_type", 196}, {"l3_type", 198},
    {"meta_data", 199}, {"dpm", 200}, {"internal_port", 201},
};

fp_udp_attr_entry action_attr[FP_UDP_ACTION_ATTR_COUNT] = {
    {"ctrl", 1}, {"fwd", 2}, {"mirror", 3}, {"redirect", 4}, {"l3_switch", 5}, {"cpu_code", 6}, {"egress_mask", 7},
    {"meter", 8}, {"counter", 9}, {"ctrl_cos", 10}, {"cos", 11}, {"cos_in", 12}, {"vid", 13}, {"vid_in", 14},
    {"add_tag", 15}, {"prio_in", 16}, {"ipv4_tos", 17}, {"ipv4_prec", 18}, {"ipv4_dscp", 19}, {"ipv6_tc", 20},
    {"voq_id", 21}, {"wred_id", 22}, {"mirror_id", 23}, {"vlan_act_id", 24}, {"trap_id", 25}, {"snoop_id", 26},
    {"mc_id", 27}, {"sys_header", 28}, {"strip", 29}, {"vrf", 30}, {"redirect_vlan", 31}, {"vxlan_terminate", 32},
    {"vfp_dst_class_set", 34}, {"vfp_src_class_set", 35}, {"stat_sampling", 36}, {"do_not_learn", 37}, {"sc", 38},
    {"mpls_exp", 39}, {"container", 40}, {"drop_prec", 41}, {"act_src_class", 44}, {"act_dst_class", 43},
    {"srcvxlan_gport", 45}, {"sample_enable", 47}, {"service_id", 48}, {"logic_port", 49},
};
// clang-format on

} // extern "C"
