// The smallest complete application, in C++: objects of the library with owners, callbacks as lambdas.
//
//     minimal_cpp [STORE [NODES]]
//
// It keeps 2001:db8::/32 out of port 7. See minimal.c, which does the same kind of thing in C and says more, its exit
// codes included.
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <plx/libplx.h>
#include <string>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

namespace {

constexpr uint32_t policy_db = 8;
constexpr const char *app_type = "minimal_cpp";
int open_outcomes = 0;
int failures = 0;

std::string why(int32_t status)
{
    if (status < 0)
        return plx_result_text(status);
    return status > 100 ? plx_node_status_text(status) : tq_mom_strerror(status);
}

// Returns the status: it becomes the result of the operation that the callback runs in, if it does.
int32_t outcome(const char *what, int32_t status)
{
    std::cout << what << (status == 0 ? " is programmed" : " failed: " + why(status)) << '\n';
    --open_outcomes;
    failures += status != 0;
    return status;
}

fp_udp_acl_handler make_handler()
{
    fp_udp_acl_handler handler{};
    handler.set_acl_fail_cb = [](void *, const fp_udp_acl *, int32_t result, const uint8_t *) -> int32_t {
        return outcome("the ACL", result);
    };
    handler.ace_reply_ok_cb = [](void *, const fp_udp_acl_info *, uint64_t, const uint8_t *) -> int32_t {
        return outcome("the entry", 0);
    };
    handler.ace_fail_cb = [](void *, const fp_udp_acl_info *, uint64_t, int32_t status, const uint8_t *) -> int32_t {
        return outcome("the entry", status);
    };
    handler.apply_reply_ok_cb = [](void *, const fp_udp_acl_info *, const fp_udp_apply_info *,
                                   const uint8_t *) -> int32_t { return outcome("the binding", 0); };
    handler.apply_fail_cb = [](void *, const fp_udp_acl_info *, const fp_udp_apply_info *, int32_t status,
                               const uint8_t *) -> int32_t { return outcome("the binding", status); };
    return handler;
}

bool write_policy(fp_udp_mgr &mgr, tq_context *context)
{
    fp_udp_acl acl{};
    fp_udp_acl_info info{};
    fp_udp_acl_key key{};
    fp_udp_apply_key binding{};
    for (char *name : {acl.app_type, info.app_type, key.app_type, binding.apply_type})
        std::strncpy(name, app_type, FP_UDP_APP_TYPE_SIZE - 1);
    acl.acl_id = info.acl_id = key.acl_id = 1;
    binding.phyid = 7;

    const std::unique_ptr<fp_udp_apply, decltype(mgr.free_apply)> apply(mgr.alloc_apply(&binding), mgr.free_apply);
    const std::unique_ptr<fp_udp_ace, decltype(mgr.free_ace)> ace(mgr.alloc_ace(1, 0), mgr.free_ace);
    if (apply == nullptr || ace == nullptr)
        return false;
    constexpr std::array<uint8_t, 32> documentation{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0,    0,    0,    0,
                                                    0,    0,    0,    0,    0, 0, 0xff, 0xff, 0xff, 0xff};
    constexpr uint8_t deny = 0;
    const std::array<plx_attribute, 2> attributes{
        {{FP_UDP_ATTR_FIELD, "ipv6_src", documentation.data(), documentation.size()},
         {FP_UDP_ATTR_ACTION, "fwd", &deny, sizeof deny}}};
    const char *missing = nullptr;
    if (const int32_t result = plx_push_all(&ace->tlv, attributes.data(), attributes.size(), &missing); result != 0) {
        std::cerr << "attribute " << missing << ": " << why(result) << '\n';
        return false;
    }

    open_outcomes = 2;
    return mgr.set_acl(context, &acl) == 0 && mgr.set_apply(context, &info, acl.acl_cls, apply.get()) == 0 &&
           mgr.set_ace(context, &key, ace.get()) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    const int nodes = argc > 2 ? std::atoi(argv[2]) : 1;
    tq_context *context = tq_context_new(argc > 1 ? argv[1] : nullptr);
    const fp_udp_acl_handler handler = make_handler();
    if (context == nullptr || plx_initial() != 0 || fp_udp_register_app_type(app_type) != 0 ||
        fp_udp_register_acl_handler(context, policy_db, &handler) != 0) {
        std::cerr << "minimal_cpp: the store cannot be reached\n";
        return 5;
    }
    if (plx_wait_for_nodes(context->master, nodes, 10000, tq_loop_run_once) < nodes) {
        std::cerr << "minimal_cpp: only " << g_fp_service.count << " of " << nodes << " service nodes are alive\n";
        return 4;
    }
    if (!write_policy(*fp_udp_get_mgr(), context)) {
        std::cerr << "minimal_cpp: the policy could not be written\n";
        return 3;
    }
    for (int turn = 0; open_outcomes > 0 && turn < 100; ++turn)
        tq_loop_run_once(context->master, 100);
    if (failures > 0)
        return 3;
    return open_outcomes == 0 ? 0 : 4;
}
