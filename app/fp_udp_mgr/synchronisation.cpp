// Start-up scan and change handlers, for "security_app" in database 8 alone.
//
// Nothing is written to the store from here, and a scan only adds to the cache. Records are others' work: a key may be
// missing, its name missing or of any length.
#include "synchronisation.hpp"

#include "history.hpp"
#include "store_record.hpp"

namespace plx::mgr {
namespace {

constexpr int32_t not_cached = 1; // what a scan entry answers to a record that it cannot read

enum class Cache { Remove, Add };

bool readable(const tq_mom_notification &notification)
{
    return notification.record != nullptr && notification.result == 0;
}

[[nodiscard]] int32_t fp_udp_cache_acl(const SPolicy__AclKey &key, Cache how)
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

[[nodiscard]] int32_t fp_udp_cache_ace(const SPolicy__AceKey &key, bool default_ace, Cache how)
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
[[nodiscard]] int32_t fp_udp_acl_info_add(const SPolicy__AceKey &key)
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
[[nodiscard]] int32_t cache_ace_and_acl(const SPolicy__Ace &record)
{
    const bool is_default = record.default_ace != 0;
    const int32_t rv = fp_udp_cache_ace(*record.index, is_default, Cache::Add);
    if (rv != FP_UDP_NOT_FOUND)
        return rv;
    if (fp_udp_acl_info_add(*record.index) != FP_UDP_OK)
        return FP_UDP_REFUSED;
    return fp_udp_cache_ace(*record.index, is_default, Cache::Add);
}

// The two tables that are followed: what is done with their records, who is told, and what is said.
struct acls {
    using record = SPolicy__Acl;
    static constexpr char scan_label[] = "scan acl";
    static constexpr diag::text<> scan_failed = "scan acl entry fail.\n";
    static constexpr char data_check[] = "fp_udp_acl_data_check";
    static constexpr char change_handler[] = "acl_notify_call_back";

    static int32_t add(const record &acl) { return fp_udp_cache_acl(*acl.index, Cache::Add); }
    static int32_t remove(const record &acl) { return fp_udp_cache_acl(*acl.index, Cache::Remove); }
    static void tell(void *ctx, const fp_udp_acl_info &acl, const record &, int32_t kind)
    {
        if (para.handler.acl_change_cb != nullptr)
            para.handler.acl_change_cb(ctx, &acl, kind);
    }
};

struct aces {
    using record = SPolicy__Ace;
    static constexpr char scan_label[] = "scan ace";
    static constexpr diag::text<> scan_failed = "scan ace entry fail.\n";
    static constexpr char data_check[] = "fp_udp_ace_data_check";
    static constexpr char change_handler[] = "ace_notify_call_back";

    static int32_t add(const record &ace) { return cache_ace_and_acl(ace); }
    static int32_t remove(const record &ace) { return fp_udp_cache_ace(*ace.index, false, Cache::Remove); }
    static void tell(void *ctx, const fp_udp_acl_info &acl, const record &ace, int32_t kind)
    {
        if (para.handler.ace_change_cb != nullptr)
            para.handler.ace_change_cb(ctx, &acl, ace.index->sn, kind);
    }
};

template <class Table> int32_t scan_entry(void *, const tq_mom_notification *entry, void *)
{
    if (entry == nullptr || entry->event != TQ_MOM_EVENT_SET)
        return FP_UDP_OK;
    const auto *record = readable(*entry) ? keyed_record<typename Table::record>(entry->record) : nullptr;
    return record == nullptr ? not_cached : Table::add(*record);
}

// Scans the records of the security application in database 8.
template <class Table> void scan(void *ctx, tq_mom_callback entry, diag::place at)
{
    store_record<typename Table::record> record;
    select(record.key, security_app);
    if (tq_mom_scan_sync(ctx, security_db, record.message(), SelectAppType, entry,
                         const_cast<char *>(Table::scan_label)) != 0)
        report<Error>(at, Table::scan_failed);
}

// A set or deletion that another made: what the change handlers act on.
bool is_foreign_change(const tq_mom_notification &notification)
{
    return (notification.event == TQ_MOM_EVENT_SET || notification.event == TQ_MOM_EVENT_DELETED) &&
           notification.flag != 1;
}

template <class Table> [[nodiscard]] int32_t on_change(void *ctx, const tq_mom_notification &notification)
{
    const bool set = notification.event == TQ_MOM_EVENT_SET;
    const auto *record = keyed_record<typename Table::record>(notification.record);
    if (record == nullptr || (set && notification.result != 0)) {
        if (set)
            report<Error>(diag::place{Table::change_handler, __LINE__}, "Hash error happen\n");
        return FP_UDP_OK;
    }
    const int32_t rv = set ? Table::add(*record) : Table::remove(*record);
    if (rv == FP_UDP_INVALID || rv == FP_UDP_REFUSED)
        return rv;
    const fp_udp_acl_info acl = acl_descriptor(record->index->t_app_type, record->index->acl_id);
    Table::tell(ctx, acl, *record, set ? FP_UDP_CHANGE_SET : FP_UDP_CHANGE_DELETED);
    return FP_UDP_OK;
}

template <class Table> int32_t notify_call_back(void *ctx, const tq_mom_notification *notification, void *)
{
    if (notification == nullptr)
        return FP_UDP_OK;
    note_history(ctx, *notification);
    // The store may have lost changes: every record comes here again.
    if (notification->event == TQ_MOM_EVENT_RESYNC)
        scan<Table>(ctx, notify_call_back<Table>, {Table::data_check, __LINE__});
    return is_foreign_change(*notification) ? on_change<Table>(ctx, *notification) : FP_UDP_OK;
}

// A subscription that the store refuses does not stop a registration; the next registration makes it again.
template <class Table> void subscribe(void *ctx)
{
    store_record<typename Table::record> record;
    select(record.key, security_app);
    (void)tq_mom_subscribe(ctx, security_db, record.message(), SelectAppType, notify_call_back<Table>, nullptr);
}

} // namespace

void fp_udp_cache_all_secu_acl_info(void *ctx)
{
    // ACLs first, so that ACEs normally find theirs.
    scan<acls>(ctx, scan_entry<acls>, {__func__, __LINE__});
    scan<aces>(ctx, scan_entry<aces>, {__func__, __LINE__});
}

void subscribe_acl_changes(void *ctx)
{
    subscribe<acls>(ctx);
}

void subscribe_ace_changes(void *ctx)
{
    subscribe<aces>(ctx);
}

} // namespace plx::mgr
