// See holdings.hpp.
#include "nodes/holdings.hpp"

#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

namespace plx::tool {

namespace {

// The class of an ACL that is applied is in its applies as well.
Requested requested_of(const PolicyEntry &entry)
{
    Requested wanted;
    wanted.value.assign(entry.attributes().begin(), entry.attributes().end());
    wanted.priority = entry.priority;
    wanted.default_entry = entry.is_default;
    return wanted;
}

std::string acl_name(uint32_t acl)
{
    return "acl " + std::to_string(acl);
}

} // namespace

void Holdings::add(const Key &key, const Requested &wanted)
{
    all_.push_back({digest_of(key), wanted.fingerprint(), key});
}

void Holdings::sort()
{
    std::ranges::sort(all_, {}, &One::key);
}

Holdings Holdings::of(const Policy &policy)
{
    Holdings holdings;
    for (const PolicyAcl &acl : policy.acls) {
        holdings.acls_[acl.id] = acl.cls;
        for (const PolicyEntry &entry : acl.entries)
            holdings.add(AceKey{policy.application, acl.id, entry.sn}, requested_of(entry));
    }
    for (const PolicyApply &apply : policy.applies) {
        Requested wanted;
        wanted.acl_cls = holdings.acls_[apply.acl];
        holdings.add(
            ApplyKey{policy.application, apply.acl, policy.application, apply.port, apply.priority, apply.direction},
            wanted);
    }
    holdings.sort();
    return holdings;
}

int Holdings::read(tq_context *context, uint32_t db, const std::string &app, Holdings &holdings, size_t &unreadable)
{
    struct Walk {
        Holdings &holdings;
        size_t &unreadable;
    } walk{holdings, unreadable};
    const auto take = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        auto &[into, unread] = *static_cast<Walk *>(arg);
        const auto key = found->result == 0 ? key_of(found->record) : std::nullopt;
        if (key)
            into.add(*key, plx::requested_of(found->record));
        else
            ++unread;
        return 0;
    };
    const auto take_acl = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        auto &[into, unread] = *static_cast<Walk *>(arg);
        const auto *acl = reinterpret_cast<const SPolicy__Acl *>(found->record);
        if (found->result == 0 && acl != nullptr && acl->index != nullptr)
            into.acls_[acl->index->acl_id] = acl->acl_cls;
        else
            ++unread;
        return 0;
    };
    const auto scan = [&](const ProtobufCMessageDescriptor &table, tq_mom_callback callback) {
        Record selection(table);
        selection.set_key_text(0, app.c_str());
        return tq_mom_scan_sync(context, db, selection.message(), 1, callback, &walk);
    };
    int result = scan(s_policy__acl__descriptor, take_acl);
    for (const Table &table : tables())
        if (table.by_application && result == 0)
            result = scan(*table.requested, take);
    holdings.sort();
    return result;
}

const Holdings::One *Holdings::find(uint64_t key) const
{
    const auto at = std::ranges::lower_bound(all_, key, {}, &One::key);
    return at == all_.end() || at->key != key ? nullptr : &*at;
}

PartDigests Holdings::parts() const
{
    PartDigests parts;
    for (const One &one : all_)
        parts[part_of(one.key)].add(one.key, one.fingerprint);
    return parts;
}

std::vector<Difference> differences(const Holdings &one, const Holdings &other, const std::string &one_name,
                                    const std::string &other_name)
{
    std::vector<Difference> found;
    const std::string here = "not in the " + other_name, there = "not in the " + one_name;
    for (const auto &[acl, cls] : one.acls())
        if (const auto twin = other.acls().find(acl); twin == other.acls().end() || twin->second != cls)
            found.push_back({acl_name(acl), twin == other.acls().end() ? here : "its class differs"});
    for (const auto &[acl, cls] : other.acls())
        if (!one.acls().contains(acl))
            found.push_back({acl_name(acl), there});
    std::vector<std::pair<const Key *, std::string>> records;
    for (const Holdings::One &record : one.all())
        if (const auto *twin = other.find(record.key); twin == nullptr || twin->fingerprint != record.fingerprint)
            records.emplace_back(&record.record, twin == nullptr ? here : "differs");
    for (const Holdings::One &record : other.all())
        if (one.find(record.key) == nullptr)
            records.emplace_back(&record.record, there);
    std::ranges::sort(records, [](const auto &a, const auto &b) { return *a.first < *b.first; });
    for (const auto &[key, what] : records)
        found.push_back({described(*key), what});
    return found;
}

} // namespace plx::tool
