// See scene.hpp.
#include "explain/scene.hpp"

#include "explain/entries.hpp"
#include "records/host.hpp"
#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

namespace plx::tool {

namespace {

void sort(Scene &scene)
{
    for (SceneAcl &acl : scene.acls)
        std::sort(acl.entries.begin(), acl.entries.end(), &asked_before<SceneEntry>);
    std::stable_sort(scene.acls.begin(), scene.acls.end(),
                     [](const SceneAcl &one, const SceneAcl &other) { return one.priority > other.priority; });
}

SceneEntry entry_of(const PolicyEntry &entry)
{
    SceneEntry copy{entry.sn, entry.priority, entry.is_default, std::string(entry.name())};
    copy.wanted.value.assign(entry.attributes().begin(), entry.attributes().end());
    return copy;
}

std::string private_text(const ProtobufCBinaryData &bytes)
{
    const std::string text(reinterpret_cast<const char *>(bytes.data), bytes.data == nullptr ? 0 : bytes.len);
    return text.substr(0, text.find('\0'));
}

// One walk over a table of the store.
struct Walk {
    Scene &scene;
    SceneAcl *acl = nullptr; // whose entries these are
    uint32_t port = 0, direction = 0;
    size_t unreadable = 0;

    bool readable(const tq_mom_notification &entry, std::optional<Key> &key)
    {
        key = entry.record == nullptr || entry.result != 0 ? std::nullopt : key_of(entry.record);
        unreadable += key ? 0 : 1;
        return key.has_value();
    }
};

int32_t take_apply(void *, const tq_mom_notification *entry, void *arg)
{
    auto &walk = *static_cast<Walk *>(arg);
    std::optional<Key> key;
    if (!walk.readable(*entry, key))
        return 0;
    const auto &apply = std::get<ApplyKey>(*key);
    if (apply.phyid == walk.port && apply.direction == walk.direction)
        walk.scene.acls.push_back({.app = apply.acl_app,
                                   .id = apply.acl,
                                   .priority = apply.priority,
                                   .apply = apply,
                                   .applied = requested_of(entry->record)});
    return 0;
}

int32_t take_entry(void *, const tq_mom_notification *entry, void *arg)
{
    auto &walk = *static_cast<Walk *>(arg);
    std::optional<Key> key;
    if (!walk.readable(*entry, key))
        return 0;
    const auto *record = reinterpret_cast<const SPolicy__Ace *>(entry->record);
    SceneEntry found{
        .sn = std::get<AceKey>(*key).sn, .name = private_text(record->priv), .wanted = requested_of(entry->record)};
    found.priority = found.wanted.priority;
    found.is_default = found.wanted.default_entry;
    walk.acl->entries.push_back(std::move(found));
    return 0;
}

int32_t take_off(void *, const tq_mom_notification *, void *arg)
{
    static_cast<Walk *>(arg)->scene.off = true;
    return 0;
}

Record wanted_of(const ProtobufCMessageDescriptor &table, const SceneAcl &acl)
{
    Record wanted(table);
    wanted.set_key_text(0, acl.app.c_str());
    wanted.set_key_number(1, acl.id);
    return wanted;
}

int read_acl(tq_context *context, uint32_t db, Walk &walk, SceneAcl &acl)
{
    walk.acl = &acl;
    const Record named = wanted_of(s_policy__acl__descriptor, acl);
    const Found found(tq_mom_hgetall_sync(context, db, named.message()));
    if (found != nullptr && found->record != nullptr)
        acl.name = private_text(reinterpret_cast<const SPolicy__Acl *>(found->record)->priv);
    const Record entries = wanted_of(s_policy__ace__descriptor, acl);
    return tq_mom_scan_sync(context, db, entries.message(), 2, &take_entry, &walk);
}

} // namespace

Scene scene_of(const Policy &policy, uint32_t port, uint32_t direction)
{
    Scene scene;
    for (const PolicyApply &apply : policy.applies) {
        const auto acl = std::find_if(policy.acls.begin(), policy.acls.end(),
                                      [&apply](const PolicyAcl &other) { return other.id == apply.acl; });
        if (apply.port != port || apply.direction != direction || acl == policy.acls.end())
            continue;
        SceneAcl &applied = scene.acls.emplace_back(SceneAcl{policy.application, apply.acl, apply.priority, acl->name});
        for (const PolicyEntry &entry : acl->entries)
            applied.entries.push_back(entry_of(entry));
    }
    sort(scene);
    return scene;
}

int read_scene(tq_context *context, uint32_t db, uint32_t port, uint32_t direction, Scene &scene, size_t &unreadable)
{
    Walk walk{.scene = scene, .port = port, .direction = direction};
    Record off(s_policy__port_off__descriptor);
    off.set_key_number(0, port);
    int result = tq_mom_scan_sync(context, db, off.message(), 1, &take_off, &walk);
    const Record applies(s_policy__apply__descriptor);
    if (result == 0)
        result = tq_mom_scan_sync(context, db, applies.message(), 0, &take_apply, &walk);
    for (size_t at = 0; at < scene.acls.size() && result == 0; ++at)
        result = read_acl(context, db, walk, scene.acls[at]);
    unreadable = walk.unreadable;
    sort(scene);
    return result;
}

} // namespace plx::tool
