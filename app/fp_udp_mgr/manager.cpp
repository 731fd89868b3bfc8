// The manager operation table.
#include "operations.hpp"

#include <plx/diag.h>

namespace plx::mgr {
namespace {

fp_udp_mgr manager = {
    .set_acl = fp_udp_set_acl,
    .del_acl = fp_udp_del_acl,
    .expire_acl = fp_udp_expire_acl,
    .del_expire_acl = fp_udp_del_expire_acl,
    .iterator_ace = fp_udp_iterator_ace,
    .get_acl_cls = fp_udp_get_acl_cls,
    .set_ace = fp_udp_set_ace,
    .delete_ace = fp_udp_delete_ace,
    .expire_ace = fp_udp_expire_ace,
    .del_expire_ace = fp_udp_del_expire_ace,
    .alloc_ace = fp_udp_alloc_ace,
    .free_ace = fp_udp_free_ace,
    .get_ace = fp_udp_get_ace,
    .copy_ace = fp_udp_copy_ace,
    .set_apply = fp_udp_set_apply,
    .del_apply = fp_udp_del_apply,
    .expire_apply = fp_udp_expire_apply,
    .del_expire_apply = fp_udp_del_expire_apply,
    .alloc_apply = fp_udp_alloc_apply,
    .free_apply = fp_udp_free_apply,
    .reserved_20 = nullptr,
    .reserved_21 = nullptr,
    .set_port_disable = fp_udp_set_port_disable,
    .del_port_disable = fp_udp_del_port_disable,
    .svi_router_enable = fp_udp_svi_router_enable,
    .expire_svi_router_enable = fp_udp_expire_svi_router_enable,
    .del_expire_svi_router_enable = fp_udp_del_expire_svi_router_enable,
    .uplink_enable = fp_udp_uplink_enable,
    .expire_uplink = fp_udp_expire_uplink,
    .del_expire_uplink = fp_udp_del_expire_uplink,
    .set_port_bindinfo = fp_udp_set_port_bindinfo,
    .del_port_bindinfo = fp_udp_del_port_bindinfo,
    .enable_app_commit = fp_udp_enable_app_commit,
    .disable_app_commit = fp_udp_disable_app_commit,
    .publish_app_commit = fp_udp_publish_app_commit,
};

} // namespace
} // namespace plx::mgr

extern "C" fp_udp_mgr *fp_udp_get_mgr(void)
{
    fp_udp_op_log_init();
    return &plx::mgr::manager;
}
