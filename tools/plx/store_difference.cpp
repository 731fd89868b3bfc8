// See store_difference.hpp.
#include "store_difference.hpp"

#include "names.hpp"
#include "policy_store.hpp"
#include "records/record.hpp"
#include <algorithm>
#include <memory>
#include <tq_mom.h>

namespace plx::tool {

namespace {

bool same(const ProtobufCBinaryData &stored, std::span<const uint8_t> wanted)
{
    return std::ranges::equal(span_of(stored), wanted);
}

// Private bytes are a name and zeros.
bool same_name(const ProtobufCBinaryData &stored, std::string_view name)
{
    uint8_t priv[FP_UDP_PRIV_SIZE] = {};
    copy_name(priv, name);
    return same(stored, priv);
}

fp_udp_acl_info acl_of(const std::string &application, uint32_t id)
{
    fp_udp_acl_info acl{};
    copy_name(acl.app_type, application);
    acl.acl_id = id;
    return acl;
}

} // namespace

StoreDifference::StoreDifference(tq_context *context, uint32_t db, const Policy &policy, const PolicyRows &rows,
                                 Ledger &ledger)
    : context_(context), db_(db), policy_(policy), rows_(rows), ledger_(ledger)
{
}

void StoreDifference::differs(size_t row, bool same)
{
    if (same && !whole_)
        ledger_.end(row, Outcome::unchanged, "");
    else
        ++changes_.changed;
}

void StoreDifference::compare_acl(const SPolicy__Acl &record)
{
    const PolicyRows::Acl *known = rows_.find_acl(record.index->acl_id);
    if (known == nullptr) {
        fp_udp_acl_key &gone = excess_.acls.emplace_back();
        copy_name(gone.app_type, policy_.application);
        gone.acl_id = record.index->acl_id;
        return;
    }
    const PolicyAcl &acl = *known->policy;
    differs(known->row, record.acl_cls == acl.cls && same_name(record.priv, acl.name));
}

void StoreDifference::compare_apply(const SPolicy__Apply &record)
{
    const SPolicy__ApplyKey &key = *record.index;
    const auto row = rows_.find_apply(key.acl_id, key.phyid, key.priority);
    const PolicyRows::Acl *acl = row ? rows_.find_acl(key.acl_id) : nullptr;
    const bool there = acl != nullptr && policy_.application == (key.app_type == nullptr ? "" : key.app_type) &&
                       acl->applies[*row - acl->first_apply()]->direction == key.direction;
    if (there) {
        differs(*row, record.acl_cls == acl->policy->cls && same(record.value, {}) && same_name(record.priv, ""));
        return;
    }
    auto &[owner, gone] = (acl != nullptr ? excess_.turned : excess_.applies).emplace_back();
    owner = acl_of(key.app_type == nullptr ? "" : key.app_type, key.acl_id);
    copy_name(gone.apply_type, policy_.application);
    gone.phyid = key.phyid;
    gone.priority = key.priority;
    gone.direction = key.direction;
}

void StoreDifference::compare_ace(const SPolicy__Ace &record)
{
    const auto row = rows_.find_ace(record.index->acl_id, record.index->sn);
    if (!row) {
        excess_.entries.emplace_back(record.index->acl_id, record.index->sn);
        return;
    }
    const PolicyRows::Acl &acl = *rows_.find_acl(record.index->acl_id);
    const PolicyEntry &entry = acl.policy->entries[*row - acl.first_entry()];
    differs(*row, record.ace_pri == entry.priority && (record.default_ace != 0) == entry.is_default &&
                      same(record.value, entry.attributes()) && same_name(record.priv, entry.name()));
}

// A record that cannot be read is written anew where the policy has it.
template <typename Message>
int StoreDifference::compare(const ProtobufCMessageDescriptor &table, void (StoreDifference::*with)(const Message &),
                             const Take &take)
{
    struct Walk {
        StoreDifference *self;
        void (StoreDifference::*with)(const Message &);
        const Take &take;
    } walk{this, with, take};
    const auto on_record = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        const auto &[self, compare_with, hand_on] = *static_cast<Walk *>(arg);
        const auto *record = reinterpret_cast<const Message *>(found->record);
        if (found->result != 0 || record == nullptr || record->index == nullptr)
            return 0;
        hand_on(record->base);
        (self->*compare_with)(*record);
        return 0;
    };
    Record selection(table);
    selection.set_key_text(0, policy_.application.c_str());
    return tq_mom_scan_sync(context_, db_, selection.message(), 1, on_record, &walk);
}

// Nobody has ended a rewrite in the store's history: then this is one.
int StoreDifference::compare(const Take &take)
{
    whole_ = !rewritten_before(context_, db_, policy_.application);
    for (size_t row = 0; row < ledger_.size(); ++row) // of a comparison that was not finished
        ledger_.put_back(row);
    changes_ = {};
    excess_ = {};
    int result = compare(s_policy__acl__descriptor, &StoreDifference::compare_acl, take);
    result = result != 0 ? result : compare(s_policy__apply__descriptor, &StoreDifference::compare_apply, take);
    result = result != 0 ? result : compare(s_policy__ace__descriptor, &StoreDifference::compare_ace, take);
    changes_.added = ledger_.count(Outcome::unwritten) - changes_.changed;
    changes_.removed = excess_.entries.size() + excess_.applies.size() + excess_.turned.size() + excess_.acls.size();
    return result;
}

// ---- what the library is told ---------------------------------------------------------------------------------------

// The library must know the ACLs that its entries belong to, and that they are applied.
void StoreDifference::know_unchanged() const
{
    for (const PolicyRows::Acl &acl : rows_.acls()) {
        const fp_udp_acl_info info = acl_of(policy_.application, acl.policy->id);
        if (ledger_.outcome(acl.row) == Outcome::unchanged)
            fp_udp_acldb_add_acl(&info);
        for (size_t at = 0; at < acl.applies.size(); ++at) {
            if (ledger_.outcome(acl.first_apply() + at) != Outcome::unchanged)
                continue;
            const PolicyApply &bound = *acl.applies[at];
            fp_udp_apply_info apply{};
            copy_name(apply.apply_type, policy_.application);
            apply.phyid = bound.port;
            apply.pri = apply.value_pri = bound.priority;
            apply.dir = bound.direction;
            fp_udp_apply_node *node = nullptr;
            fp_udp_acldb_add_apply(&info, &apply, &node);
        }
    }
}

void StoreDifference::remove(std::span<const BoundApply> applies) const
{
    fp_udp_mgr *mgr = fp_udp_get_mgr();
    for (const auto &[acl, key] : applies) {
        const std::unique_ptr<fp_udp_apply, void (*)(fp_udp_apply *)> gone(mgr->alloc_apply(&key), mgr->free_apply);
        if (gone != nullptr)
            mgr->del_apply(context_, &acl, gone.get());
    }
}

void StoreDifference::remove_excess(const std::function<void()> &breathe) const
{
    fp_udp_mgr *mgr = fp_udp_get_mgr();
    remove(excess_.applies);
    for (const auto &[acl, sn] : excess_.entries) {
        fp_udp_acl_key key{};
        copy_name(key.app_type, policy_.application);
        key.acl_id = acl;
        mgr->delete_ace(context_, &key, sn);
        breathe();
    }
    for (const fp_udp_acl_key &acl : excess_.acls)
        mgr->del_acl(context_, &acl);
}

} // namespace plx::tool
