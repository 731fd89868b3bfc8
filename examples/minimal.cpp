// The smallest complete application, in C++: objects of the library with owners, callbacks as lambdas.
//
//     minimal_cpp [STORE]
//
// It keeps 2001:db8::/32 out of port 7. See minimal.c, which does the same kind of thing in C and says more.
#include <array>
#include <cstring>
#include <iostream>
#include <memory>
#include <plx/libplx.h>
#include <tq_context.h>
#include <tq_loop.h>

namespace {

constexpr uint32_t policy_db = 8;
constexpr const char *app_type = "minimal_cpp";
int open_outcomes = 0;

int32_t outcome(const char *what, int32_t status)
{
    std::cout << what << (status == 0 ? " is programmed" : " failed, status " + std::to_string(status)) << '\n';
    --open_outcomes;
    return 0;
}

fp_udp_acl_handler make_handler()
{
    fp_udp_acl_handler handler{};
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

template <size_t Size>
void push(fp_udp_ace &ace, const char *name, fp_udp_attr_class cls, const std::array<uint8_t, Size> &value)
{
    fp_udp_attr attr;
    if (ace.tlv == nullptr) // an earlier push found no memory
        return;
    ace.tlv->construct(&attr, name, cls, value.data(), static_cast<int32_t>(value.size()));
    ace.tlv->push(&ace.tlv, attr);
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
    push(*ace, "ipv6_src", FP_UDP_ATTR_FIELD, documentation);
    push(*ace, "fwd", FP_UDP_ATTR_ACTION, std::array<uint8_t, 1>{0});

    open_outcomes = 2;
    return ace->tlv != nullptr && mgr.set_acl(context, &acl) == 0 &&
           mgr.set_apply(context, &info, acl.acl_cls, apply.get()) == 0 && mgr.set_ace(context, &key, ace.get()) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    tq_context *context = tq_context_new(argc > 1 ? argv[1] : nullptr);
    const fp_udp_acl_handler handler = make_handler();
    if (context == nullptr || plx_initial() != 0 || fp_udp_register_app_type(app_type) != 0 ||
        fp_udp_register_acl_handler(context, policy_db, &handler) != 0 || !write_policy(*fp_udp_get_mgr(), context)) {
        std::cerr << "minimal_cpp: the policy could not be written\n";
        return 1;
    }
    for (int turn = 0; open_outcomes > 0 && turn < 100; ++turn)
        tq_loop_run_once(context->master, 100);
    return open_outcomes == 0 ? 0 : 1;
}
