// Apply operations: an ACL bound to a port, cached, written with its ACL's class, and handed to the request tracker.
//
// An apply object is shorter than the cache's descriptor, so the cache always gets a descriptor made from it.
#include "../fp_udp_req_mng/kinds.hpp"
#include "operations.hpp"
#include "store_record.hpp"

#include <plx/diag.h>
#include <plx/request.h>

namespace plx::mgr {
namespace {

// An apply call's arguments, as the cache, the log and the callbacks want them. The ACL's descriptor is a copy: the
// caller's may lie in a node, which a failed write deletes.
struct apply_call {
    void *ctx;
    const fp_udp_acl_info acl;
    const fp_udp_apply &apply;
    fp_udp_apply_info info;
};

bool valid_names(const fp_udp_acl_info &acl, const fp_udp_apply &apply)
{
    return valid(acl.app_type) && valid(apply.apply_type);
}

fp_udp_apply_info descriptor_of(const fp_udp_apply &apply)
{
    fp_udp_apply_info info = apply_descriptor(apply.apply_type, apply.phyid, apply.priority, apply.direction);
    std::memcpy(info.priv, apply.priv, sizeof info.priv);
    return info;
}

void settle_apply_removal(void *, const bulk::call &, int result)
{
    if (result != 0)
        report<Error>("apply entry del failed.\n");
}

void settle_status_removal(void *, const bulk::call &, int result)
{
    if (result != 0)
        report<Error>("apply pstate entry del failed.\n");
}

// Deletes the apply record and its status, whatever becomes of the first.
void fp_udp_del_mom_apply(void *ctx, const fp_udp_acl_info &acl, const fp_udp_apply_info &info)
{
    store_record<SPolicy__Apply> record;
    fill(record.key, acl, info);
    if (record.del(ctx, {settle_apply_removal, {}, {}, 0, 0, 0}) != 0)
        report<Error>("apply entry del failed.\n");
    store_record<SPolicy__ApplyPsta> status;
    fill(status.key, acl, info);
    if (status.del(ctx, {settle_status_removal, {}, {}, 0, 0, 0}) != 0)
        report<Error>("apply pstate entry del failed.\n");
}

// Caches a new apply, or starts a cached one over. While priorities are skipped that one may have another priority: its
// records go. The node, or null and the reason in *rv.
fp_udp_apply_node *cache(const apply_call &call, int32_t *rv)
{
    fp_udp_apply_node *node = nullptr;
    if (fp_udp_acldb_get_apply(&call.acl, &call.info, &node) != FP_UDP_OK) {
        *rv = fp_udp_acldb_add_apply(&call.acl, &call.info, &node);
        return *rv == FP_UDP_OK ? node : nullptr;
    }
    if (node->apply.value_pri != call.info.value_pri) {
        fp_udp_apply_info old = call.info;
        old.value_pri = node->apply.value_pri;
        fp_udp_del_mom_apply(call.ctx, call.acl, old);
    }
    node->apply.value_pri = call.info.value_pri;
    start_over(node->apply, call.info);
    return node;
}

// Before anything is cached. Where the ACL's class is to be read, that settles, too.
void make_room(const fp_udp_acl_info &acl)
{
    bulk::make_room();
    if (bulk::remembered(acl) == nullptr)
        (void)bulk::settle();
}

// In a bracket once for each ACL.
[[nodiscard]] int32_t read_class(void *ctx, const fp_udp_acl_info &acl, uint8_t *cls)
{
    if (const auto *known = bulk::remembered(acl); known != nullptr) {
        *cls = known->result == FP_UDP_OK ? known->acl_cls : *cls;
        return known->result;
    }
    const int32_t rv = std::strcmp(acl.app_type, security_app) == 0
                           ? fp_udp_get_acl_cls(ctx, static_cast<int32_t>(acl.acl_id), cls)
                           : fp_get_acl_cls(ctx, para.db, acl.app_type, acl.acl_id, cls);
    bulk::remember(acl, {rv, *cls});
    return rv;
}

// The class that the record carries: what the store says the ACL has, else the low 8 bits of what the caller believes.
uint8_t class_of(void *ctx, const fp_udp_acl_info &acl, uint32_t believed, const fp_udp_apply &apply,
                 const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    const auto believed_cls = static_cast<uint8_t>(believed);
    uint8_t cls = believed_cls;
    const int32_t rv = read_class(ctx, acl, &cls);
    if (rv != FP_UDP_OK)
        report<Error>(diag::place{function, line},
                      "acl_cls get failed! app:%s acl:%d apply:%s acl_cls:%d acl_cls_real:%d", acl.app_type, acl.acl_id,
                      apply.apply_type, believed, cls);
    else if (cls != believed_cls)
        report<Error>(diag::place{function, line},
                      "acl_cls is not match! app:%s acl:%d apply:%s acl_cls:%d acl_cls_real:%d", acl.app_type,
                      acl.acl_id, apply.apply_type, believed, cls);
    return cls;
}

void settle_apply(void *ctx, const bulk::call &made, int result);

bulk::call made_of(const apply_call &call)
{
    bulk::call made = {settle_apply, {}, {}, 0, 0, call.info.uuid};
    std::memcpy(made.acl.app_type, call.acl.app_type, sizeof made.acl.app_type);
    made.acl.acl_id = call.acl.acl_id;
    std::memcpy(made.apply.apply_type, call.info.apply_type, sizeof made.apply.apply_type);
    made.apply.phyid = call.info.phyid;
    made.apply.priority = call.info.value_pri;
    made.apply.direction = call.info.dir;
    return made;
}

[[nodiscard]] int write(const apply_call &call, uint8_t acl_cls, bool *collected)
{
    store_record<SPolicy__Apply> record;
    fill(record.key, call.acl, call.info);
    record.values.value = field_bytes(call.apply.tlv);
    record.values.c_status = 0;
    record.values.req_uuid = call.info.uuid;
    record.values.acl_cls = acl_cls;
    record.values.priv = field_bytes(call.apply.priv);
    return record.write(call.ctx, made_of(call), collected);
}

// A write that went to the store, or should have.
struct written_apply {
    void *ctx;
    const fp_udp_acl_info &acl;
    const fp_udp_apply_info &info;
    const uint8_t *priv;
};

// Tells the application of a write that failed; without a callback the operation's result is `fallback`.
[[nodiscard]] int32_t fail(const written_apply &apply, int32_t fallback, int32_t result)
{
    (void)bulk::settle(); // what came before is told before
    bulk::note(result);
    ++counters.apply.failed_at_once;
    if (para.handler.apply_fail_cb == nullptr)
        return fallback;
    fp_udp_log_op_apply(&apply.acl, &apply.info, nullptr, apply.priv, FP_UDP_OP_FAIL);
    return para.handler.apply_fail_cb(apply.ctx, &apply.acl, &apply.info, result, apply.priv);
}

// Goes on from a write that reached the store.
[[nodiscard]] int32_t track(const written_apply &apply, fp_udp_apply_node *node)
{
    if (para.handler.apply_reply_ok_cb == nullptr)
        return FP_UDP_OK;
    fp_udp_log_op_apply(&apply.acl, &apply.info, nullptr, apply.priv, FP_UDP_OP_SUCCESS);
    return fp_udp_req_node_add(FP_UDP_REQ_APPLY, node);
}

// As settle_ace does.
void settle_apply(void *ctx, const bulk::call &made, int result)
{
    const fp_udp_acl_info acl = acl_descriptor(made.acl.app_type, made.acl.acl_id);
    fp_udp_apply_info info =
        apply_descriptor(made.apply.apply_type, made.apply.phyid, made.apply.priority, made.apply.direction);
    fp_udp_apply_node *node = nullptr;
    if (fp_udp_acldb_get_apply(&acl, &info, &node) != FP_UDP_OK || node->apply.uuid != made.uuid ||
        node->apply.is_req != 0)
        return;
    info.uuid = made.uuid;
    std::memcpy(info.priv, node->apply.priv, sizeof info.priv);
    const written_apply apply = {ctx, acl, info, info.priv};
    if (result != 0) {
        report<Error>("apply entry hmset failed.\n");
        (void)fail(apply, fp_udp_acldb_del_apply(&acl, &info), result);
    } else if (const int32_t tracked = track(apply, node); tracked != FP_UDP_OK) {
        node->apply.is_req = 1;
        (void)fail(apply, tracked, tracked);
    }
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_set_apply(void *ctx, const fp_udp_acl_info *acl, uint32_t acl_cls, const fp_udp_apply *apply)
{
    if (acl == nullptr || apply == nullptr)
        return FP_UDP_OK;
    if (!valid_names(*acl, *apply))
        return refuse_name();
    apply_call call = {ctx, *acl, *apply, descriptor_of(*apply)};
    make_room(call.acl);
    fp_udp_log_op_apply(&call.acl, &call.info, nullptr, apply->priv, FP_UDP_OP_ADD);
    report<Detail>(
        "apply info, acl_apptype : %s, acl_id : %d, apply_apptype : %s, phyid : 0x%x,priority : %d, direction : %d\n",
        call.acl.app_type, call.acl.acl_id, apply->apply_type, apply->phyid, apply->priority, apply->direction);

    call.info.uuid = bulk::request_id();
    const written_apply told = {ctx, call.acl, call.info, apply->priv};
    int32_t result = FP_UDP_OK;
    fp_udp_apply_node *node = cache(call, &result);
    if (node == nullptr)
        return fail(told, result, result);
    bool collected = false;
    result = write(call, class_of(ctx, call.acl, acl_cls, *apply), &collected);
    if (result == 0)
        return collected ? FP_UDP_OK : track(told, node);
    report<Error>("apply entry hmset failed.\n");
    return fail(told, fp_udp_acldb_del_apply(&call.acl, &call.info), result);
}

int32_t fp_udp_del_apply(void *ctx, const fp_udp_acl_info *acl, const fp_udp_apply *apply)
{
    if (acl == nullptr || apply == nullptr)
        return FP_UDP_OK;
    if (!valid_names(*acl, *apply))
        return refuse_name();
    const fp_udp_acl_info owner = *acl;
    const fp_udp_apply_info info = descriptor_of(*apply);
    bulk::make_room();
    fp_udp_log_op_apply(&owner, &info, nullptr, nullptr, FP_UDP_OP_DEL);
    report<Detail>(
        "apply info, acl_apptype : %s, acl_id : %d, apply_apptype : %s, phyid : 0x%x,priority : %d, direction : %d\n",
        owner.app_type, owner.acl_id, apply->apply_type, apply->phyid, apply->priority, apply->direction);
    fp_udp_del_mom_apply(ctx, owner, info);
    return fp_udp_acldb_del_apply(&owner, &info);
}

// The pair's result is the second call's.
int32_t fp_udp_expire_apply(void *ctx, const char *apply_type)
{
    if (apply_type == nullptr)
        return FP_UDP_OK;
    if (!valid(apply_type))
        return refuse_name();
    fp_udp_log_op_apply(nullptr, nullptr, apply_type, nullptr, FP_UDP_OP_EXPIRE);
    report<Detail>("app_type : %s\n", apply_type);
    (void)begin_rewrite<SPolicy__Apply>(ctx, apply_type, "Expire apply fail.\n");
    return begin_rewrite<SPolicy__ApplyPsta>(ctx, apply_type, "Expire apply pstate fail.\n");
}

int32_t fp_udp_del_expire_apply(void *ctx, const char *apply_type)
{
    if (apply_type == nullptr)
        return FP_UDP_OK;
    if (!valid(apply_type))
        return refuse_name();
    fp_udp_log_op_apply(nullptr, nullptr, apply_type, nullptr, FP_UDP_OP_DEL_EXPIRE);
    report<Detail>("app_type : %s\n", apply_type);
    (void)end_rewrite<SPolicy__Apply>(ctx, apply_type, "Expire del apply fail.\n");
    return end_rewrite<SPolicy__ApplyPsta>(ctx, apply_type, "Expire del apply pstate fail.\n");
}

} // extern "C"
