// Start-up scan and change handlers, for "security_app" in database 8 alone.
//
// Nothing is written to the store from here, and a scan only adds to the cache. Records are others' work: a key may be
// missing, its name missing or of any length.
#include "synchronisation.hpp"
#include "store_record.hpp"

namespace plx::mgr {
namespace {

constexpr int32_t not_cached = 1; // what a scan entry answers to a record that it cannot read

enum class Cache { Remove, Add };

bool readable(const tq_mom_notification &notification)
{
    return notification.record != nullptr && notification.result == 0;
}

int32_t fp_udp_cache_acl(const SPolicy__AclKey &key, Cache how)
{
    if (!valid(key.t_app_type))
        return refuse_name();
    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    if (how == Cache::Remove) {
        fp_udp_acldb_del_acl(&acl);
        return FP_UDP_OK;
    }
    fp_udp_acl_node *node = nullptr;
    if (fp_udp_acldb_get_acl(&acl, &node) != FP_UDP_OK && fp_udp_acldb_add_acl(&acl) != FP_UDP_OK)
        report<Error>("udp add acl to db fail");
    return FP_UDP_OK;
}

int32_t fp_udp_cache_ace(const SPolicy__AceKey &key, bool default_ace, Cache how)
{
    if (!valid(key.t_app_type))
        return refuse_name();
    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    fp_udp_ace_info ace = ace_descriptor(key.sn);
    ace.def = default_ace ? 1 : 0;
    if (how == Cache::Remove) {
        fp_udp_acldb_del_ace(&acl, &ace);
        return FP_UDP_OK;
    }
    fp_udp_ace_node *node = nullptr;
    if (fp_udp_acldb_get_ace(&acl, &ace, &node) == FP_UDP_OK)
        return FP_UDP_OK;
    const int32_t rv = fp_udp_acldb_add_ace(&acl, &ace, &node);
    if (rv != FP_UDP_OK)
        report<Error>("udp add ace to db fail");
    return rv;
}

// Makes the ACL that an ACE names.
int32_t fp_udp_acl_info_add(const SPolicy__AceKey &key)
{
    if (!valid(key.t_app_type))
        return refuse_name();
    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    const int32_t rv = fp_udp_acldb_add_acl(&acl);
    if (rv != FP_UDP_OK)
        report<Error>("udp add acl to db fail");
    return rv;
}

// Caches an ACE, with its ACL where that is not in the store.
int32_t cache_ace_and_acl(const SPolicy__Ace &record)
{
    const bool is_default = record.default_ace != 0;
    const int32_t rv = fp_udp_cache_ace(*record.index, is_default, Cache::Add);
    if (rv != FP_UDP_NOT_FOUND)
        return rv;
    if (fp_udp_acl_info_add(*record.index) != FP_UDP_OK)
        return FP_UDP_REFUSED;
    return fp_udp_cache_ace(*record.index, is_default, Cache::Add);
}

int32_t acl_scan_entry(void *, const tq_mom_notification *entry, void *)
{
    if (entry == nullptr || entry->event != TQ_MOM_EVENT_SET)
        return FP_UDP_OK;
    const auto *record = readable(*entry) ? keyed_record<SPolicy__Acl>(entry->record) : nullptr;
    return record == nullptr ? not_cached : fp_udp_cache_acl(*record->index, Cache::Add);
}

int32_t ace_scan_entry(void *, const tq_mom_notification *entry, void *)
{
    if (entry == nullptr || entry->event != TQ_MOM_EVENT_SET)
        return FP_UDP_OK;
    const auto *record = readable(*entry) ? keyed_record<SPolicy__Ace>(entry->record) : nullptr;
    return record == nullptr ? not_cached : cache_ace_and_acl(*record);
}

// The records of the security application in database 8, of one table.
template <class Message> int scan(void *ctx, tq_mom_callback entry, const char *label)
{
    store_record<Message> record;
    select(record.key, security_app);
    return tq_mom_scan_sync(ctx, security_db, record.message(), SelectAppType, entry, const_cast<char *>(label));
}

template <class Message> void subscribe(void *ctx, tq_mom_callback cb)
{
    store_record<Message> record;
    select(record.key, security_app);
    tq_mom_subscribe(ctx, security_db, record.message(), SelectAppType, cb, nullptr);
}

int32_t acl_notify_call_back(void *ctx, const tq_mom_notification *notification, void *arg);
int32_t ace_notify_call_back(void *ctx, const tq_mom_notification *notification, void *arg);

// The store may have lost changes: every record passes the change handler again.
int32_t fp_udp_acl_data_check(void *ctx)
{
    if (scan<SPolicy__Acl>(ctx, acl_notify_call_back, "scan acl") != 0)
        report<Error>("scan acl entry fail.\n");
    return FP_UDP_OK;
}

int32_t fp_udp_ace_data_check(void *ctx)
{
    if (scan<SPolicy__Ace>(ctx, ace_notify_call_back, "scan ace") != 0)
        report<Error>("scan ace entry fail.\n");
    return FP_UDP_OK;
}

// A set or deletion that another made: what the change handlers act on.
bool is_foreign_change(const tq_mom_notification &notification)
{
    return (notification.event == TQ_MOM_EVENT_SET || notification.event == TQ_MOM_EVENT_DELETED) &&
           notification.flag != 1;
}

int32_t change_kind(const tq_mom_notification &notification)
{
    return notification.event == TQ_MOM_EVENT_SET ? FP_UDP_CHANGE_SET : FP_UDP_CHANGE_DELETED;
}

int32_t acl_notify_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr)
        return FP_UDP_OK;
    if (notification->event == TQ_MOM_EVENT_RESYNC)
        return fp_udp_acl_data_check(ctx);
    if (!is_foreign_change(*notification))
        return FP_UDP_OK;
    const bool set = notification->event == TQ_MOM_EVENT_SET;
    const auto *record = keyed_record<SPolicy__Acl>(notification->record);
    if (record == nullptr || (set && notification->result != 0)) {
        if (set)
            report<Error>("Hash error happen\n");
        return FP_UDP_OK;
    }
    const SPolicy__AclKey &key = *record->index;
    if (const int32_t rv = fp_udp_cache_acl(key, set ? Cache::Add : Cache::Remove); rv == FP_UDP_INVALID)
        return rv;
    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    if (para.handler.acl_change_cb != nullptr)
        para.handler.acl_change_cb(ctx, &acl, change_kind(*notification));
    return FP_UDP_OK;
}

int32_t ace_notify_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr)
        return FP_UDP_OK;
    if (notification->event == TQ_MOM_EVENT_RESYNC)
        return fp_udp_ace_data_check(ctx);
    if (!is_foreign_change(*notification))
        return FP_UDP_OK;
    const bool set = notification->event == TQ_MOM_EVENT_SET;
    const auto *record = keyed_record<SPolicy__Ace>(notification->record);
    if (record == nullptr || (set && notification->result != 0)) {
        if (set)
            report<Error>("Hash error happen\n");
        return FP_UDP_OK;
    }
    const SPolicy__AceKey &key = *record->index;
    const int32_t rv = set ? cache_ace_and_acl(*record) : fp_udp_cache_ace(key, false, Cache::Remove);
    if (rv == FP_UDP_INVALID || rv == FP_UDP_REFUSED)
        return rv;
    const fp_udp_acl_info acl = acl_descriptor(key.t_app_type, key.acl_id);
    if (para.handler.ace_change_cb != nullptr)
        para.handler.ace_change_cb(ctx, &acl, key.sn, change_kind(*notification));
    return FP_UDP_OK;
}

} // namespace

void fp_udp_cache_all_secu_acl_info(void *ctx)
{
    // ACLs first, so that ACEs normally find theirs.
    if (scan<SPolicy__Acl>(ctx, acl_scan_entry, "scan acl") != 0)
        report<Error>("scan acl entry fail.\n");
    if (scan<SPolicy__Ace>(ctx, ace_scan_entry, "scan ace") != 0)
        report<Error>("scan ace entry fail.\n");
}

void subscribe_acl_changes(void *ctx)
{
    subscribe<SPolicy__Acl>(ctx, acl_notify_call_back);
}

void subscribe_ace_changes(void *ctx)
{
    subscribe<SPolicy__Ace>(ctx, ace_notify_call_back);
}

} // namespace plx::mgr
