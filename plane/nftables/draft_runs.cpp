// See draft.hpp: the maps of runs.
#include "plane/nftables/draft.hpp"

#include <algorithm>

namespace plx::plane::nftables {

int Draft::read_moving(const std::string &map, const std::vector<EntryPointer> &entries, ListDraft &list)
{
    std::map<std::string, const Entry *> by_key;
    std::vector<packet::Element> elements;
    for (const EntryPointer &entry : entries) {
        by_key[entry->element.key] = entry.get();
        elements.push_back(entry->element);
    }
    std::vector<ElementImage> images;
    if (const int error = setting_.table.read_elements(setting_.netlink, map, elements, images); error != 0)
        return error;
    for (const ElementImage &image : images)
        if (const auto entry = by_key.find(image.element.key); entry != by_key.end())
            list.images[entry->second].emplace_back().counters = image.counters;
    return 0;
}

int Draft::read_lookups(const std::string &page, Run &run)
{
    std::vector<RuleImage> rules;
    const int error = setting_.table.read_rules(setting_.netlink, page, rules);
    for (auto &[place, handle] : run.maps)
        for (const RuleImage &rule : rules)
            if (rule.tag && rule.tag->map == map_part(*run.shape, place))
                handle = rule.handle;
    return error;
}

// Look-ups stand in the order of the places: those of a layer before those of the next, wherever one comes or goes.
void Draft::write_maps(const std::string &page, const PageChange &change, size_t owner)
{
    const RunPointer &run = change.after->run;
    for (const packet::Layers::Place &place : run->layers.places()) {
        if (run->maps.contains(place))
            continue;
        const std::string part = map_part(*run->shape, place), map = map_name(page, part);
        setting_.table.add_map(batch_, map, run->shape->fields, map_data_of({*run->shape, place}), owner);
        const auto next = run->maps.upper_bound(place);
        const Place where = next == run->maps.end() ? Place{} : Place{Place::before, next->second};
        nlmsghdr *rule = setting_.table.add_rule(batch_, page, where, echo_, owner);
        lookups_.emplace_back(batch_.size(), run, place);
        put_lookup_expressions(rule, Batch::message_room - 512, run->shape->fields, place.second, map);
        Tag tag;
        tag.purpose = Purpose::map;
        tag.map = part;
        put_user_data(rule, tag);
    }
}

void Draft::remove_page(const std::string &page, const Run *run, size_t owner)
{
    setting_.table.remove_chain(batch_, page, owner);
    if (run == nullptr)
        return;
    for (const auto &[place, handle] : run->maps)
        setting_.table.remove_map(batch_, map_name(page, map_part(*run->shape, place)), owner);
}

void Draft::take_runs(Arranged &arranged)
{
    arranged.steps.keep();
    for (const PageChange &change : arranged.changes) {
        if (change.after == nullptr || change.after->run == nullptr)
            continue;
        for (const auto &[entry, from, to] : change.placements)
            if (to)
                entry->handles.clear();
        Run &run = *change.after->run;
        std::erase_if(run.maps, [&run](const auto &map) { return !run.layers.has(map.first); });
        for (const packet::Layers::Place &place : run.layers.places())
            run.maps.try_emplace(place, 0);
    }
}

} // namespace plx::plane::nftables
