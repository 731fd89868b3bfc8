// See library.hpp.
#include "library.hpp"

#include <set>
#include <vector>

// As the clock double defines it.
struct tq_thread {
    void *arg;
};

namespace fuzz {

static tq_thread_master master;
application_context context{&context, &master};

namespace {

fp_udp_mgr &set_up(const fp_udp_acl_handler &handler)
{
    be_quiet();
    strcpy(lib_plx_debug_path, "/dev/null");
    g_policy_plx_zlog_category = &fake::log;
    for (const char *type : {"security_app", "my_app"})
        require(fp_udp_register_app_type(type) == 0, "a type is registered");
    require(fp_udp_register_acl_handler(&context, 5, &handler) == 0, "the callbacks are registered");
    return *fp_udp_get_mgr();
}

std::vector<fp_udp_acl_node *> cached_acls()
{
    std::vector<fp_udp_acl_node *> nodes;
    auto collect = [](fp_udp_acl_node *node, void *arg) {
        static_cast<std::vector<fp_udp_acl_node *> *>(arg)->push_back(node);
        return int32_t{0};
    };
    fp_udp_acl_node_hash_traverse(collect, &nodes);
    return nodes;
}

void empty_cache()
{
    for (const fp_udp_acl_node *node : cached_acls()) {
        const fp_udp_acl_info acl = node->acl;
        fp_udp_acldb_del_acl(&acl);
    }
    fake::clock.now_us += 60'000'000;
    fp_udp_fp_service_node_expire();
    require(fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size() == 0,
            "an empty cache has empty tables");
    require(g_req_para.pending.next == &g_req_para.pending, "no request outlives its node");
    require(g_fp_service.count == 0 && g_fp_service.nodes.next == &g_fp_service.nodes, "silent service nodes go");
}

void reset_doubles()
{
    fake::store.take();
    fake::store.script.clear();
    fake::store.down = 0;
    fake::store.records.clear();
    fake::store.marks.clear();
    fake::store.scan_entries.clear();
    require(fake::store.unreleased.empty(), "what was read from the store is freed");
    fake::log.kept.clear();
    fake::clock = {};
    fp_udp_expire();
    fp_udp_req_check();
    g_policy_plx_zlog_level = 1;
    fp_udp_debug_sw = 0;
}

// Calls back with each element of a list, after checking its links both ways.
template <class Node, class Work> size_t each(const fp_udp_list &head, Work work)
{
    size_t length = 0;
    for (const fp_udp_list *at = head.next; at != &head; at = at->next, length++) {
        require(at->next->prev == at && at->prev->next == at, "a list's links agree");
        work(*reinterpret_cast<const Node *>(at));
    }
    return length;
}

template <class Node> void note_request(const Node &node, std::set<const void *> &waiting)
{
    if (node.req == nullptr)
        return;
    require(node.req->node == &node, "a request points at its node");
    waiting.insert(node.req);
}

} // namespace

fp_udp_mgr &fresh_library(const fp_udp_acl_handler &handler)
{
    static fp_udp_mgr &mgr = set_up(handler);
    empty_cache();
    reset_doubles();
    return mgr;
}

void require_consistency()
{
    size_t aces = 0, applies = 0;
    std::set<const void *> waiting;
    for (const fp_udp_acl_node *acl : cached_acls()) {
        const size_t own = each<fp_udp_ace_node>(acl->ace_list, [&](const fp_udp_ace_node &node) {
            require(fp_udp_ace_node_hash_find(&node) == &node, "a listed ACE stands in its table");
            note_request(node, waiting);
        });
        require(own == acl->ace_count, "an ACL counts its ACEs");
        aces += own;
        applies += each<fp_udp_apply_node>(acl->apply_list, [&](const fp_udp_apply_node &node) {
            require(fp_udp_apply_node_hash_find(&node) == &node, "a listed apply stands in its table");
            note_request(node, waiting);
        });
    }
    require(aces == fp_udp_ace_node_hash_size(), "every ACE of the table is on a list");
    require(applies == fp_udp_apply_node_hash_size(), "every apply of the table is on a list");
    const size_t pending = each<fp_udp_req_node>(g_req_para.pending, [&](const fp_udp_req_node &request) {
        require(waiting.count(&request) == 1, "every pending request is a cached node's");
    });
    require(pending == waiting.size(), "every node's request is pending");
    const size_t nodes = each<fp_udp_service_node>(g_fp_service.nodes, [](const fp_udp_service_node &) {});
    require(static_cast<int32_t>(nodes) == g_fp_service.count, "service nodes are counted");
}

} // namespace fuzz
