// See draft.hpp.
#include "plane/nftables/draft.hpp"

#include <algorithm>
#include <cerrno>
#include <span>

namespace plx::plane::nftables {

namespace {

// The kernel's answer to more rules than these does not fit into a socket: their handles are read when they are needed.
constexpr size_t most_echoes = 10000;

bool stands(const EntryPointer &entry)
{
    return entry != nullptr && entry->rules != 0;
}

bool known(const Entry &entry)
{
    return entry.handles.size() == entry.rules;
}

Tag tag_of(const AceKey &key, const Entry &entry, size_t rule)
{
    Tag tag;
    tag.key = key;
    tag.request = entry.request;
    tag.fingerprint = entry.fingerprint;
    tag.priority = ~entry.position.rank;
    tag.default_entry = entry.position.last;
    tag.unless_default = entry.unless_default;
    tag.name = entry.name;
    tag.by_interface = entry.by_interface;
    tag.directions = entry.directions;
    tag.rule = static_cast<uint8_t>(rule);
    tag.rules = entry.rules;
    return tag;
}

bool by_interface(const packet::Rule &rule)
{
    const bool looks = std::any_of(rule.tests.begin(), rule.tests.end(), [](const packet::Test &test) {
        return test.source.load == packet::Load::input || test.source.load == packet::Load::output;
    });
    const bool copies = std::any_of(rule.actions.begin(), rule.actions.end(), [](const packet::Action &action) {
        return std::holds_alternative<packet::Copy>(action);
    });
    return looks || copies || rule.verdict == packet::Verdict::redirect;
}

bool leads_to_page(const Tag &tag)
{
    return tag.purpose == Purpose::page || tag.purpose == Purpose::run;
}

AclKey list_of(const ApplyKey &apply)
{
    return {apply.acl_app, apply.acl};
}

// Hooks of greater apply priority come first; ports that are off before all of them.
int32_t priority_of(const Key &key)
{
    const auto *apply = std::get_if<ApplyKey>(&key);
    return apply == nullptr ? INT32_MIN : static_cast<int32_t>(INT32_MAX - int64_t{apply->priority});
}

std::vector<bool> sides_of(const Key &key) // out?
{
    if (const auto *apply = std::get_if<ApplyKey>(&key))
        return {apply->direction == 1};
    return {false, true};
}

// An entry that took the place of `old` without changing the order can be put into its rules' places.
bool replaces(const Entry &entry, const Entry &old)
{
    return entry.position == old.position && entry.rules == old.rules;
}

} // namespace

Prepared prepare(const AceKey &key, const Requested &wanted, packet::Compiled compiled)
{
    Prepared prepared{std::make_shared<Entry>(), std::move(compiled.rules)};
    Entry &entry = *prepared.entry;
    entry.position = {wanted.default_entry, ~wanted.priority, key.sn};
    entry.request = wanted.request;
    entry.fingerprint = wanted.fingerprint();
    entry.name = wanted.name;
    entry.rules = static_cast<uint8_t>(prepared.rules.size());
    entry.directions = compiled.directions;
    entry.unless_default = compiled.unless_default;
    entry.by_interface = std::any_of(prepared.rules.begin(), prepared.rules.end(), by_interface);
    auto element = prepared.rules.size() == 1 ? packet::mappable(prepared.rules.front()) : std::nullopt;
    if (element && !map_data_of({element->shape, {0, element->element.mask}}).empty()) {
        entry.element = std::move(element->element);
        entry.shape = std::make_shared<const packet::Shape>(std::move(element->shape));
    }
    return prepared;
}

// ---- filling --------------------------------------------------------------------------------------------------------

void Draft::set(const AceKey &key, const Requested *wanted, const Prepared *prepared, size_t owner)
{
    ListDraft &list = lists_[{key.app, key.acl}];
    list.owner = owner;
    list.changed[key.sn] = prepared == nullptr ? nullptr : prepared->entry;
    list.conditional[key.sn] = std::nullopt;
    if (prepared == nullptr)
        return;
    list.prepared[key.sn] = {prepared, owner};
    if (prepared->entry->unless_default)
        list.conditional[key.sn] = *wanted;
}

void Draft::set(const Key &hook, const std::optional<Applied> &applied, size_t owner)
{
    hooks_.insert_or_assign(hook, HookDraft{applied, owner});
    if (const auto *apply = std::get_if<ApplyKey>(&hook))
        lists_[list_of(*apply)];
}

// ---- writing --------------------------------------------------------------------------------------------------------

std::map<size_t, int> Draft::write()
{
    size_t rules = 0;
    for (const auto &[key, list] : lists_)
        rules += list.changed.size();
    echo_ = rules <= most_echoes;
    for (auto &[key, list] : lists_)
        write_list(key, list);
    for (const auto &[key, hook] : hooks_)
        write_hook(key, hook);
    remove_lists();
    return errors_;
}

void Draft::write_list(const AclKey &key, ListDraft &list)
{
    const Acl &acl = setting_.model.acls[key];
    toggle_conditional(key, acl, list);
    list.arranged = arrange(acl.list, acl.entries, list.changed);
    read_changing(key, acl, list);
    if (!errors_.empty()) // rules are placed beside others whose handles must be known
        return;
    list.stands = !list.arranged.list.pages.empty() || applied(key);
    if (list.stands && !acl.stands)
        setting_.table.add_chain(batch_, head_name(key), list.owner);
    for (const PageChange &change : list.arranged.changes)
        if (change.before == nullptr)
            setting_.table.add_chain(batch_, page_name(key, change.after->number), list.owner);
    write_jumps(key, list);
    for (const PageChange &change : list.arranged.changes)
        if (change.after != nullptr && change.after->run != nullptr)
            write_run(key, list, change);
        else if (change.after != nullptr)
            write_page(key, list, change);
}

// Entries that stand only while there is no default entry come and go with the first and the last one.
void Draft::toggle_conditional(const AclKey &key, const Acl &acl, ListDraft &list)
{
    std::set<uint64_t> defaults = acl.defaults;
    std::map<uint64_t, const Requested *> conditional;
    for (const auto &[sn, wanted] : acl.conditional)
        conditional[sn] = &wanted;
    for (const auto &[sn, entry] : list.changed) {
        defaults.erase(sn);
        conditional.erase(sn);
        if (entry != nullptr && entry->position.last)
            defaults.insert(sn);
    }
    for (const auto &[sn, wanted] : list.conditional)
        if (wanted)
            conditional[sn] = &*wanted;
    for (const auto &[sn, wanted] : conditional) {
        const auto old = acl.entries.find(sn);
        const bool changes = list.changed.contains(sn);
        const bool stood = changes ? list.changed[sn]->rules != 0 : old != acl.entries.end() && stands(old->second);
        if (stood != defaults.empty()) {
            const AceKey ace{key.app, key.acl, sn};
            packet::Compiled compiled = compile(*wanted, setting_.config);
            if (!defaults.empty())
                compiled.rules.clear();
            toggled_.push_back(std::make_unique<Prepared>(prepare(ace, *wanted, std::move(compiled))));
            list.changed[sn] = toggled_.back()->entry;
            list.changed[sn]->unless_default = true;
            list.prepared[sn] = {toggled_.back().get(), changes ? list.prepared[sn].second : list.owner};
        }
    }
}

// Whether entries that leave a page go on elsewhere or as others, with their counters, or handles have to be known.
bool Draft::needs_reading(const ListDraft &list, const PageChange &change) const
{
    if (change.before == nullptr || change.before->run != nullptr)
        return false;
    std::set<EntryPointer> staying;
    if (change.after != nullptr)
        staying.insert(change.after->entries.begin(), change.after->entries.end());
    const auto &entries = change.before->entries;
    return std::any_of(entries.begin(), entries.end(), [&](const EntryPointer &entry) {
        const auto changed = list.changed.find(entry->position.sn);
        const bool removed = changed != list.changed.end() && !stands(changed->second);
        const bool stays = staying.contains(entry);
        return (change.after != nullptr && !known(*entry)) || (!stays && !removed);
    });
}

void Draft::read_changing(const AclKey &key, const Acl &acl, ListDraft &list)
{
    bool jumps = false;
    for (const PageChange &change : list.arranged.changes) {
        jumps = jumps || change.before == nullptr || change.after == nullptr;
        int error = 0;
        if (change.before != nullptr && change.before->run != nullptr)
            error = read_run(key, list, change);
        else if (needs_reading(list, change))
            error = read_page(key, acl, list, *change.before);
        if (error != 0)
            fail(everybody, error);
    }
    const bool unknown = std::any_of(acl.list.pages.begin(), acl.list.pages.end(),
                                     [](const PagePointer &page) { return page->jump == 0; });
    if (jumps && unknown)
        if (const int error = read_jumps(key, acl); error != 0)
            fail(everybody, error);
}

// ESTALE: the kernel does not have what it had.
int Draft::read_page(const AclKey &key, const Acl &acl, ListDraft &list, const Page &page)
{
    std::vector<RuleImage> rules;
    if (const int error = setting_.table.read_rules(setting_.netlink, page_name(key, page.number), rules); error != 0)
        return error;
    for (const EntryPointer &entry : page.entries)
        entry->handles.clear();
    for (RuleImage &image : rules) {
        const auto *ace = image.tag ? std::get_if<AceKey>(&image.tag->key) : nullptr;
        const auto entry = ace == nullptr ? acl.entries.end() : acl.entries.find(ace->sn);
        if (entry == acl.entries.end())
            continue;
        entry->second->handles.push_back(image.handle);
        list.images[entry->second.get()].push_back(std::move(image));
    }
    const bool whole =
        std::all_of(page.entries.begin(), page.entries.end(), [](const EntryPointer &entry) { return known(*entry); });
    return whole ? 0 : ESTALE;
}

// The counters of entries that are to be elsewhere, or others. And where the run's maps are looked in, when one comes
// or goes.
int Draft::read_run(const AclKey &key, ListDraft &list, const PageChange &change)
{
    const std::string page = page_name(key, change.before->number);
    Run &run = *change.before->run;
    std::map<packet::Layers::Place, std::vector<EntryPointer>> moving;
    for (const Placement &placement : change.placements) {
        const auto changed = list.changed.find(placement.entry->position.sn);
        const bool removed = changed != list.changed.end() && !stands(changed->second);
        if (placement.from && !removed)
            moving[{*placement.from, placement.entry->element.mask}].push_back(placement.entry);
    }
    for (const auto &[place, entries] : moving)
        if (const int error = read_moving(map_name(page, map_part(*run.shape, place)), entries, list); error != 0)
            return error;
    const bool known = std::all_of(run.maps.begin(), run.maps.end(), [](const auto &map) { return map.second != 0; });
    return known || change.after == nullptr ? 0 : read_lookups(page, run);
}

int Draft::read_jumps(const AclKey &key, const Acl &acl)
{
    std::vector<RuleImage> rules;
    const int error = setting_.table.read_rules(setting_.netlink, head_name(key), rules);
    for (const RuleImage &rule : rules)
        for (const PagePointer &page : acl.list.pages)
            if (rule.tag && leads_to_page(*rule.tag) && rule.tag->page == page->number)
                page->jump = rule.handle;
    return error;
}

bool Draft::applied(const AclKey &acl) const
{
    const auto names = [&acl](const Key &key, const Applied &applied) {
        const auto *apply = std::get_if<ApplyKey>(&key);
        return apply != nullptr && list_of(*apply) == acl && !applied.interface.empty();
    };
    for (const auto &[key, hook] : hooks_)
        if (hook.applied && names(key, *hook.applied))
            return true;
    return std::any_of(setting_.model.hooks.begin(), setting_.model.hooks.end(), [&](const auto &hook) {
        return !hooks_.contains(hook.first) && names(hook.first, hook.second);
    });
}

void Draft::write_jumps(const AclKey &key, const ListDraft &list)
{
    std::set<const Page *> fresh;
    for (const PageChange &change : list.arranged.changes)
        if (change.before == nullptr)
            fresh.insert(change.after.get());
    const auto &pages = list.arranged.list.pages;
    for (size_t i = 0; i < pages.size(); ++i) {
        if (!fresh.contains(pages[i].get()))
            continue;
        const auto next = std::find_if(pages.begin() + static_cast<ptrdiff_t>(i), pages.end(),
                                       [&](const PagePointer &page) { return !fresh.contains(page.get()); });
        const Place place = next == pages.end() ? Place{} : Place{Place::before, (*next)->jump};
        nlmsghdr *rule = setting_.table.add_rule(batch_, head_name(key), place, echo_, list.owner);
        jumps_.emplace_back(batch_.size(), pages[i]);
        const Run *run = pages[i]->run.get();
        put_jump_expressions(rule, Batch::message_room - 512,
                             run == nullptr ? std::span<const packet::Test>() : run->shape->guards,
                             page_name(key, pages[i]->number));
        Tag tag;
        tag.purpose = run == nullptr ? Purpose::page : Purpose::run;
        tag.page = pages[i]->number;
        put_user_data(rule, tag);
    }
}

// Insertions first, each before the next old rule, while all of the old ones are in their places.
void Draft::write_page(const AclKey &key, const ListDraft &list, const PageChange &change)
{
    const std::string chain = page_name(key, change.after->number);
    std::map<uint64_t, const Entry *> old;
    if (change.before != nullptr)
        for (const EntryPointer &entry : change.before->entries)
            old[entry->position.sn] = entry.get();
    std::set<const Entry *> in_place;
    std::vector<std::pair<EntryPointer, Place>> insertions;
    Place place;
    for (auto at = change.after->entries.rbegin(); at != change.after->entries.rend(); ++at) {
        const auto before = old.find((*at)->position.sn);
        if (before != old.end() && replaces(**at, *before->second)) {
            in_place.insert(before->second);
            place = {Place::before, before->second->handles.front()};
        } else {
            insertions.emplace_back(*at, place);
        }
    }
    for (auto insertion = insertions.rbegin(); insertion != insertions.rend(); ++insertion)
        write_entry(key, list, chain, insertion->first, insertion->second);
    for (const EntryPointer &entry : change.after->entries)
        if (const auto before = old.find(entry->position.sn);
            before != old.end() && before->second != entry.get() && in_place.contains(before->second))
            replace_entry(key, list, chain, entry, *before->second);
    for (const auto &[sn, entry] : old) {
        const auto prepared = list.prepared.find(sn);
        const size_t owner = prepared == list.prepared.end() ? list.owner : prepared->second.second;
        if (!in_place.contains(entry))
            for (const uint64_t handle : entry->handles)
                setting_.table.remove_rule(batch_, chain, handle, owner);
    }
}

// Elements go before others come into their places.
void Draft::write_run(const AclKey &key, const ListDraft &list, const PageChange &change)
{
    const std::string page = page_name(key, change.after->number);
    const Run &run = *change.after->run;
    const auto map_of = [&](const Entry &entry, uint32_t layer) {
        return map_name(page, map_part(*run.shape, {layer, entry.element.mask}));
    };
    write_maps(page, change, list.owner);
    for (const auto &[entry, from, to] : change.placements) {
        setting_.netlink.step();
        if (from && run.layers.has({*from, entry->element.mask}))
            setting_.table.remove_element(batch_, map_of(*entry, *from), entry->element, list.owner);
    }
    for (const auto &[entry, from, to] : change.placements) {
        setting_.netlink.step();
        if (!to)
            continue;
        const auto prepared = list.prepared.find(entry->position.sn);
        Tag tag = tag_of({key.app, key.acl, entry->position.sn}, *entry, 0);
        tag.made_by = setting_.made_by;
        setting_.table.add_element(batch_, map_of(*entry, *to), entry->element,
                                   counters_so_far(key, list, entry->position.sn), tag,
                                   prepared == list.prepared.end() ? list.owner : prepared->second.second);
    }
    for (const auto &[place, handle] : run.maps)
        if (!run.layers.has(place)) {
            setting_.table.remove_rule(batch_, page, handle, list.owner);
            setting_.table.remove_map(batch_, map_name(page, map_part(*run.shape, place)), list.owner);
        }
}

void Draft::write_entry(const AclKey &key, const ListDraft &list, const std::string &chain, const EntryPointer &entry,
                        Place place)
{
    const auto prepared = list.prepared.find(entry->position.sn);
    if (prepared == list.prepared.end()) { // it moves as it is
        const auto images = list.images.find(entry.get());
        if (images == list.images.end() || images->second.size() != entry->rules)
            return fail(list.owner, ENOENT);
        for (size_t i = 0; i < entry->rules; ++i) {
            setting_.table.add_image(batch_, chain, place, images->second[i], list.owner, echo_);
            rules_.emplace_back(batch_.size(), entry, i);
        }
        return;
    }
    Counters start = counters_so_far(key, list, entry->position.sn);
    for (size_t i = 0; i < entry->rules; ++i, start = {})
        write_rule(key, *prepared->second.first, i, chain, place, start, prepared->second.second);
}

Counters Draft::counters_so_far(const AclKey &key, const ListDraft &list, uint64_t sn) const
{
    Counters sum;
    if (list.images.empty())
        return sum;
    const Acl &acl = setting_.model.acls.at(key);
    const auto old = acl.entries.find(sn);
    const auto images = old == acl.entries.end() ? list.images.end() : list.images.find(old->second.get());
    if (images == list.images.end())
        return sum;
    for (const RuleImage &image : images->second) {
        sum.packets += image.counters.packets;
        sum.bytes += image.counters.bytes;
    }
    return sum;
}

void Draft::replace_entry(const AclKey &key, const ListDraft &list, const std::string &chain, const EntryPointer &entry,
                          const Entry &old)
{
    const auto images = list.images.find(&old);
    const auto &[prepared, owner] = list.prepared.at(entry->position.sn);
    for (size_t i = 0; i < entry->rules; ++i) {
        const bool have = images != list.images.end() && i < images->second.size();
        write_rule(key, *prepared, i, chain, {Place::instead, old.handles[i]},
                   have ? images->second[i].counters : Counters(), owner);
    }
}

void Draft::write_rule(const AclKey &key, const Prepared &prepared, size_t rule, const std::string &chain, Place place,
                       const Counters &start, size_t owner)
{
    for (const packet::Action &action : prepared.rules[rule].actions)
        if (const auto *count = std::get_if<packet::CountOn>(&action)) {
            const std::string name = packet::counter_name(count->counter);
            if (!setting_.model.counters.contains(name) && counters_.insert(name).second)
                setting_.table.add_counter(batch_, name, owner);
        }
    nlmsghdr *message = setting_.table.add_rule(batch_, chain, place, echo_, owner);
    rules_.emplace_back(batch_.size(), prepared.entry, rule);
    if (!put_rule_expressions(message, Batch::message_room - 512, prepared.rules[rule], setting_.interfaces, start))
        return fail(owner, ENODEV);
    Tag tag = tag_of({key.app, key.acl, prepared.entry->position.sn}, *prepared.entry, rule);
    tag.made_by = setting_.made_by;
    put_user_data(message, tag);
}

void Draft::write_hook(const Key &key, const HookDraft &hook)
{
    const auto old = setting_.model.hooks.find(key);
    const bool stood = old != setting_.model.hooks.end() && !old->second.interface.empty();
    for (const bool out : sides_of(key)) {
        const std::string chain = hook_name(key, out);
        if (stood)
            setting_.table.remove_chain(batch_, chain, hook.owner);
        if (!hook.applied || hook.applied->interface.empty())
            continue;
        setting_.table.add_chain(batch_, chain, {out, hook.applied->interface, priority_of(key)}, hook.owner);
        write_hook_rules(chain, key, hook);
    }
}

void Draft::write_hook_rules(const std::string &chain, const Key &key, const HookDraft &hook)
{
    Tag tag;
    tag.key = key;
    tag.request = hook.applied->request;
    tag.fingerprint = hook.applied->fingerprint;
    tag.interface = hook.applied->interface;
    tag.made_by = setting_.made_by;
    const auto *apply = std::get_if<ApplyKey>(&key);
    if (apply != nullptr && !setting_.config.double_tagged) {
        nlmsghdr *guard = setting_.table.add_rule(batch_, chain, {}, false, hook.owner);
        put_rule_expressions(guard, Batch::message_room - 512, packet::double_tagged_drop(), setting_.interfaces, {});
        tag.purpose = Purpose::guard;
        put_user_data(guard, tag);
    }
    nlmsghdr *rule = setting_.table.add_rule(batch_, chain, {}, false, hook.owner);
    if (apply != nullptr)
        put_jump_expressions(rule, Batch::message_room - 512, {}, head_name(list_of(*apply)));
    else
        put_counted_drop(rule);
    tag.purpose = Purpose::hook;
    put_user_data(rule, tag);
}

// Once nothing jumps to them any more.
void Draft::remove_lists()
{
    for (const auto &[key, list] : lists_) {
        const Acl &acl = setting_.model.acls[key];
        for (const PageChange &change : list.arranged.changes) {
            if (change.after != nullptr)
                continue;
            if (list.stands)
                setting_.table.remove_rule(batch_, head_name(key), change.before->jump, list.owner);
        }
        if (!list.stands && acl.stands)
            setting_.table.remove_chain(batch_, head_name(key), list.owner);
        for (const PageChange &change : list.arranged.changes)
            if (change.after == nullptr)
                remove_page(page_name(key, change.before->number), change.before->run.get(), list.owner);
    }
}

// ---- taking ---------------------------------------------------------------------------------------------------------

void Draft::take(const Outcome &outcome)
{
    const auto handle = [&outcome](size_t place) {
        const auto found = outcome.handles.find(place);
        return found == outcome.handles.end() ? 0 : found->second;
    };
    for (const auto &[place, entry, rule] : rules_)
        entry->handles.clear();
    for (const auto &[place, entry, rule] : rules_)
        if (handle(place) != 0)
            entry->handles.push_back(handle(place));
    for (const auto &[place, page] : jumps_)
        page->jump = handle(place);
    Model &model = setting_.model;
    model.counters.merge(counters_);
    for (auto &[key, list] : lists_) {
        take_runs(list.arranged);
        Acl &acl = model.acls[key];
        acl.stands = list.stands;
        acl.list = std::move(list.arranged.list);
        for (const auto &[sn, entry] : list.changed) {
            setting_.netlink.step();
            acl.defaults.erase(sn);
            model.entries -= acl.entries.erase(sn);
            if (entry == nullptr)
                continue;
            acl.entries[sn] = entry;
            ++model.entries;
            if (entry->position.last)
                acl.defaults.insert(sn);
        }
        for (auto &[sn, wanted] : list.conditional) {
            acl.conditional.erase(sn);
            if (wanted)
                acl.conditional.emplace(sn, std::move(*wanted));
        }
        if (!acl.stands && acl.entries.empty())
            model.acls.erase(key);
    }
    for (const auto &[place, run, map] : lookups_)
        run->maps[map] = handle(place);
    for (const auto &[key, hook] : hooks_) {
        model.hooks.erase(key);
        if (hook.applied)
            model.hooks[key] = *hook.applied;
    }
}

} // namespace plx::plane::nftables
