// A store record with its key, for the time of one store call.
//
// store_record<SPolicy__Ace> starts both messages from their initial values and points the record at the key; an
// operation fills what it selects by or writes. Each record type's row below names its key message and the fields that
// a partial write sets. A record read back is looked at through record_cast, which trusts nothing about it. One that is
// delivered goes through keyed_record: it alone tells what it is about, whereas a read record's key was asked for.
#pragma once

#include "../fp_udp_req_mng/descriptor.hpp"
#include "area.hpp"
#include "bulk.hpp"

#include <iterator>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

namespace plx::mgr {

struct no_key {}; // of the tables that hold one record

template <class Message> struct schema;

#define PLX_RECORD(Message, Key, name, ...)                                                                            \
    template <> struct schema<Message> {                                                                               \
        using key = Key;                                                                                               \
        static constexpr auto init = name##__init;                                                                     \
        static constexpr const ProtobufCMessageDescriptor *descriptor = &name##__descriptor;                           \
        static constexpr uint32_t fields[] = {__VA_ARGS__};                                                            \
    }

PLX_RECORD(SPolicy__Acl, SPolicy__AclKey, s_policy__acl, 6, 7, 8, 9);
PLX_RECORD(SPolicy__Ace, SPolicy__AceKey, s_policy__ace, 6, 7, 8, 9, 10, 11);
PLX_RECORD(SPolicy__AcePsta, SPolicy__AceKey, s_policy__ace_psta, 6, 7);
PLX_RECORD(SPolicy__AceCounter, SPolicy__AceKey, s_policy__ace_counter, 6, 7, 8, 9, 10, 11);
PLX_RECORD(SPolicy__Apply, SPolicy__ApplyKey, s_policy__apply, 6, 7, 8, 9, 10);
PLX_RECORD(SPolicy__ApplyPsta, SPolicy__ApplyKey, s_policy__apply_psta, 6, 7);
PLX_RECORD(SPolicy__PortOff, SPolicy__PortOffKey, s_policy__port_off, 6, 7);
PLX_RECORD(SPolicy__PortOffPsta, SPolicy__PortOffKey, s_policy__port_off_psta, 6, 7);
PLX_RECORD(SPolicy__Uplink, SPolicy__UplinkKey, s_policy__uplink, 6, 7, 8);
PLX_RECORD(SPolicy__UplinkPsta, SPolicy__UplinkKey, s_policy__uplink_psta, 6, 7);
PLX_RECORD(SPolicy__SviRouter, no_key, s_policy__svi_router, 5, 6, 7);
PLX_RECORD(SPolicy__SviRouterPsta, no_key, s_policy__svi_router_psta, 5, 6);
PLX_RECORD(SPolicy__PortBindinfo, SPolicy__PortBindinfoKey, s_policy__port_bindinfo, 6);
PLX_RECORD(SPolicy__AppCommit, SPolicy__AppCommitKey, s_policy__app_commit, 6);

#undef PLX_RECORD

inline void init_key(SPolicy__AclKey &key)
{
    s_policy__acl_key__init(&key);
}
inline void init_key(SPolicy__AceKey &key)
{
    s_policy__ace_key__init(&key);
}
inline void init_key(SPolicy__ApplyKey &key)
{
    s_policy__apply_key__init(&key);
}
inline void init_key(SPolicy__PortOffKey &key)
{
    s_policy__port_off_key__init(&key);
}
inline void init_key(SPolicy__UplinkKey &key)
{
    s_policy__uplink_key__init(&key);
}
inline void init_key(SPolicy__PortBindinfoKey &key)
{
    s_policy__port_bindinfo_key__init(&key);
}
inline void init_key(SPolicy__AppCommitKey &key)
{
    s_policy__app_commit_key__init(&key);
}

template <class Message> class store_record {
  public:
    store_record()
    {
        schema<Message>::init(&values);
        if constexpr (requires { values.index; }) {
            init_key(key);
            values.index = &key;
        }
    }
    store_record(const store_record &) = delete;
    store_record &operator=(const store_record &) = delete;

    const ProtobufCMessage *message() const { return &values.base; }

    // Writes the fields of the record type's row.
    [[nodiscard]] int write(void *ctx) const
    {
        const int rv = bulk::admit(ctx);
        return rv == 0 ? write_fields(ctx) : rv;
    }
    [[nodiscard]] int write_whole(void *ctx) const
    {
        const int rv = bulk::admit(ctx);
        return rv == 0 ? tq_mom_set_sync(ctx, para.db, message()) : rv;
    }
    [[nodiscard]] int del(void *ctx) const
    {
        const int rv = bulk::admit(ctx);
        return rv == 0 ? tq_mom_del_sync(ctx, para.db, message()) : rv;
    }
    // The same, collected where a bracket is open: 0 is no more than that then, and `made` goes on from the result.
    [[nodiscard]] int write(void *ctx, const bulk::call &made, bool *collected) const
    {
        *collected = bulk::collects(ctx);
        const int rv = *collected ? write_fields(ctx) : write(ctx);
        if (*collected && rv == 0)
            bulk::add(made);
        return rv;
    }
    [[nodiscard]] int del(void *ctx, const bulk::call &made) const
    {
        if (!bulk::collects(ctx))
            return del(ctx);
        const int rv = tq_mom_del_sync(ctx, para.db, message());
        if (rv == 0)
            bulk::add(made);
        return rv;
    }
    // Null when the store could not be asked. What was collected is in it before.
    [[nodiscard]] tq_mom_hash_res *read(void *ctx, uint32_t db) const
    {
        (void)bulk::settle();
        return tq_mom_hgetall_sync(ctx, db, message());
    }

    // Begin and end a rewrite of the records that the first `selection` key fields select. A failure is reported as
    // `failed`.
    static constexpr uint32_t rewrite_bound = 1000;
    [[nodiscard]] int begin_rewrite(void *ctx, uint32_t selection, diag::text<> failed) const
    {
        (void)bulk::settle();
        return reported(tq_mom_dsbegin_sync(ctx, para.db, message(), selection, uint64_t{rewrite_bound}), failed);
    }
    [[nodiscard]] int end_rewrite(void *ctx, uint32_t selection, diag::text<> failed) const
    {
        (void)bulk::settle();
        int rv = TQ_MOM_OK;
        do // many records take more than one: each call gets on
            rv = tq_mom_dsend_sync(ctx, para.db, message(), selection, rewrite_bound);
        while (rv == TQ_MOM_UNFINISHED);
        return reported(rv, failed);
    }

    typename schema<Message>::key key;
    Message values;

  private:
    int write_fields(void *ctx) const
    {
        return tq_mom_hmset_sync(ctx, para.db, message(), schema<Message>::fields, std::size(schema<Message>::fields));
    }
    static int reported(int rv, diag::text<> failed)
    {
        if (rv != 0)
            report<Error>(failed);
        return rv;
    }
};

// How many leading key fields select: all records of a table, or those of one application type.
enum Selection : uint32_t { SelectAll = 0, SelectAppType = 1 };

// The client's messages hold plain pointers, and only read through them.
inline char *field_text(const char *text)
{
    return const_cast<char *>(text);
}

template <size_t Size> ProtobufCBinaryData field_bytes(const uint8_t (&bytes)[Size])
{
    return {Size, const_cast<uint8_t *>(bytes)};
}

// The packed attributes of an ACE or apply; one without a buffer has none.
inline ProtobufCBinaryData field_bytes(const fp_udp_ace_tlv *tlv)
{
    if (tlv == nullptr)
        return {0, nullptr};
    return {tlv->len, const_cast<uint8_t *>(tlv->data)};
}

inline void fill(SPolicy__AclKey &key, const fp_udp_acl_info &acl)
{
    key.t_app_type = field_text(acl.app_type);
    key.acl_id = acl.acl_id;
}

inline void fill(SPolicy__AceKey &key, const fp_udp_acl_info &acl, uint64_t sn)
{
    key.t_app_type = field_text(acl.app_type);
    key.acl_id = acl.acl_id;
    key.sn = sn;
}

inline void fill(SPolicy__ApplyKey &key, const fp_udp_acl_info &acl, const fp_udp_apply_info &apply)
{
    key.t_apply_type = field_text(apply.apply_type);
    key.acl_id = acl.acl_id;
    key.app_type = field_text(acl.app_type);
    key.phyid = apply.phyid;
    key.priority = apply.value_pri;
    key.direction = apply.dir;
}

// The first key field of every table that is selected by application type.
inline void select(SPolicy__AclKey &key, const char *app_type)
{
    key.t_app_type = field_text(app_type);
}
inline void select(SPolicy__AceKey &key, const char *app_type)
{
    key.t_app_type = field_text(app_type);
}
inline void select(SPolicy__ApplyKey &key, const char *app_type)
{
    key.t_apply_type = field_text(app_type);
}

// The record if it is one of this type, else null.
template <class Message> const Message *record_cast(const ProtobufCMessage *record)
{
    if (record == nullptr || !describes(record->descriptor, *schema<Message>::descriptor))
        return nullptr;
    return reinterpret_cast<const Message *>(record);
}

// The record if it is one of this type that has its key, else null.
template <class Message> const Message *keyed_record(const ProtobufCMessage *record)
{
    const Message *message = record_cast<Message>(record);
    return message == nullptr || message->index == nullptr ? nullptr : message;
}

// Owns what a read returned.
class store_result {
  public:
    explicit store_result(tq_mom_hash_res *result) : result_(result) {}
    ~store_result()
    {
        if (result_ != nullptr)
            tq_mom_hash_res_free(result_);
    }
    store_result(const store_result &) = delete;
    store_result &operator=(const store_result &) = delete;

    bool answered() const { return result_ != nullptr; }
    int32_t status() const { return result_->status; }
    template <class Message> const Message *record() const { return record_cast<Message>(result_->record); }

  private:
    tq_mom_hash_res *result_;
};

// Begin and end the rewrite of one table's records of an application type.
template <class Message> [[nodiscard]] int begin_rewrite(void *ctx, const char *app_type, diag::text<> failed)
{
    store_record<Message> record;
    select(record.key, app_type);
    return record.begin_rewrite(ctx, SelectAppType, failed);
}

template <class Message> [[nodiscard]] int end_rewrite(void *ctx, const char *app_type, diag::text<> failed)
{
    store_record<Message> record;
    select(record.key, app_type);
    return record.end_rewrite(ctx, SelectAppType, failed);
}

} // namespace plx::mgr
