// See planes.hpp.
#include "nodes/planes.hpp"

#include "display.hpp"
#include "records/status.hpp"
#include <algorithm>

namespace plx::tool {

namespace {

constexpr size_t parts_at_once = 8;

} // namespace

void Differences::bound()
{
    const size_t kept = std::min(named.size(), most_named);
    unnamed += named.size() - kept;
    named.resize(kept);
}

int Planes::ask(const std::set<NodeName> &nodes)
{
    const int result = questions_.start();
    return result != 0 ? result : questions_.ask(app_, nodes, {}, longest_, sums_);
}

std::optional<Digest> Planes::has(const NodeName &node, std::string &error) const
{
    const auto answer = sums_.find(node);
    error = answer == sums_.end() ? "no answer" : printable(answer->second.error);
    return error.empty() ? std::optional(sum(answer->second.sums)) : std::nullopt;
}

int Planes::compare(const NodeName &node, const Holdings &wanted, Differences &found, std::string &error)
{
    const std::vector<uint32_t> parts = different_parts(wanted.parts(), sums_[node].sums);
    size_t at = 0;
    for (; at < parts.size() && found.named.size() < most_named; at += parts_at_once) {
        const std::span some = std::span(parts).subspan(at, std::min(parts_at_once, parts.size() - at));
        Questions::Answers answers;
        if (const int result = questions_.ask(app_, {node}, some, longest_, answers); result != 0)
            return result;
        if (!answers.contains(node)) {
            error = "no answer";
            return 0;
        }
        take(answers[node].entries, {some.begin(), some.end()}, wanted, found.named);
    }
    found.unnamed += at < parts.size() ? parts.size() - at : 0;
    found.bound();
    if (found.named.empty() && !parts.empty())
        found.named.push_back({"records", "have changed while the plane was read"});
    return 0;
}

// An entry that was refused may still be in the plane as it was before.
void Planes::take(const std::vector<NodeEntry> &entries, const std::set<uint32_t> &parts, const Holdings &wanted,
                  std::vector<Difference> &found) const
{
    std::map<uint64_t, const NodeEntry *> there, refused;
    for (const NodeEntry &entry : entries)
        (entry.status == 0 ? there : refused)[entry.key] = &entry;
    for (const Holdings::One &one : wanted.all()) {
        const auto twin = there.find(one.key);
        if (!parts.contains(static_cast<uint32_t>(part_of(one.key))) ||
            (twin != there.end() && twin->second->fingerprint == one.fingerprint))
            continue;
        const auto refusal = refused.find(one.key);
        const char kind = twin == there.end() ? '+' : '~';
        std::string what = twin == there.end() ? "not in the plane" : "differs in the plane";
        if (refusal != refused.end())
            what = "refused: " + std::string(status_text(refusal->second->status)) + " (" +
                   std::to_string(refusal->second->status) + ')';
        found.push_back({one.name(), what, refusal == refused.end() ? 0 : refusal->second->status, kind});
    }
    for (const auto &[key, entry] : there)
        if (wanted.find(key) == nullptr)
            found.push_back({printable(entry->name), "not in the " + where_, 0, '-'});
}

} // namespace plx::tool
