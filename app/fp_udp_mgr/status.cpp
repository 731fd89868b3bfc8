// Status replies and counters from the forwarding plane.
//
// A reply counts only when it answers the node's newest write. The application's callback may have deleted the node, or
// written it anew: what is left to do is decided by looking it up again. The ACE's and the apply's texts differ: log
// readers match them.
#include "status.hpp"
#include "store_record.hpp"

#include <plx/request.h>

namespace plx::mgr {
namespace {

// The pending request ends with its outcome; one that the callback has started anew has no outcome yet.
void settle_ace(const fp_udp_acl_info &acl, const fp_udp_ace_info &ace, const char *function = __builtin_FUNCTION(),
                int line = __builtin_LINE())
{
    fp_udp_ace_node *node = nullptr;
    if (fp_udp_acldb_get_ace(&acl, &ace, &node) != FP_UDP_OK)
        report<Notice>(diag::place{function, line}, "get ace from acldb fail");
    else if (node->ace.is_req != 0)
        fp_udp_req_node_del(FP_UDP_REQ_ACE, node);
}

void settle_apply(const fp_udp_acl_info &acl, const fp_udp_apply_info &apply,
                  const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    fp_udp_apply_node *node = nullptr;
    if (fp_udp_acldb_get_apply(&acl, &apply, &node) != FP_UDP_OK)
        report<Notice>(diag::place{function, line}, "get apply fail");
    else if (node->apply.is_req != 0)
        fp_udp_req_node_del(FP_UDP_REQ_APPLY, node);
}

} // namespace

int32_t ace_service_call_back(void *, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr || notification->event != TQ_MOM_EVENT_STATUS)
        return FP_UDP_OK;
    report<Notice>("ace return.");
    const auto *record = keyed_record<SPolicy__AcePsta>(notification->record);
    if (record == nullptr) {
        report<Error>("SPolicy__AcePsta is NULL");
        return FP_UDP_NO_RECORD;
    }
    const SPolicy__AceKey &key = *record->index;
    if (!valid(key.t_app_type))
        return refuse_name();
    report<Notice>("app_type : %s, acl_id : %d, sn : %lld", key.t_app_type, key.acl_id, key.sn);

    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    const fp_udp_ace_info ace = ace_descriptor(key.sn);
    fp_udp_ace_node *node = nullptr;
    if (fp_udp_acldb_get_ace(&acl, &ace, &node) != FP_UDP_OK) {
        report<Notice>("get ace from acldb fail");
        return FP_UDP_OK;
    }
    if (node->ace.stat != 0) {
        report<Notice>("status has update");
        return FP_UDP_OK;
    }
    if (node->ace.uuid != record->rep_uuid) {
        report<Notice>("uuid is not the newest.");
        return FP_UDP_OK;
    }
    fp_udp_ace_req_stat_proc(node, record->p_status, 0);
    settle_ace(acl, ace);
    return FP_UDP_OK;
}

int32_t apply_service_call_back(void *, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr || notification->event != TQ_MOM_EVENT_STATUS)
        return FP_UDP_OK;
    report<Notice>("apply return.");
    const auto *record = keyed_record<SPolicy__ApplyPsta>(notification->record);
    if (record == nullptr) {
        report<Error>("SPolicy__ApplyPsta is NULL");
        return FP_UDP_NO_RECORD;
    }
    const SPolicy__ApplyKey &key = *record->index;
    if (!valid(key.app_type) || !valid(key.t_apply_type))
        return refuse_name();
    report<Notice>("app_type : %s, acl_id : %d, apply_type : %s, phyid : 0x%x, pri : %d, dir : %d", key.app_type,
                   key.acl_id, key.t_apply_type, key.phyid, key.priority, key.direction);

    const fp_udp_acl_info acl = acl_descriptor(key.app_type, key.acl_id);
    const fp_udp_apply_info apply = apply_descriptor(key.t_apply_type, key.phyid, key.priority, key.direction);
    fp_udp_apply_node *node = nullptr;
    if (fp_udp_acldb_get_apply(&acl, &apply, &node) != FP_UDP_OK) {
        report<Notice>("get apply fail");
        return FP_UDP_OK;
    }
    if (node->apply.stat != 0) {
        report<Notice>("apply status is not 0");
        return FP_UDP_OK;
    }
    if (node->apply.uuid != record->rep_uuid) {
        report<Notice>("apply uuid is not newest");
        return FP_UDP_OK;
    }
    fp_udp_apply_req_stat_proc(node, record->p_status, 0);
    settle_apply(acl, apply);
    return FP_UDP_OK;
}

int32_t ace_cnter_notify_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr || notification->event != TQ_MOM_EVENT_PUBLISHED)
        return FP_UDP_OK;
    const auto *record = keyed_record<SPolicy__AceCounter>(notification->record);
    if (record == nullptr)
        return FP_UDP_NO_RECORD;
    const char *app_type = record->index->t_app_type == nullptr ? "" : record->index->t_app_type;
    if (!valid(app_type))
        return refuse_name();
    if (para.handler.ace_counter_cb == nullptr)
        return FP_UDP_OK;
    const fp_udp_acl_info acl = acl_descriptor(app_type, record->index->acl_id);
    const fp_udp_ace_counter counter = {record->counter_pkt,   record->counter_byte, record->timestamp,
                                        record->counter_byte1, record->counter_pkt1, record->timestamp_rt};
    para.handler.ace_counter_cb(ctx, &acl, record->index->sn, &counter);
    return FP_UDP_OK;
}

} // namespace plx::mgr
