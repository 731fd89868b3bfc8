// See read_back.hpp.
#include "plane/nftables/read_back.hpp"

#include <algorithm>

namespace plx::plane::nftables {

namespace {

class Reader {
  public:
    Reader(Netlink &netlink, const KernelTable &table, uint32_t made_by, const Model &model, const std::string &app)
        : netlink_(netlink), table_(table), made_by_(made_by), model_(model), app_(app)
    {
    }

    int read(InForce &found);

  private:
    int read_list(const AclKey &acl, InForce &found);
    int read_page(const AclKey &acl, uint32_t page, InForce &found);
    int read_run(const AclKey &acl, uint32_t page, InForce &found);
    int read_hook(const std::string &chain);
    Installed installed(const Tag &tag) const { return {tag.request, tag.made_by == made_by_ ? tag.fingerprint : 0}; }

    Netlink &netlink_;
    const KernelTable &table_;
    uint32_t made_by_;
    const Model &model_;
    const std::string &app_;
    std::map<Key, std::pair<Installed, int>> hooks_; // and how many chains stand
};

int Reader::read(InForce &found)
{
    std::vector<ChainImage> chains;
    if (const int error = table_.read_chains(netlink_, chains); error != 0)
        return error;
    for (const ChainImage &chain : chains) {
        const auto list = list_name(chain.name);
        if (list && (list->page || list->acl.app != app_))
            continue;
        if (const int error = list ? read_list(list->acl, found) : read_hook(chain.name); error != 0)
            return error;
    }
    for (const auto &[key, hook] : hooks_)
        if (hook.second == (std::holds_alternative<ApplyKey>(key) ? 1 : 2))
            found.emplace_back(key, hook.first);
    for (const auto &[key, applied] : model_.hooks)
        if (application_of(key) == app_ && applied.interface.empty() && applied.fingerprint != 0)
            found.push_back({key, {applied.request, applied.fingerprint}});
    for (const auto &[key, acl] : model_.acls)
        for (const auto &[sn, entry] : acl.entries)
            if (key.app == app_ && entry->rules == 0)
                found.push_back({AceKey{key.app, key.acl, sn}, {entry->request, entry->fingerprint}});
    return 0;
}

int Reader::read_list(const AclKey &acl, InForce &found)
{
    std::vector<RuleImage> jumps;
    if (const int error = table_.read_rules(netlink_, head_name(acl), jumps); error != 0)
        return error;
    for (const RuleImage &jump : jumps)
        if (jump.tag && jump.tag->purpose == Purpose::page)
            if (const int error = read_page(acl, jump.tag->page, found); error != 0)
                return error;
    for (const RuleImage &jump : jumps)
        if (jump.tag && jump.tag->purpose == Purpose::run)
            if (const int error = read_run(acl, jump.tag->page, found); error != 0)
                return error;
    return 0;
}

// An entry is in force while its map is looked in.
int Reader::read_run(const AclKey &acl, uint32_t page, InForce &found)
{
    std::vector<RuleImage> lookups;
    const std::string chain = page_name(acl, page);
    if (const int error = table_.read_rules(netlink_, chain, lookups); error != 0)
        return error == ENOENT ? 0 : error;
    for (const RuleImage &lookup : lookups) {
        std::vector<ElementImage> elements;
        if (!lookup.tag || lookup.tag->purpose != Purpose::map)
            continue;
        const int error = table_.read_elements(netlink_, map_name(chain, lookup.tag->map), elements);
        if (error != 0 && error != ENOENT)
            return error;
        for (const ElementImage &element : elements) {
            const auto *ace = element.tag ? std::get_if<AceKey>(&element.tag->key) : nullptr;
            if (ace != nullptr && ace->app == acl.app && ace->acl == acl.acl)
                found.emplace_back(element.tag->key, installed(*element.tag));
        }
    }
    return 0;
}

// An entry's rules stand one behind the other.
int Reader::read_page(const AclKey &acl, uint32_t page, InForce &found)
{
    std::vector<RuleImage> rules;
    if (const int error = table_.read_rules(netlink_, page_name(acl, page), rules); error != 0)
        return error == ENOENT ? 0 : error;
    const Tag *first = nullptr;
    int whole = 0;
    for (const RuleImage &rule : rules) {
        const auto *ace =
            rule.tag && rule.tag->purpose == Purpose::entry ? std::get_if<AceKey>(&rule.tag->key) : nullptr;
        if (ace == nullptr || ace->app != acl.app || ace->acl != acl.acl)
            continue;
        if (rule.tag->rule == 0) {
            first = &*rule.tag;
            whole = 0;
        }
        if (first == nullptr || first->key != rule.tag->key || rule.tag->rule != whole++)
            first = nullptr;
        else if (whole == first->rules)
            found.emplace_back(first->key, installed(*first));
    }
    return 0;
}

int Reader::read_hook(const std::string &chain)
{
    std::vector<RuleImage> rules;
    if (const int error = table_.read_rules(netlink_, chain, rules); error != 0)
        return error == ENOENT ? 0 : error;
    const auto tag = rules.empty() ? std::nullopt : rules.back().tag;
    if (!tag || tag->purpose != Purpose::hook || application_of(tag->key) != app_)
        return 0;
    auto &[programmed, stand] = hooks_[tag->key];
    programmed = installed(*tag);
    ++stand;
    return 0;
}

} // namespace

int read_back(Netlink &netlink, const KernelTable &table, uint32_t made_by, const Model &model, const std::string &app,
              InForce &found)
{
    return Reader(netlink, table, made_by, model, app).read(found);
}

} // namespace plx::plane::nftables
