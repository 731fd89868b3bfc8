// ACL operations: written synchronously, answered by the store alone.
#include "../list.hpp"
#include "operations.hpp"
#include "store_record.hpp"

#include <cstdlib>
#include <plx/diag.h>

namespace plx::mgr {
namespace {

// Caches a new ACL, or brings a cached one up to date; its ACEs and applies stay.
[[nodiscard]] int32_t cache(const fp_udp_acl_info &acl)
{
    fp_udp_acl_node *node = nullptr;
    if (fp_udp_acldb_get_acl(&acl, &node) != FP_UDP_OK)
        return fp_udp_acldb_add_acl(&acl);
    node->acl = acl;
    return FP_UDP_OK;
}

[[nodiscard]] int write(void *ctx, const fp_udp_acl &acl, uint64_t request_id)
{
    store_record<SPolicy__Acl> record;
    record.key.t_app_type = field_text(acl.app_type);
    record.key.acl_id = acl.acl_id;
    record.values.acl_cls = acl.acl_cls;
    record.values.c_status = 0;
    record.values.req_uuid = request_id;
    record.values.priv = field_bytes(acl.priv);
    return record.write(ctx);
}

// What was collected comes before a change of an ACL, and what was read of ACLs no longer holds.
void settle()
{
    (void)bulk::settle();
    bulk::forget_classes();
}

[[nodiscard]] int32_t report_failed(void *ctx, const fp_udp_acl &acl, const fp_udp_acl_info &info, int32_t result)
{
    fp_udp_log_op_acl(&info, nullptr, acl.priv, FP_UDP_OP_FAIL);
    return para.handler.set_acl_fail_cb(ctx, &acl, result, acl.priv);
}

} // namespace

int32_t fp_get_acl_cls(void *ctx, uint32_t db, const char *app_type, uint32_t acl_id, uint8_t *acl_cls)
{
    if (app_type == nullptr || acl_cls == nullptr || (db & ~security_db) != 0) {
        report<Error>("invalid param acl_cls:%p app_type:%p db:%d", acl_cls, app_type, db);
        return FP_UDP_INVALID;
    }
    if (tq_mom_state_get(ctx, db, 0) != 0)
        report<Error>("warning! db:%d not connected", db);
    store_record<SPolicy__Acl> record;
    record.key.t_app_type = field_text(app_type);
    record.key.acl_id = acl_id;
    const store_result result(record.read(ctx, db));
    if (!result.answered()) {
        report<Error>("hgetall ret is null. app:%s acl:%d", app_type, acl_id);
        return FP_UDP_READ_FAILED;
    }
    if (result.status() != 0) {
        report<Error>("hgetall failed. app:%s acl:%d", app_type, acl_id);
        return FP_UDP_READ_FAILED;
    }
    const auto *found = result.record<SPolicy__Acl>();
    if (found == nullptr) {
        report<Error>("acl entry is empty app:%s acl:%d", app_type, acl_id);
        return FP_UDP_NOT_FOUND;
    }
    *acl_cls = static_cast<uint8_t>(found->acl_cls);
    return FP_UDP_OK;
}

} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_set_acl(void *ctx, const fp_udp_acl *acl)
{
    if (!valid(acl))
        return refuse_name();
    fp_udp_acl_info info = acl_descriptor(acl->app_type, acl->acl_id);
    settle();
    fp_udp_log_op_acl(&info, nullptr, acl->priv, FP_UDP_OP_ADD);
    report<Detail>("acl info, app_type : %s, acl_id : %d, acl_cls : %d\n", acl->app_type, acl->acl_id, acl->acl_cls);
    info.uuid = new_request_id();
    std::memcpy(info.priv, acl->priv, sizeof info.priv);

    // Without a fail callback the write is still made.
    const int32_t cached = cache(info);
    if (cached != FP_UDP_OK && para.handler.set_acl_fail_cb != nullptr)
        return report_failed(ctx, *acl, info, cached);

    if (const int rv = write(ctx, *acl, info.uuid); rv != 0) {
        report<Error>("acl entry hmset failed.\n");
        const int32_t removed = fp_udp_acldb_del_acl(&info);
        return para.handler.set_acl_fail_cb == nullptr ? removed : report_failed(ctx, *acl, info, rv);
    }
    if (para.handler.set_acl_ok_cb == nullptr)
        return FP_UDP_OK;
    fp_udp_log_op_acl(&info, nullptr, acl->priv, FP_UDP_OP_SUCCESS);
    return para.handler.set_acl_ok_cb(ctx, acl, acl->priv);
}

int32_t fp_udp_del_acl(void *ctx, const fp_udp_acl_key *key)
{
    if (!valid(key))
        return refuse_name();
    const fp_udp_acl_info info = acl_descriptor(key->app_type, key->acl_id);
    settle();
    fp_udp_log_op_acl(&info, nullptr, nullptr, FP_UDP_OP_DEL);
    report<Detail>("acl key, app_type : %s, acl_id : %d\n", info.app_type, info.acl_id);

    store_record<SPolicy__Acl> record;
    fill(record.key, info);
    if (record.del(ctx) != 0)
        report<Error>("acl entry del failed.\n");
    return fp_udp_acldb_del_acl(&info);
}

int32_t fp_udp_expire_acl(void *ctx, const char *app_type)
{
    if (!valid(app_type))
        return refuse_name();
    fp_udp_log_op_acl(nullptr, app_type, nullptr, FP_UDP_OP_EXPIRE);
    report<Detail>("app_type : %s\n", app_type);
    return begin_rewrite<SPolicy__Acl>(ctx, app_type, "Expire acl fail.\n");
}

int32_t fp_udp_del_expire_acl(void *ctx, const char *app_type)
{
    if (!valid(app_type))
        return refuse_name();
    fp_udp_log_op_acl(nullptr, app_type, nullptr, FP_UDP_OP_DEL_EXPIRE);
    report<Detail>("app_type : %s\n", app_type);
    return end_rewrite<SPolicy__Acl>(ctx, app_type, "Expire del acl fail.\n");
}

uint64_t *fp_udp_iterator_ace(void *, const fp_udp_acl_key *key, uint64_t **sn, uint32_t *count)
{
    if (sn == nullptr || count == nullptr)
        return nullptr;
    *sn = nullptr;
    *count = 0;
    if (!valid(key)) {
        (void)refuse_name(); // a list has no code
        return nullptr;
    }
    const fp_udp_acl_info info = acl_descriptor(key->app_type, key->acl_id);
    (void)bulk::settle();
    fp_udp_log_op_acl(&info, nullptr, nullptr, FP_UDP_OP_ITERATE);
    report<Detail>("acl key, app_type : %s, acl_id : %d\n", info.app_type, info.acl_id);

    fp_udp_acl_node *node = nullptr;
    if (fp_udp_acldb_get_acl(&info, &node) != FP_UDP_OK) {
        report<Detail>("acl not exist.");
        return nullptr;
    }
    auto *numbers = static_cast<uint64_t *>(std::malloc(size_t{node->ace_count} * sizeof(uint64_t)));
    if (numbers == nullptr) {
        report<Error>("acl get ace sn malloc fail.\n");
        return nullptr;
    }
    uint32_t listed = 0;
    for (const fp_udp_ace_node &ace : plx::elements<fp_udp_ace_node>(node->ace_list))
        if (listed < node->ace_count)
            numbers[listed++] = ace.ace.sn;
    *sn = numbers;
    *count = node->ace_count;
    return numbers;
}

int32_t fp_udp_get_acl_cls(void *ctx, int32_t acl_id, uint8_t *acl_cls)
{
    const int32_t rv = fp_get_acl_cls(ctx, security_db, security_app, static_cast<uint32_t>(acl_id), acl_cls);
    if (rv != FP_UDP_OK)
        report<Error>("udp db failed to get security acl_cls! app:%s acl:%d", security_app, acl_id);
    return rv;
}

} // extern "C"
