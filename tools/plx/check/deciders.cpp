// See deciders.hpp.
#include "check/deciders.hpp"

#include <algorithm>

namespace plx::tool {

using namespace plane::packet;

namespace {

constexpr size_t most_groups = 256;
constexpr size_t most_of_a_value = 64;
constexpr size_t most_kept = 1'000'000;

void append(const Bytes &value, std::string &key)
{
    key.append(value.data.begin(), value.data.begin() + value.size);
}

} // namespace

Deciders::Group *Deciders::group_of(std::vector<Place> places)
{
    const auto found =
        std::find_if(groups_.begin(), groups_.end(), [&places](const Group &group) { return group.places == places; });
    if (found != groups_.end())
        return &*found;
    if (groups_.size() == most_groups)
        return nullptr;
    return &groups_.emplace_back(Group{std::move(places), {}});
}

void Deciders::add(const Rule &rule, const PolicyEntry &entry)
{
    std::vector<std::pair<Place, Bytes>> equal;
    Candidate candidate{.rest = {}, .decider = {&entry, rule.verdict}};
    for (const Test &test : rule.tests) {
        if (test.relation == Relation::equal)
            equal.push_back({{test.source, test.mask}, test.value});
        else
            candidate.rest.push_back(test);
    }
    std::sort(equal.begin(), equal.end());
    std::vector<Place> places;
    std::string key;
    for (const auto &[place, value] : equal) {
        places.push_back(place);
        append(value, key);
    }
    Group *group = group_of(std::move(places));
    std::vector<Candidate> *same = group == nullptr || kept_ == most_kept ? nullptr : &group->by_value[key];
    if (same == nullptr || same->size() == most_of_a_value) {
        bounded_ = true;
        return;
    }
    same->push_back(std::move(candidate));
    ++kept_;
}

const Decider *Deciders::covering(const Knowledge &known) const
{
    std::string key;
    for (const Group &group : groups_) {
        key.clear();
        const bool whole = std::all_of(group.places.begin(), group.places.end(), [&](const Place &place) {
            const auto bits = known.bits(place.source, place.mask);
            if (bits)
                append(*bits, key);
            return bits.has_value();
        });
        const auto same = whole ? group.by_value.find(key) : group.by_value.end();
        if (same == group.by_value.end())
            continue;
        const auto covers = [&known](const Candidate &other) { return known.judge(other.rest) == Truth::yes; };
        const auto found = std::find_if(same->second.begin(), same->second.end(), covers);
        if (found != same->second.end())
            return &found->decider;
    }
    return nullptr;
}

} // namespace plx::tool
