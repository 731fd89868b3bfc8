// See policy_rows.hpp.
#include "policy_rows.hpp"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace plx::tool {

namespace {

std::string apply_label(const PolicyApply &apply)
{
    std::string label = " on port " + std::to_string(apply.port) + ' ';
    label += direction_name(apply.direction);
    if (apply.priority != 0)
        label += " priority " + std::to_string(apply.priority);
    return label;
}

} // namespace

PolicyRows::PolicyRows(const Policy &policy)
{
    acls_.reserve(policy.acls.size());
    for (const PolicyAcl &acl : policy.acls) {
        acl_numbers_[acl.id] = acls_.size();
        acls_.push_back({.policy = &acl, .row = 0});
    }
    for (const PolicyApply &apply : policy.applies)
        acls_[acl_numbers_.at(apply.acl)].applies.push_back(&apply);
    for (Acl &acl : acls_) {
        acl.row = size_;
        size_ = acl.first_entry() + acl.policy->entries.size();
        sort_entries(acl);
        for (size_t apply = 0; apply < acl.applies.size(); ++apply) {
            const PolicyApply &bound = *acl.applies[apply];
            apply_rows_[{bound.acl, bound.port, bound.priority}] = acl.first_apply() + apply;
        }
    }
}

void PolicyRows::sort_entries(Acl &acl)
{
    const auto &entries = acl.policy->entries;
    const auto by_sn = [](const PolicyEntry &a, const PolicyEntry &b) { return a.sn < b.sn; };
    if (std::is_sorted(entries.begin(), entries.end(), by_sn))
        return;
    acl.order.resize(entries.size());
    std::iota(acl.order.begin(), acl.order.end(), 0U);
    std::sort(acl.order.begin(), acl.order.end(),
              [&](uint32_t a, uint32_t b) { return by_sn(entries[a], entries[b]); });
}

const PolicyRows::Acl *PolicyRows::find_acl(uint32_t acl) const
{
    const auto known = acl_numbers_.find(acl);
    return known == acl_numbers_.end() ? nullptr : &acls_[known->second];
}

std::optional<size_t> PolicyRows::find_ace(uint32_t acl, uint64_t sn) const
{
    const Acl *owner = find_acl(acl);
    if (owner == nullptr)
        return std::nullopt;
    const auto &entries = owner->policy->entries;
    size_t at = 0;
    if (owner->order.empty()) {
        const auto entry = std::lower_bound(entries.begin(), entries.end(), sn,
                                            [](const PolicyEntry &each, uint64_t wanted) { return each.sn < wanted; });
        at = static_cast<size_t>(entry - entries.begin());
    } else {
        const auto place = std::lower_bound(owner->order.begin(), owner->order.end(), sn,
                                            [&](uint32_t each, uint64_t wanted) { return entries[each].sn < wanted; });
        at = place == owner->order.end() ? entries.size() : *place;
    }
    return at < entries.size() && entries[at].sn == sn ? std::optional(owner->first_entry() + at) : std::nullopt;
}

std::optional<size_t> PolicyRows::find_apply(uint32_t acl, uint32_t port, uint32_t priority) const
{
    const auto row = apply_rows_.find({acl, port, priority});
    return row == apply_rows_.end() ? std::nullopt : std::optional(row->second);
}

std::optional<size_t> PolicyRows::find(const Key &key) const
{
    if (const auto *ace = std::get_if<AceKey>(&key))
        return find_ace(ace->acl, ace->sn);
    const auto *apply = std::get_if<ApplyKey>(&key);
    return apply == nullptr ? std::nullopt : find_apply(apply->acl, apply->phyid, apply->priority);
}

std::string PolicyRows::label(size_t row) const
{
    const auto behind =
        std::upper_bound(acls_.begin(), acls_.end(), row, [](size_t at, const Acl &acl) { return at < acl.row; });
    const Acl &acl = *std::prev(behind);
    std::string label = "acl " + std::to_string(acl.policy->id);
    const auto named = [&label](std::string_view name) {
        if (!name.empty())
            (label += ' ') += name;
    };
    if (row == acl.row) {
        named(acl.policy->name);
    } else if (row < acl.first_entry()) {
        label += apply_label(*acl.applies[row - acl.first_apply()]);
    } else {
        const PolicyEntry &entry = acl.policy->entries[row - acl.first_entry()];
        label += " sn " + std::to_string(entry.sn);
        named(entry.name());
    }
    return label;
}

} // namespace plx::tool
