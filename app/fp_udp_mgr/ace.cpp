// ACE operations: cached, written, and, where the forwarding plane has to confirm, handed to the request tracker.
//
// A failed write removes the ACE from the cache, also one that was there before. The outcome of a tracked write comes
// later, from the event loop; an ACE that no port uses needs no confirmation and is answered at once.
#include "../fp_udp_req_mng/kinds.hpp"
#include "../list.hpp"
#include "operations.hpp"
#include "store_record.hpp"

#include <cstdlib>
#include <plx/diag.h>
#include <plx/request.h>

namespace plx::mgr {
namespace {

// Caches a new ACE, or starts a cached one over; that one keeps its `def`. The node, or null and the reason in *rv.
fp_udp_ace_node *cache(const fp_udp_acl_info &acl, const fp_udp_ace_info &info, int32_t *rv)
{
    fp_udp_ace_node *node = nullptr;
    if (fp_udp_acldb_get_ace(&acl, &info, &node) != FP_UDP_OK) {
        *rv = fp_udp_acldb_add_ace(&acl, &info, &node);
        return *rv == FP_UDP_OK ? node : nullptr;
    }
    start_over(node->ace, info);
    return node;
}

void settle_ace(void *ctx, const bulk::call &made, int result);

bulk::call made_of(const fp_udp_acl_info &acl, uint64_t sn, decltype(bulk::call::settle) settle)
{
    bulk::call made = {settle, {}, {}, sn, 0, 0};
    std::memcpy(made.acl.app_type, acl.app_type, sizeof made.acl.app_type);
    made.acl.acl_id = acl.acl_id;
    return made;
}

[[nodiscard]] int write(void *ctx, const fp_udp_acl_info &acl, const fp_udp_ace &ace, uint64_t request_id,
                        bool *collected)
{
    bulk::call made = made_of(acl, ace.sn, settle_ace);
    made.ace_pri = ace.ace_pri;
    made.uuid = request_id;
    store_record<SPolicy__Ace> record;
    fill(record.key, acl, ace.sn);
    record.values.value = field_bytes(ace.tlv);
    record.values.c_status = 0;
    record.values.req_uuid = request_id;
    record.values.default_ace = ace.default_ace != 0 ? 1 : 0;
    record.values.priv = field_bytes(ace.priv);
    record.values.ace_pri = ace.ace_pri;
    return record.write(ctx, made, collected);
}

// Only the security application's ACLs are in force without being applied to a port.
bool needs_confirmation(const fp_udp_acl_info &acl)
{
    if (std::strcmp(acl.app_type, security_app) == 0)
        return true;
    fp_udp_acl_node *owner = nullptr;
    return fp_udp_acldb_get_acl(&acl, &owner) == FP_UDP_OK && !list::empty(owner->apply_list);
}

// A write that went to the store, or should have.
struct written {
    void *ctx;
    const fp_udp_acl_info &acl;
    uint64_t sn;
    const uint8_t *priv;
    uint64_t ace_pri;
};

// Tells the application of a write that failed; without a callback the operation's result is `fallback`. The callback
// may free the entry.
[[nodiscard]] int32_t fail(const written &ace, int32_t fallback, int32_t result,
                           const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    (void)bulk::settle(); // what came before is told before
    bulk::note(result);
    ++counters.ace.failed_at_once;
    if (para.handler.ace_fail_cb == nullptr)
        return fallback;
    fp_udp_log_op_ace(&ace.acl, &ace.sn, nullptr, ace.priv, &ace.ace_pri, FP_UDP_OP_FAIL);
    const int32_t answer = para.handler.ace_fail_cb(ace.ctx, &ace.acl, ace.sn, result, ace.priv);
    report<Error>(diag::place{function, line}, "plx reply set ace fail, app_type : %s, acl_id : %d, sn : %llx\n",
                  ace.acl.app_type, ace.acl.acl_id, ace.sn);
    return answer;
}

// Goes on from a write that reached the store: waits for the forwarding plane, or answers at once.
[[nodiscard]] int32_t track(const written &ace, fp_udp_ace_node *node, bool *waits)
{
    *waits = false;
    if (para.handler.ace_reply_ok_cb == nullptr)
        return FP_UDP_OK;
    fp_udp_log_op_ace(&ace.acl, &ace.sn, nullptr, ace.priv, &ace.ace_pri, FP_UDP_OP_SUCCESS);
    *waits = needs_confirmation(ace.acl);
    if (*waits)
        return fp_udp_req_node_add(FP_UDP_REQ_ACE, node);
    // An earlier write that was still waited for is answered by this.
    fp_udp_req_node_del(FP_UDP_REQ_ACE, node);
    node->ace.is_req = 1;
    ++counters.ace.ok_at_once;
    return para.handler.ace_reply_ok_cb(ace.ctx, &ace.acl, ace.sn, ace.priv);
}

// Goes on from a collected write, unless the node was deleted or written again since, or a service node's answer was
// told already. What cannot be waited for has failed: there is no call left to tell it by.
void settle_ace(void *ctx, const bulk::call &made, int result)
{
    const fp_udp_acl_info acl = acl_descriptor(made.acl.app_type, made.acl.acl_id);
    const fp_udp_ace_info info = ace_descriptor(made.sn);
    fp_udp_ace_node *node = nullptr;
    if (fp_udp_acldb_get_ace(&acl, &info, &node) != FP_UDP_OK || node->ace.uuid != made.uuid || node->ace.is_req != 0)
        return;
    uint8_t priv[FP_UDP_PRIV_SIZE];
    std::memcpy(priv, node->ace.priv, sizeof priv);
    const written ace = {ctx, acl, made.sn, priv, made.ace_pri};
    if (result != 0) {
        report<Error>("ace entry hmset failed.\n");
        (void)fail(ace, fp_udp_acldb_del_ace(&acl, &info), result);
        return;
    }
    bool waits = false;
    const int32_t tracked = track(ace, node, &waits);
    if (waits && tracked != FP_UDP_OK) {
        node->ace.is_req = 1;
        (void)fail(ace, tracked, tracked);
    }
}

void settle_removal(void *, const bulk::call &, int result)
{
    if (result != 0)
        report<Error>("Del failed.\n");
}

// An ACE object made from a record. Its private bytes and priority are not read back.
fp_udp_ace *ace_of(const SPolicy__Ace &record, uint64_t sn, const char *function = __builtin_FUNCTION(),
                   int line = __builtin_LINE())
{
    fp_udp_ace *ace = fp_udp_alloc_ace(sn, record.default_ace != 0 ? 1 : 0);
    if (ace == nullptr)
        return nullptr;
    const size_t len = record.value.data == nullptr ? 0 : record.value.len;
    fp_udp_ace_tlv *tlv = resize_tlv(ace->tlv, len);
    if (tlv == nullptr) {
        report<Error>(diag::place{function, line}, "realloc ace memory fail for get ace.\n");
        fp_udp_free_ace(ace);
        return nullptr;
    }
    ace->tlv = tlv;
    tlv->len = static_cast<uint16_t>(len);
    if (len != 0)
        std::memcpy(tlv->data, record.value.data, len);
    return ace;
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_set_ace(void *ctx, const fp_udp_acl_key *key, const fp_udp_ace *ace)
{
    if (!valid(key))
        return refuse_name();
    if (ace == nullptr)
        return FP_UDP_INVALID;
    const fp_udp_acl_info acl = acl_descriptor(key->app_type, key->acl_id);
    bulk::make_room();
    fp_udp_log_op_ace(&acl, &ace->sn, nullptr, ace->priv, &ace->ace_pri, FP_UDP_OP_ADD);
    report<Detail>("ace info, app_type : %s, acl_id : %d, sn : %llx\n", acl.app_type, acl.acl_id, ace->sn);

    fp_udp_ace_info info = ace_descriptor(ace->sn);
    info.def = ace->default_ace;
    info.uuid = bulk::request_id();
    std::memcpy(info.priv, ace->priv, sizeof info.priv);

    const written call = {ctx, acl, ace->sn, ace->priv, ace->ace_pri};
    int32_t result = FP_UDP_OK;
    fp_udp_ace_node *node = cache(acl, info, &result);
    if (node == nullptr) {
        report<Impt>("get&add ace to acldb failed while set ace, rv:%d!\n", result);
        return fail(call, result, result);
    }
    bool collected = false;
    result = write(ctx, acl, *ace, info.uuid, &collected);
    if (result == 0)
        return collected ? FP_UDP_OK : track(call, node, &collected);
    report<Error>("ace entry hmset failed.\n");
    return fail(call, fp_udp_acldb_del_ace(&acl, &info), result);
}

int32_t fp_udp_delete_ace(void *ctx, const fp_udp_acl_key *key, uint64_t sn)
{
    if (!valid(key))
        return refuse_name();
    const fp_udp_acl_info acl = acl_descriptor(key->app_type, key->acl_id);
    bulk::make_room();
    fp_udp_log_op_ace(&acl, &sn, nullptr, nullptr, nullptr, FP_UDP_OP_DEL);
    report<Detail>("ace info, app_type : %s, acl_id : %d, sn : %lld\n", acl.app_type, acl.acl_id, sn);

    store_record<SPolicy__Ace> record;
    fill(record.key, acl, sn);
    if (record.del(ctx, made_of(acl, sn, settle_removal)) != 0)
        report<Error>("Del failed.\n");
    const fp_udp_ace_info info = ace_descriptor(sn);
    return fp_udp_acldb_del_ace(&acl, &info);
}

int32_t fp_udp_expire_ace(void *ctx, const char *app_type)
{
    if (!valid(app_type))
        return refuse_name();
    fp_udp_log_op_ace(nullptr, nullptr, app_type, nullptr, nullptr, FP_UDP_OP_EXPIRE);
    report<Detail>("app_type : %s\n", app_type);
    return begin_rewrite<SPolicy__Ace>(ctx, app_type, "Expire ace fail.\n");
}

int32_t fp_udp_del_expire_ace(void *ctx, const char *app_type)
{
    if (!valid(app_type))
        return refuse_name();
    fp_udp_log_op_ace(nullptr, nullptr, app_type, nullptr, nullptr, FP_UDP_OP_DEL_EXPIRE);
    report<Detail>("app_type : %s\n", app_type);
    return end_rewrite<SPolicy__Ace>(ctx, app_type, "Expire del ace fail.\n");
}

fp_udp_ace *fp_udp_get_ace(void *ctx, const fp_udp_acl_key *key, uint64_t sn)
{
    if (!valid(key)) {
        (void)refuse_name(); // an object has no code
        return nullptr;
    }
    const fp_udp_acl_info acl = acl_descriptor(key->app_type, key->acl_id);
    fp_udp_log_op_ace(&acl, &sn, nullptr, nullptr, nullptr, FP_UDP_OP_GET);
    report<Detail>("ace info, app_type : %s, acl_id : %d, sn : %lld\n", key->app_type, key->acl_id, sn);

    store_record<SPolicy__Ace> record;
    fill(record.key, acl, sn);
    const store_result result(record.read(ctx, security_db));
    if (!result.answered()) {
        report<Error>("Get ace entry by sn fail.\n");
        return nullptr;
    }
    if (result.status() != 0) {
        report<Error>("Get ace entry by sn error_code:%d.\n", result.status());
        return nullptr;
    }
    const auto *found = result.record<SPolicy__Ace>();
    if (found == nullptr) {
        report<Notice>("get ace found ace entry empty.\n");
        return nullptr;
    }
    return ace_of(*found, sn);
}

} // extern "C"
