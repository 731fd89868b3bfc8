// Port and interface state: settings that the store's answer settles, without a pending request.
//
// A port disable, an uplink and the SVI router are each a setting, whose record's presence is the state, with a status
// record that every write resets and every removal deletes. Both records are always tried, and each failure has its own
// text.
#include "operations.hpp"
#include "store_record.hpp"

namespace plx::mgr {
namespace {

constexpr uint32_t max_acl_cls = 6;

struct results {
    int setting;
    int status;
};

template <class Setting, class Status>
[[nodiscard]] results write_both(void *ctx, const store_record<Setting> &setting, const store_record<Status> &status,
                                 diag::text<> setting_failed, diag::text<> status_failed)
{
    results rv = {setting.write(ctx), 0};
    if (rv.setting != 0)
        report<Error>(setting_failed);
    rv.status = status.write(ctx);
    if (rv.status != 0)
        report<Error>(status_failed);
    return rv;
}

// The result of a removal is that of the status record's.
template <class Setting, class Status>
[[nodiscard]] int32_t del_both(void *ctx, const store_record<Setting> &setting, const store_record<Status> &status,
                               diag::text<> setting_failed, diag::text<> status_failed)
{
    if (setting.del(ctx) != 0)
        report<Error>(setting_failed);
    const int rv = status.del(ctx);
    if (rv != 0)
        report<Error>(status_failed);
    return rv;
}

// Tells the application what became of the setting; without the callback the result is the status record's.
template <class Ok, class Fail> [[nodiscard]] int32_t answer(results rv, bool has_ok, Ok ok, bool has_fail, Fail fail)
{
    if (rv.setting != 0)
        return has_fail ? fail(rv.setting) : rv.status;
    return has_ok ? ok() : rv.status;
}

// Brackets the rewrite of a whole setting table and its status table; the result is the second call's.
template <class Setting, class Status>
[[nodiscard]] int32_t begin_both(void *ctx, diag::text<> setting_failed, diag::text<> status_failed)
{
    (void)store_record<Setting>().begin_rewrite(ctx, SelectAll, setting_failed);
    return store_record<Status>().begin_rewrite(ctx, SelectAll, status_failed);
}

template <class Setting, class Status>
[[nodiscard]] int32_t end_both(void *ctx, diag::text<> setting_failed, diag::text<> status_failed)
{
    (void)store_record<Setting>().end_rewrite(ctx, SelectAll, setting_failed);
    return store_record<Status>().end_rewrite(ctx, SelectAll, status_failed);
}

struct port_off_records {
    store_record<SPolicy__PortOff> setting;
    store_record<SPolicy__PortOffPsta> status;
    explicit port_off_records(uint32_t phyid) { setting.key.phyid = status.key.phyid = phyid; }
};

struct uplink_records {
    store_record<SPolicy__Uplink> setting;
    store_record<SPolicy__UplinkPsta> status;
    explicit uplink_records(const fp_udp_uplink &uplink)
    {
        setting.key.phyid = status.key.phyid = uplink.phyid;
        setting.key.type = status.key.type = uplink.type;
    }
};

void set_uplink(void *ctx, const fp_udp_uplink &uplink, uplink_records &records)
{
    records.setting.values.req_uuid = new_request_id();
    records.setting.values.priv = field_bytes(uplink.priv);
    // One text for both failures: log readers know no other for the uplink's status.
    const results rv =
        write_both(ctx, records.setting, records.status, {"uplink entry hmset failed.\n", "fp_udp_uplink_enable"},
                   {"uplink entry hmset failed.\n", "fp_udp_uplink_enable"});
    const auto &handler = para.handler;
    // The operation returns nothing.
    (void)answer(
        rv, handler.uplink_ok_cb != nullptr,
        [&] { return handler.uplink_ok_cb(ctx, uplink.phyid, uplink.type, uplink.priv); },
        handler.uplink_fail_cb != nullptr,
        [&](int result) { return handler.uplink_fail_cb(ctx, uplink.phyid, uplink.type, result, uplink.priv); });
}

[[nodiscard]] int32_t set_svi_router(void *ctx, const uint8_t *priv)
{
    static const uint8_t no_priv[FP_UDP_PORT_PRIV_SIZE] = {};
    store_record<SPolicy__SviRouter> setting;
    const store_record<SPolicy__SviRouterPsta> status;
    setting.values.req_uuid = new_request_id();
    setting.values.priv = {FP_UDP_PORT_PRIV_SIZE, const_cast<uint8_t *>(priv == nullptr ? no_priv : priv)};
    const results rv =
        write_both(ctx, setting, status, {"svi router entry hmset failed.\n", "fp_udp_svi_router_enable"},
                   {"svi router pstate entry hmset failed.\n", "fp_udp_svi_router_enable"});
    const auto &handler = para.handler;
    return answer(
        rv, handler.svi_router_ok_cb != nullptr, [&] { return handler.svi_router_ok_cb(ctx, priv); },
        handler.svi_router_fail_cb != nullptr,
        [&](int result) { return handler.svi_router_fail_cb(ctx, result, priv); });
}

// The parameters of a port binding: 0, or -4 reported as the calling operation.
[[nodiscard]] int32_t check_binding(const char *app_type, uint32_t acl_cls, uint32_t bind_type,
                                    const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    if (!valid(app_type))
        return refuse_name(function, line);
    if (bind_type >= S_POLICY__BIND_TYPE_T__BIND_TYPE_PORT && bind_type <= S_POLICY__BIND_TYPE_T__BIND_TYPE_LIF &&
        acl_cls <= max_acl_cls)
        return FP_UDP_OK;
    report<Error>(diag::place{function, line}, "error paras acl_cls: %d, bind_type: %d.\n", acl_cls, bind_type);
    return FP_UDP_INVALID;
}

void fill(SPolicy__PortBindinfoKey &key, const char *app_type, uint32_t acl_cls, uint32_t phyid, uint32_t bind_type,
          uint32_t bind_id)
{
    key.app_type = field_text(app_type);
    key.acl_cls = acl_cls;
    key.phyid = phyid;
    key.bind_type = bind_type;
    key.bind_id = bind_id;
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" {

int32_t fp_udp_set_port_disable(void *ctx, uint32_t phyid)
{
    report<Detail>("port off, phyid : 0x%x\n", phyid);
    port_off_records records(phyid);
    records.setting.values.req_uuid = new_request_id();
    const results rv = write_both(ctx, records.setting, records.status, "port disable hmset failed.\n",
                                  "port disable pstate hmset failed.\n");
    const auto &handler = para.handler;
    return answer(
        rv, handler.port_disable_ok_cb != nullptr, [&] { return handler.port_disable_ok_cb(ctx, phyid); },
        handler.port_disable_fail_cb != nullptr,
        [&](int result) { return handler.port_disable_fail_cb(ctx, phyid, result); });
}

int32_t fp_udp_del_port_disable(void *ctx, uint32_t phyid)
{
    report<Detail>("port off del, phyid : 0x%x\n", phyid);
    const port_off_records records(phyid);
    return del_both(ctx, records.setting, records.status, "port disable del failed.\n",
                    "port disable pstate del failed.\n");
}

int32_t fp_udp_svi_router_enable(void *ctx, const uint8_t *priv, uint32_t enable)
{
    report<Detail>("svi router enable : %d\n", enable);
    if (enable != 0)
        return set_svi_router(ctx, priv);
    return del_both(ctx, store_record<SPolicy__SviRouter>(), store_record<SPolicy__SviRouterPsta>(),
                    "svi router entry del failed.\n", "svi router pstate entry del failed.\n");
}

int32_t fp_udp_expire_svi_router_enable(void *ctx)
{
    return begin_both<SPolicy__SviRouter, SPolicy__SviRouterPsta>(ctx, "Expire svi router fail.\n",
                                                                  "Expire svi router pstate fail.\n");
}

int32_t fp_udp_del_expire_svi_router_enable(void *ctx)
{
    return end_both<SPolicy__SviRouter, SPolicy__SviRouterPsta>(ctx, "Expire del svi router fail.\n",
                                                                "Expire del svi router pstate fail.\n");
}

void fp_udp_uplink_enable(void *ctx, const fp_udp_uplink *uplink, uint32_t enable)
{
    if (uplink == nullptr) {
        report<Error>("uplink enable invalid para.\n");
        return;
    }
    report<Detail>("uplink info, phyid : 0x%x, type : %d\n", uplink->phyid, uplink->type);
    uplink_records records(*uplink);
    if (enable != 0)
        set_uplink(ctx, *uplink, records);
    else
        (void)del_both(ctx, records.setting, records.status, "uplink entry del failed.\n",
                       "uplink pstate entry del failed.\n");
}

int32_t fp_udp_expire_uplink(void *ctx)
{
    return begin_both<SPolicy__Uplink, SPolicy__UplinkPsta>(ctx, "Expire uplink fail.\n",
                                                            "Expire uplink pstate fail.\n");
}

int32_t fp_udp_del_expire_uplink(void *ctx)
{
    return end_both<SPolicy__Uplink, SPolicy__UplinkPsta>(ctx, "Expire del uplink fail.\n",
                                                          "Expire del uplink pstate fail.\n");
}

int32_t fp_udp_set_port_bindinfo(void *ctx, const char *app_type, uint32_t acl_cls, uint32_t phyid, uint32_t bind_type,
                                 uint32_t bind_id)
{
    if (const int32_t rv = check_binding(app_type, acl_cls, bind_type); rv != FP_UDP_OK)
        return rv;
    report<Detail>("port bindinfo, app_type: %s, acl_cls: %d, phyid: 0x%x, bind_type: %d, bind_ind: %d.\n", app_type,
                   acl_cls, phyid, bind_type, bind_id);
    store_record<SPolicy__PortBindinfo> record;
    fill(record.key, app_type, acl_cls, phyid, bind_type, bind_id);
    record.values.req_uuid = new_request_id();
    const int rv = record.write_whole(ctx);
    if (rv != 0)
        report<Error>("port bindinfo set failed, rv: %d, db: %d.\n", rv, para.db);
    return rv;
}

int32_t fp_udp_del_port_bindinfo(void *ctx, const char *app_type, uint32_t acl_cls, uint32_t phyid, uint32_t bind_type,
                                 uint32_t bind_id)
{
    if (const int32_t rv = check_binding(app_type, acl_cls, bind_type); rv != FP_UDP_OK)
        return rv;
    // The last two stand in the other's place here: log readers match these lines as they are.
    report<Detail>("port bindinfo, app_type: %s, acl_cls: %d, phyid: 0x%x, bind_type: %d, bind_ind: %d.\n", app_type,
                   acl_cls, phyid, bind_id, bind_type);
    store_record<SPolicy__PortBindinfo> record;
    fill(record.key, app_type, acl_cls, phyid, bind_type, bind_id);
    const int rv = record.del(ctx);
    if (rv != 0)
        report<Error>("port bindinfo del failed, rv: %d, db: %d.\n", rv, para.db);
    return rv;
}

} // extern "C"
