// See library.hpp.
#include "library.hpp"

#include <support/inspection.h>

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
    const std::string fault = fake::first_fault();
    require(fault.empty(), fault.c_str());
}

} // namespace fuzz
