// Registration of the application's context, database and callbacks.
//
// Until a registration has succeeded each connects anew: the failure may have been the connection's. Cache, debug
// commands and timers are set up once in the process's life, whatever became of the subscriptions behind them: the
// cache is in use from then on, and a second timer would be one too many. Subscriptions are made by every registration.
// The databases differ: the security application's ACLs and ACEs always lie in 8, status and service nodes in the
// registered one.
#include "status.hpp"
#include "store_record.hpp"
#include "synchronisation.hpp"

#include <plx/diag.h>
#include <plx/request.h>

namespace plx::mgr {
namespace {

// A subscription that the store refuses does not stop a registration; the next registration makes it again.
template <class Message> void subscribe_each_type(void *ctx, tq_mom_callback cb)
{
    for (int32_t i = 0; i < para.app_type_num; ++i) {
        store_record<Message> record;
        select(record.key, regist_app_type[i]);
        (void)tq_mom_subscribe(ctx, para.db, record.message(), SelectAppType, cb, nullptr);
    }
}

void subscribe(void *ctx)
{
    const fp_udp_acl_handler &handler = para.handler;
    if (handler.acl_change_cb != nullptr) {
        fp_udp_cache_all_secu_acl_info(ctx);
        subscribe_acl_changes(ctx);
    }
    if (handler.ace_change_cb != nullptr)
        subscribe_ace_changes(ctx);
    if (handler.ace_fail_cb != nullptr)
        subscribe_each_type<SPolicy__AcePsta>(ctx, ace_service_call_back);
    if (handler.apply_fail_cb != nullptr)
        subscribe_each_type<SPolicy__ApplyPsta>(ctx, apply_service_call_back);
    if (handler.ace_counter_cb != nullptr)
        subscribe_each_type<SPolicy__AceCounter>(ctx, ace_cnter_notify_call_back);
}

[[nodiscard]] int32_t connect(void *ctx, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    const bool follows_changes = para.handler.acl_change_cb != nullptr || para.handler.ace_change_cb != nullptr;
    if (!follows_changes || tq_mom_client_connect_sync(ctx, security_db) == 0)
        return FP_UDP_OK;
    report<Error>(diag::place{function, line}, "sync connect db fail.\n");
    return FP_UDP_REFUSED;
}

[[nodiscard]] int32_t set_up(void *ctx, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    if (const int32_t rv = fp_udp_acldb_init(); rv != 0) {
        report<Error>(diag::place{function, line}, "fp udp acldb init fail, rv[%d]", rv);
        return FP_UDP_REFUSED;
    }
    fp_udp_at_reg_init(ctx);
    (void)fp_udp_req_init(ctx, &para.handler); // a timer that is refused was reported
    para.set_up = 1;
    return FP_UDP_OK;
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_register_acl_handler(void *ctx, uint32_t db, const fp_udp_acl_handler *handler)
{
    if (handler == nullptr)
        return FP_UDP_INVALID;
    para.db = db;
    para.handler = *handler;
    if (para.inited == 0 && connect(ctx) != FP_UDP_OK)
        return FP_UDP_REFUSED;
    if (para.set_up == 0 && set_up(ctx) != FP_UDP_OK)
        return FP_UDP_REFUSED;
    subscribe(ctx);
    if (const int32_t rv = fp_udp_service_node_subscribe(ctx, db); rv != 0) {
        report<Error>("service_node_subscribe fail. rv = %d.", rv);
        return rv;
    }
    para.inited = 1;
    return FP_UDP_OK;
}

void fp_udp_set_cmp_apply_skip_prio(void)
{
    para.cmp_apply_skip_prio = 1;
}

uint8_t fp_udp_is_cmp_apply_skip_priority(void)
{
    return para.cmp_apply_skip_prio;
}

} // extern "C"
