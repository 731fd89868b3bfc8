// An application in C++ that has nothing but the installed headers and libraries: it writes one entry, which nobody has
// to confirm since its ACL guards no port, and exits with 0 when the library says so.
#include <cstdio>
#include <memory>
#include <plx/libplx.h>
#include <tq_context.h>

namespace {

int confirmed = 0;

int32_t on_confirmed(void *, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *)
{
    std::printf("entry %llu of ACL %u is confirmed\n", static_cast<unsigned long long>(sn), acl->acl_id);
    ++confirmed;
    return 0;
}

int write_entry(void *context)
{
    fp_udp_mgr *mgr = fp_udp_get_mgr();
    fp_udp_acl acl{"outside", 7, 3, {}};
    fp_udp_acl_key key{"outside", 7};
    std::unique_ptr<fp_udp_ace, void (*)(fp_udp_ace *)> ace(mgr->alloc_ace(11, 0), mgr->free_ace);
    if (!ace || mgr->set_acl(context, &acl) != 0)
        return 1;

    const uint8_t permit = 1;
    if (plx_push(&ace->tlv, FP_UDP_ATTR_ACTION, "fwd", &permit, sizeof permit) != FP_UDP_OK)
        return 1;
    return mgr->set_ace(context, &key, ace.get());
}

} // namespace

int main()
{
    fp_udp_acl_handler handler{};
    handler.ace_reply_ok_cb = on_confirmed;
    tq_context *context = tq_context_new("mem:");
    if (context == nullptr || plx_initial() != 0 || fp_udp_register_app_type("outside") != 0 ||
        fp_udp_register_acl_handler(context, 1, &handler) != 0 || write_entry(context) != 0)
        return 1;
    return confirmed == 1 ? 0 : 1;
}
