// The two kinds of node that wait for an answer, ACEs and applies, behind one face: what is written for one holds for
// the other. An area that says something of a node adds its words to the kind; they differ, and log readers match them.
#pragma once

#include <plx/counters.h>
#include <plx/request.h>
#include <type_traits>

namespace plx {

template <class Node> struct kind;

template <> struct kind<fp_udp_ace_node> {
    using info = fp_udp_ace_info;
    static constexpr auto state = &fp_udp_ace_node::ace;
    static constexpr auto siblings = &fp_udp_acl_node::ace_list;
    static constexpr fp_udp_req_type request_type = FP_UDP_REQ_ACE;
    static constexpr auto get = fp_udp_acldb_get_ace;
    static constexpr auto judge = fp_udp_ace_req_stat_proc;
    static constexpr auto outcomes = &plx_counters::ace;
};

template <> struct kind<fp_udp_apply_node> {
    using info = fp_udp_apply_info;
    static constexpr auto state = &fp_udp_apply_node::apply;
    static constexpr auto siblings = &fp_udp_acl_node::apply_list;
    static constexpr fp_udp_req_type request_type = FP_UDP_REQ_APPLY;
    static constexpr auto get = fp_udp_acldb_get_apply;
    static constexpr auto judge = fp_udp_apply_req_stat_proc;
    static constexpr auto outcomes = &plx_counters::apply;
};

// What a node waits for, and how far that is.
template <class Node> auto &state_of(Node &node)
{
    return node.*kind<std::remove_const_t<Node>>::state;
}

// The process's counters; plx_get_counters() lets others read them.
extern plx_counters counters;

template <class Node> plx_outcomes &outcomes_of(const Node &)
{
    return counters.*kind<Node>::outcomes;
}

// Does some work with the node of a request of one type, as what it is.
template <class Work> decltype(auto) with_node(uint8_t request_type, void *node, Work work)
{
    return request_type == FP_UDP_REQ_ACE ? work(*static_cast<fp_udp_ace_node *>(node))
                                          : work(*static_cast<fp_udp_apply_node *>(node));
}

template <class Work> decltype(auto) with_node(const fp_udp_req_node &request, Work work)
{
    return with_node(request.type, request.node, work);
}

} // namespace plx
