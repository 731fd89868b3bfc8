// The debug commands: switching the diagnostic channel, keeping the switch across restarts, and looking into the cache.
//
// The roof of the library: reads what the areas below export, and nothing includes it. Commands run on the event loop
// and print to standard output.
#include "../../list.hpp"
#include "shell.hpp"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <plx/request.h>
#include <tq_time.h>

extern "C" {
char lib_plx_debug_path[64] = "/var/lib_plx_debug.txt";
}

namespace plx::dbg {
namespace {

constexpr size_t saved_switch_size = 65; // of the save file's first line, with its terminator

uint32_t all_debug_bits()
{
    uint32_t bits = 0;
    for (const uint32_t bit : lib_plx_dbg_flag)
        bits |= bit;
    return bits;
}

// A shell may hand over fewer values than a command's argument description asks for.
[[nodiscard]] bool complete(int argc, const ssat_value *argv, int wanted, const char *command,
                            int line = __builtin_LINE())
{
    if (argc >= wanted && argv != nullptr)
        return true;
    report<Error>(diag::place{command, line}, "argument missing, argc : %d\n", argc);
    return false;
}

int on_set_sw(int argc, const ssat_value *argv)
{
    if (!complete(argc, argv, 1, "fp_udp_set_sw"))
        return FP_UDP_INVALID;
    fp_udp_debug_sw = argv[0].x;
    return 0;
}

int on_debug_on(int, const ssat_value *)
{
    fp_udp_debug_sw |= all_debug_bits();
    return 0;
}

int on_debug_off(int, const ssat_value *)
{
    fp_udp_debug_sw &= ~all_debug_bits();
    return 0;
}

int on_debug_save(int, const ssat_value *)
{
    FILE *file = std::fopen(lib_plx_debug_path, "w+e");
    if (file == nullptr)
        return 0;
    std::fprintf(file, "%d", static_cast<int32_t>(fp_udp_debug_sw));
    std::fclose(file);
    return 0;
}

int on_debug_show(int, const ssat_value *)
{
    std::printf("debug_sw:%d.\n", static_cast<int32_t>(fp_udp_debug_sw));
    std::fflush(stdout);
    return 0;
}

int on_set_zlog_level(int argc, const ssat_value *argv)
{
    if (!complete(argc, argv, 1, "fp_udp_at_set_zlog_level"))
        return FP_UDP_INVALID;
    return fp_udp_at_set_zlog_level(argv[0].x);
}

struct acl_filter {
    const char *app_type;
    uint32_t acl_id;
    bool failed_before; // an output that was not this command's

    // What follows would not be kept.
    bool output_full() const { return !failed_before && std::ferror(stdout) != 0; }
    bool takes(const fp_udp_acl_info &acl) const
    {
        if (std::strcmp(app_type, "all") == 0)
            return true;
        return std::strcmp(app_type, acl.app_type) == 0 && (acl_id == 0 || acl_id == acl.acl_id);
    }
};

void print_request_state(uint8_t is_req, uint8_t req_count)
{
    std::printf("%s", is_req != 0 ? ", is_req : true,  " : ", is_req : false, ");
    std::printf("req_count: %-4d\n", req_count);
    std::fflush(stdout);
}

void print_ace(const fp_udp_ace_info &ace)
{
    std::printf("        sn : 0x%-16llx, def : %-2d, stat : %-2d, uuid : %llu\n",
                static_cast<unsigned long long>(ace.sn), ace.def, ace.stat, static_cast<unsigned long long>(ace.uuid));
    print_request_state(ace.is_req, ace.req_count);
}

void print_apply(const fp_udp_apply_info &apply)
{
    std::printf(
        "        KEY={apply_type : %-22s, phyid : 0x%-8x, pri : %-8d}, VALUE={pri : %-8d, stat : %-2d, uuid : %llu}\n",
        apply.apply_type, apply.phyid, static_cast<int32_t>(apply.pri), static_cast<int32_t>(apply.value_pri),
        apply.stat, static_cast<unsigned long long>(apply.uuid));
    print_request_state(apply.is_req, apply.req_count);
}

int32_t dump_acl(fp_udp_acl_node *node, void *arg)
{
    const fp_udp_acl_info &acl = node->acl;
    const auto &filter = *static_cast<const acl_filter *>(arg);
    if (!filter.takes(acl) || filter.output_full())
        return 0;
    std::printf("\n>>acl info\n");
    std::printf("    app_type : %-22s, acl_id : %-4d, stat : %-2d, uuid : %llu\n", acl.app_type,
                static_cast<int32_t>(acl.acl_id), acl.stat, static_cast<unsigned long long>(acl.uuid));
    std::printf("    >>ace info\n");
    for (const fp_udp_ace_node &ace : elements<fp_udp_ace_node>(node->ace_list)) {
        if (filter.output_full())
            return 0;
        print_ace(ace.ace);
    }
    std::printf("    >>apply info\n");
    for (const fp_udp_apply_node &apply : elements<fp_udp_apply_node>(node->apply_list))
        print_apply(apply.apply);
    std::fflush(stdout);
    return 0;
}

int fp_udp_dump_acl(int argc, const ssat_value *argv)
{
    if (!complete(argc, argv, 2, "fp_udp_dump_acl"))
        return FP_UDP_INVALID;
    acl_filter filter = {argv[0].s, static_cast<uint32_t>(argv[1].d), std::ferror(stdout) != 0};
    if (filter.app_type == nullptr)
        return 0;
    if (strnlen(filter.app_type, FP_UDP_APP_TYPE_SIZE) == FP_UDP_APP_TYPE_SIZE) {
        report<Error>("app_type is invalid");
        return 0;
    }
    return fp_udp_acl_node_traverse_op(dump_acl, &filter);
}

int on_refer_all_app_type(int, const ssat_value *)
{
    std::printf("----All the app type your process own refer below----\n");
    for (const char *app_type : regist_app_type) {
        if (app_type == nullptr)
            break;
        std::printf("    %s\n", app_type);
    }
    std::fflush(stdout);
    return 0;
}

int on_dump_service_node(int, const ssat_value *)
{
    std::printf("---dump service node---\n");
    std::printf("DEV  SLOT    PID      UP_TIME\n");
    for (const fp_udp_service_node &node : elements<fp_udp_service_node>(g_fp_service.nodes))
        std::printf("%3d%6d%7d  0x%9llx(ms)\n", static_cast<int32_t>(node.dev), static_cast<int32_t>(node.slot),
                    static_cast<int32_t>(node.id), static_cast<unsigned long long>(tq_timeval_to_ms(&node.up_time)));
    std::printf("service node num: %d\n", g_fp_service.count);
    std::fflush(stdout);
    return 0;
}

constexpr command commands[] = {
    {"fp_udp_set_sw", "dbg_flags=%x, $n", on_set_sw},
    {"fp_udp_debug_on", "open debug", on_debug_on},
    {"fp_udp_debug_off", "close debug", on_debug_off},
    {"fp_udp_debug_save", "save debug switch", on_debug_save},
    {"fp_udp_debug_show", "show debug status", on_debug_show},
    {"fp_udp_dump_acl", "app_type=%s, acl_id=%d, $n", fp_udp_dump_acl},
    {"fp_udp_refer_all_app_type", "$n", on_refer_all_app_type},
    {"fp_udp_dump_service_node", "$n", on_dump_service_node},
    {"fp_udp_at_set_zlog_level", "level=%d", on_set_zlog_level},
};

void load_switch()
{
    fp_udp_debug_sw = 0;
    FILE *file = std::fopen(lib_plx_debug_path, "re");
    if (file == nullptr)
        return;
    char text[saved_switch_size];
    if (std::fgets(text, sizeof text, file) != nullptr)
        fp_udp_debug_sw = static_cast<uint32_t>(std::strtol(text, nullptr, 10));
    std::fclose(file);
}

} // namespace
} // namespace plx::dbg

using namespace plx::dbg;

extern "C" {

int32_t fp_udp_at_set_zlog_level(uint32_t level)
{
    constexpr uint32_t highest_level = 5;
    if (level > highest_level) {
        std::printf("invalid level input! g_policy_plx_zlog_level:%d.\n",
                    static_cast<int32_t>(g_policy_plx_zlog_level));
    } else {
        g_policy_plx_zlog_level = level;
        std::printf("zlog level change to %d.\n", static_cast<int32_t>(level));
    }
    std::fflush(stdout);
    return 0;
}

void fp_udp_at_reg_init(void *context)
{
    const module_name module(".fp");
    if (context == nullptr) {
        report<Error>("g_ssd_fp_global = %p, module = %p\n", context, module.text);
        return;
    }
    if (ssat_lib_init(context, module.text) != 0) {
        report<Error>("ssat lib init fail");
        return;
    }
    load_switch();
    for (const command &c : commands) // one that the shell refuses is missing there, and nothing else
        (void)ssat_reg_mod_cmd(module.text, c.name, 0, c.arguments, c.handler);
}

} // extern "C"
