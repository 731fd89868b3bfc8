// The debug commands that an application asks for: how requests ended so far, those that are waited for, and a digest
// of the cache.
#include "../../list.hpp"
#include "shell.hpp"

#include <plx/counters.h>
#include <plx/request.h>

namespace plx::dbg {
namespace {

constexpr uint32_t most_shown = 20;

constexpr struct {
    const char *label;
    uint64_t plx_outcomes::*number;
} outcomes[] = {
    {"ok, by the nodes' answers", &plx_outcomes::ok_by_answers},
    {"ok, by age", &plx_outcomes::ok_by_age},
    {"ok, at once", &plx_outcomes::ok_at_once},
    {"failed", &plx_outcomes::failed},
    {"failed, at once", &plx_outcomes::failed_at_once},
    {"answer dropped, unknown", &plx_outcomes::dropped_unknown},
    {"answer dropped, older", &plx_outcomes::dropped_older},
    {"answer dropped, late", &plx_outcomes::dropped_late},
};

int on_counters(int, const ssat_value *)
{
    const plx_counters &counters = *plx_get_counters();
    std::printf("%-26s%11s%11s\n", "OUTCOME", "ACE", "APPLY");
    for (const auto &row : outcomes)
        std::printf("%-26s%11llu%11llu\n", row.label, static_cast<unsigned long long>(counters.ace.*row.number),
                    static_cast<unsigned long long>(counters.apply.*row.number));
    std::fflush(stdout);
    return 0;
}

void print_state(const fp_udp_req_node &request, uint8_t replies)
{
    const timeval &since = request.time;
    timeval now = {};
    if (tq_monotime(&now) != 0 || (since.tv_sec == 0 && since.tv_usec == 0))
        std::printf("%8s", "-");
    else
        std::printf("%8lld", static_cast<long long>(now.tv_sec - since.tv_sec - (now.tv_usec < since.tv_usec ? 1 : 0)));
    std::printf("%6u of %-5d", replies, g_fp_service.count);
}

void print_ace(const fp_udp_req_node &request)
{
    const auto &node = *static_cast<const fp_udp_ace_node *>(request.node);
    print_state(request, node.ace.req_count);
    std::printf("ace    app_type : %s, acl_id : %d, sn : 0x%llx\n", node.acl.app_type,
                static_cast<int32_t>(node.acl.acl_id), static_cast<unsigned long long>(node.ace.sn));
}

void print_apply(const fp_udp_req_node &request)
{
    const auto &node = *static_cast<const fp_udp_apply_node *>(request.node);
    print_state(request, node.apply.req_count);
    std::printf("apply  app_type : %s, acl_id : %d, apply_type : %s, phyid : 0x%x, pri : %u, dir : %u\n",
                node.acl.app_type, static_cast<int32_t>(node.acl.acl_id), node.apply.apply_type, node.apply.phyid,
                node.apply.value_pri, node.apply.dir);
}

int on_dump_pending(int, const ssat_value *)
{
    std::printf("  AGE(s)  ANSWERS     KIND   KEY\n");
    uint32_t pending = 0;
    for (const fp_udp_req_node &request : elements<fp_udp_req_node>(g_req_para.pending)) {
        if (++pending > most_shown)
            continue;
        if (request.type == FP_UDP_REQ_ACE)
            print_ace(request);
        else
            print_apply(request);
    }
    if (pending > most_shown)
        std::printf("and %u more\n", pending - most_shown);
    std::fflush(stdout);
    return 0;
}

constexpr command request_commands[] = {
    {"plx_counters", "$n", on_counters},
    {"plx_dump_pending", "$n", on_dump_pending},
    {"plx_cache_digest", "app_type=%s, part=%d, $n", on_cache_digest},
};

} // namespace
} // namespace plx::dbg

using namespace plx::dbg;

extern "C" int32_t plx_register_debug_commands(void *g_ssd_fp_global)
{
    static bool registered = false; // a shell refuses a command that it has
    if (g_ssd_fp_global == nullptr)
        return FP_UDP_INVALID;
    if (registered)
        return FP_UDP_OK;
    const module_name module(".plx");
    if (ssat_lib_init(g_ssd_fp_global, module.text) != 0) {
        report<Error>("ssat lib init fail");
        return FP_UDP_REFUSED;
    }
    for (const command &c : request_commands)
        if (ssat_reg_mod_cmd(module.text, c.name, 0, c.arguments, c.handler) != 0) {
            report<Error>("ssat does not take the command %s", c.name);
            return FP_UDP_REFUSED;
        }
    registered = true;
    return FP_UDP_OK;
}
