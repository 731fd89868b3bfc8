// See holdings.hpp.
#include "nodes/holdings.hpp"

#include <algorithm>

namespace plx::tool {

// The class of an ACL that is applied is in its applies as well.
void for_each_record(const Policy &policy, const std::function<void(const Key &, const Requested &)> &callback)
{
    std::map<uint32_t, uint32_t> classes;
    for (const PolicyAcl &acl : policy.acls) {
        classes[acl.id] = acl.cls;
        for (const PolicyEntry &entry : acl.entries) {
            Requested wanted;
            wanted.value.assign(entry.attributes().begin(), entry.attributes().end());
            wanted.priority = entry.priority;
            wanted.default_entry = entry.is_default;
            wanted.name = entry.name();
            callback(AceKey{policy.application, acl.id, entry.sn}, wanted);
        }
    }
    for (const PolicyApply &apply : policy.applies) {
        Requested bound;
        bound.acl_cls = classes[apply.acl];
        callback(
            ApplyKey{policy.application, apply.acl, policy.application, apply.port, apply.priority, apply.direction},
            bound);
    }
}

void Holdings::add(const Key &key, const Requested &wanted)
{
    all_.push_back({digest_of(key), wanted.fingerprint(), wanted.request, key});
}

void Holdings::sort()
{
    std::ranges::sort(all_, {}, &One::key);
}

Holdings Holdings::of(const Policy &policy)
{
    Holdings holdings;
    for_each_record(policy, [&](const Key &key, const Requested &wanted) { holdings.add(key, wanted); });
    holdings.sort();
    return holdings;
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

PartDigests Holdings::writes() const
{
    PartDigests parts;
    for (const One &one : all_)
        parts[part_of(one.key)].add(one.key, one.request);
    return parts;
}

Digest sum(const PartDigests &parts)
{
    Digest whole;
    for (const Digest &part : parts) {
        whole.count += part.count;
        whole.lo += part.lo;
        whole.hi += part.hi;
    }
    return whole;
}

std::vector<uint32_t> different_parts(const PartDigests &one, const PartDigests &other)
{
    std::vector<uint32_t> parts;
    for (uint32_t part = 0; part < one.size(); ++part)
        if (one[part] != other[part])
            parts.push_back(part);
    return parts;
}

} // namespace plx::tool
