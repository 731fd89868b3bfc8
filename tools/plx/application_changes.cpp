// What the store has that the policy has not, or otherwise. See application.hpp.
#include "application.hpp"

#include "names.hpp"
#include "records/record.hpp"
#include <numeric>
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

void Application::differs(size_t row, bool same)
{
    if (same && !whole_)
        ledger_.end(row, Outcome::unchanged, "");
    else
        ++changes_.changed;
}

int32_t Application::compare_acl(const SPolicy__Acl &record)
{
    const auto known = acl_numbers_.find(record.index->acl_id);
    if (known == acl_numbers_.end()) {
        fp_udp_acl_key &gone = excess_.acls.emplace_back();
        copy_name(gone.app_type, policy_.application);
        gone.acl_id = record.index->acl_id;
        return 0;
    }
    const PolicyAcl &acl = *acls_[known->second].policy;
    differs(acls_[known->second].row, record.acl_cls == acl.cls && same_name(record.priv, acl.name));
    return 0;
}

int32_t Application::compare_apply(const SPolicy__Apply &record)
{
    const SPolicy__ApplyKey &key = *record.index;
    const auto row = apply_rows_.find({key.acl_id, key.phyid, key.priority});
    const Acl *acl = row == apply_rows_.end() ? nullptr : &acls_[acl_numbers_.at(key.acl_id)];
    const bool there = acl != nullptr && policy_.application == (key.app_type == nullptr ? "" : key.app_type) &&
                       acl->applies[row->second - acl->row - 1]->direction == key.direction;
    if (there) {
        differs(row->second,
                record.acl_cls == acl->policy->cls && same(record.value, {}) && same_name(record.priv, ""));
        return 0;
    }
    auto &[owner, gone] = (acl != nullptr ? excess_.turned : excess_.applies).emplace_back();
    owner = acl_of(key.app_type == nullptr ? "" : key.app_type, key.acl_id);
    copy_name(gone.apply_type, policy_.application);
    gone.phyid = key.phyid;
    gone.priority = key.priority;
    gone.direction = key.direction;
    return 0;
}

int32_t Application::compare_ace(const SPolicy__Ace &record)
{
    const auto row = find_ace(record.index->acl_id, record.index->sn);
    if (!row) {
        excess_.entries.emplace_back(record.index->acl_id, record.index->sn);
        return 0;
    }
    const Acl &acl = acls_[acl_numbers_.at(record.index->acl_id)];
    const PolicyEntry &entry = acl.policy->entries[*row - acl.first_entry()];
    differs(*row, record.ace_pri == entry.priority && (record.default_ace != 0) == entry.is_default &&
                      same(record.value, entry.attributes()) && same_name(record.priv, entry.name()));
    return 0;
}

// A record that cannot be read is written anew where the policy has it.
template <typename Message>
int Application::compare(const ProtobufCMessageDescriptor &table, int32_t (Application::*with)(const Message &),
                         const Take &take)
{
    struct Walk {
        Application *self;
        int32_t (Application::*with)(const Message &);
        const Take &take;
    } walk{this, with, take};
    const auto on_record = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        const auto &[self, compare_with, hand_on] = *static_cast<Walk *>(arg);
        const auto *record = reinterpret_cast<const Message *>(found->record);
        if (found->result != 0 || record == nullptr || record->index == nullptr)
            return 0;
        hand_on(record->base);
        return (self->*compare_with)(*record);
    };
    Record selection(table);
    selection.set_key_text(0, policy_.application.c_str());
    return tq_mom_scan_sync(context_, db_, selection.message(), 1, on_record, &walk);
}

// The library must know the ACLs that its entries belong to, and that they are applied.
void Application::know_unchanged()
{
    for (const Acl &acl : acls_) {
        const fp_udp_acl_info info = acl_of(policy_.application, acl.policy->id);
        if (ledger_.outcome(acl.row) == Outcome::unchanged)
            fp_udp_acldb_add_acl(&info);
        for (size_t at = 0; at < acl.applies.size(); ++at) {
            if (ledger_.outcome(acl.row + 1 + at) != Outcome::unchanged)
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

uint64_t Application::time_outs() const
{
    tq_mom_counters counters{};
    tq_mom_counters_get(context_, &counters);
    return counters.results[TQ_MOM_TIMEOUT];
}

// The library's deletions do not tell of a store that fails; the store client counts it.
uint64_t Application::store_failures() const
{
    tq_mom_counters counters{};
    tq_mom_counters_get(context_, &counters);
    return std::accumulate(counters.results + 1, std::end(counters.results), uint64_t{0});
}

void Application::remove(std::span<const std::pair<fp_udp_acl_info, fp_udp_apply_key>> applies)
{
    for (const auto &[acl, key] : applies) {
        const std::unique_ptr<fp_udp_apply, void (*)(fp_udp_apply *)> gone(mgr_->alloc_apply(&key), mgr_->free_apply);
        if (gone != nullptr)
            mgr_->del_apply(context_, &acl, gone.get());
    }
}

void Application::remove_excess(const std::function<void()> &breathe)
{
    remove(excess_.applies);
    for (const auto &[acl, sn] : excess_.entries) {
        fp_udp_acl_key key{};
        copy_name(key.app_type, policy_.application);
        key.acl_id = acl;
        mgr_->delete_ace(context_, &key, sn);
        breathe();
    }
    for (const fp_udp_acl_key &acl : excess_.acls)
        mgr_->del_acl(context_, &acl);
}

// Nobody has ended a rewrite in the store's history: then this is one.
int Application::compare(const Take &take)
{
    whole_ = !rewritten_before(context_, db_, policy_.application);
    for (size_t row = 0; row < ledger_.size(); ++row) // of a comparison that was not finished
        ledger_.put_back(row);
    changes_ = {};
    excess_ = {};
    int result = compare(s_policy__acl__descriptor, &Application::compare_acl, take);
    result = result != 0 ? result : compare(s_policy__apply__descriptor, &Application::compare_apply, take);
    result = result != 0 ? result : compare(s_policy__ace__descriptor, &Application::compare_ace, take);
    changes_.added = ledger_.count(Outcome::unwritten) - changes_.changed;
    changes_.removed = excess_.entries.size() + excess_.applies.size() + excess_.turned.size() + excess_.acls.size();
    return result;
}

// What goes, goes last, as with a rewrite, and stays where a write failed; but of the applies what only has another
// direction goes first, since the library tells them apart by port and priority alone.
int Application::write_changes(const std::function<void()> &pause, const std::function<bool()> &again)
{
    if (whole_)
        return write(pause, again);
    remove_surely(again, [this] { remove(excess_.turned); });
    know_unchanged();
    write_unended(pause, again);
    if (!store_lost())
        remove_surely(again, [&] { collect(pause, [this](const Breathe &breathe) { remove_excess(breathe); }); });
    return store_lost() ? 0 : not_removed_;
}

// Deleting what is gone already does nothing: all of it is deleted once more where the store did not answer in time.
void Application::remove_surely(const std::function<bool()> &again, const std::function<void()> &remove_all)
{
    const uint64_t silent = time_outs();
    uint64_t before = store_failures();
    remove_all();
    if (time_outs() != silent && again()) {
        before = store_failures();
        remove_all();
    }
    if (store_failures() != before)
        not_removed_ = TQ_MOM_STORE_ERROR;
}

} // namespace plx::tool
