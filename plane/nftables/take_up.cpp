// See take_up.hpp.
#include "plane/nftables/take_up.hpp"

#include <algorithm>

namespace plx::plane::nftables {

namespace {

class Reading {
  public:
    Reading(Netlink &netlink, const KernelTable &table, uint32_t made_by, Model &model)
        : netlink_(netlink), table_(table), made_by_(made_by), model_(model)
    {
    }

    int read();

  private:
    int take_hook(const std::string &chain);
    int take_list(const ListName &name);
    int take_page(const AclKey &key, Page &page);
    int take_run(const AclKey &key, Page &page);
    int take_map(const AclKey &key, Page &page, const RuleImage &rule);
    bool take_element(const AclKey &key, Run &run, const packet::Layers::Place &place, const ElementImage &image);
    EntryPointer new_entry(const Tag &tag) const;
    void add_entry(const AclKey &key, const EntryPointer &entry);
    bool take_rule(const AclKey &key, Page &page, const RuleImage &rule);
    void drop_parts(const AclKey &key, Page &page);
    void remove_rest();

    Netlink &netlink_;
    const KernelTable &table_;
    uint32_t made_by_;
    Model &model_;
    Batch mend_;
    std::set<std::string> rest_;           // chains that nothing of ours stands for
    std::map<std::string, MapImage> maps_; // that no page has claimed
};

int Reading::read()
{
    std::vector<ChainImage> chains;
    if (const int error = table_.read_chains(netlink_, chains); error != 0)
        return error;
    for (const ChainImage &chain : chains)
        rest_.insert(chain.name);
    std::vector<MapImage> maps;
    if (const int error = table_.read_maps(netlink_, maps); error != 0)
        return error;
    for (MapImage &map : maps)
        if (map.name.starts_with("acl."))
            maps_.emplace(map.name, std::move(map));
    for (const ChainImage &chain : chains) {
        const auto list = list_name(chain.name);
        if (list && list->page)
            continue;
        if (const int error = list ? take_list(*list) : take_hook(chain.name); error != 0)
            return error;
    }
    if (const int error = table_.read_names(netlink_, NFT_MSG_GETOBJ, NFTA_OBJ_NAME, model_.counters); error != 0)
        return error;
    remove_rest();
    return mend_.size() == 0 || netlink_.commit(mend_).done() ? 0 : EIO;
}

int Reading::take_hook(const std::string &chain)
{
    std::vector<RuleImage> rules;
    if (const int error = table_.read_rules(netlink_, chain, rules); error != 0)
        return error;
    const bool ours =
        std::all_of(rules.begin(), rules.end(), [](const RuleImage &rule) { return rule.tag.has_value(); });
    if (!ours || rules.empty() || rules.back().tag->purpose != Purpose::hook)
        return 0;
    const Tag &tag = *rules.back().tag;
    const bool fresh = tag.made_by == made_by_;
    model_.hooks[tag.key] = {tag.request, fresh ? tag.fingerprint : 0, tag.interface};
    rest_.erase(chain);
    return 0;
}

int Reading::take_list(const ListName &name)
{
    std::vector<RuleImage> jumps;
    const std::string head = head_name(name.acl);
    if (const int error = table_.read_rules(netlink_, head, jumps); error != 0)
        return error;
    rest_.erase(head);
    Acl &acl = model_.acls[name.acl];
    acl.stands = true;
    for (const RuleImage &jump : jumps) {
        const bool run = jump.tag && jump.tag->purpose == Purpose::run;
        const bool ours = run || (jump.tag && jump.tag->purpose == Purpose::page);
        const auto page = std::make_shared<Page>();
        page->jump = jump.handle;
        page->number = ours ? jump.tag->page : 0;
        if (ours && rest_.erase(page_name(name.acl, page->number)) != 0)
            if (const int error = run ? take_run(name.acl, *page) : take_page(name.acl, *page); error != 0)
                return error;
        if (page->entries.empty() && page->run == nullptr) {
            table_.remove_rule(mend_, head, jump.handle, everybody);
            rest_.insert(page_name(name.acl, page->number));
            continue;
        }
        acl.list.next_page = std::max(acl.list.next_page, page->number + 1);
        acl.list.pages.push_back(page);
    }
    return 0;
}

int Reading::take_page(const AclKey &key, Page &page)
{
    std::vector<RuleImage> rules;
    const std::string chain = page_name(key, page.number);
    if (const int error = table_.read_rules(netlink_, chain, rules); error != 0)
        return error;
    for (const RuleImage &rule : rules)
        if (!take_rule(key, page, rule))
            table_.remove_rule(mend_, chain, rule.handle, everybody);
    drop_parts(key, page);
    return 0;
}

// False when the rule does not belong where it is.
bool Reading::take_rule(const AclKey &key, Page &page, const RuleImage &rule)
{
    const auto *ace = rule.tag ? std::get_if<AceKey>(&rule.tag->key) : nullptr;
    if (ace == nullptr || rule.tag->purpose != Purpose::entry || ace->app != key.app || ace->acl != key.acl)
        return false;
    Acl &acl = model_.acls[key];
    const Tag &tag = *rule.tag;
    EntryPointer &entry = acl.entries[ace->sn];
    if (entry != nullptr && (page.entries.empty() || page.entries.back() != entry || entry->handles.size() != tag.rule))
        return false;
    if (entry == nullptr) {
        entry = new_entry(tag);
        page.entries.push_back(entry);
    }
    entry->handles.push_back(rule.handle);
    return true;
}

EntryPointer Reading::new_entry(const Tag &tag) const
{
    auto entry = std::make_shared<Entry>();
    entry->position = {tag.default_entry, ~tag.priority, std::get<AceKey>(tag.key).sn};
    entry->request = tag.request;
    entry->fingerprint = tag.made_by == made_by_ ? tag.fingerprint : 0;
    entry->rules = tag.rules;
    entry->name = tag.name;
    entry->directions = tag.directions;
    entry->unless_default = tag.unless_default;
    entry->by_interface = tag.by_interface;
    return entry;
}

void Reading::add_entry(const AclKey &key, const EntryPointer &entry)
{
    Acl &acl = model_.acls[key];
    acl.entries[entry->position.sn] = entry;
    ++model_.entries;
    if (entry->position.last)
        acl.defaults.insert(entry->position.sn);
}

// ---- runs

int Reading::take_run(const AclKey &key, Page &page)
{
    std::vector<RuleImage> rules;
    const std::string chain = page_name(key, page.number);
    if (const int error = table_.read_rules(netlink_, chain, rules); error != 0)
        return error;
    for (const RuleImage &rule : rules)
        if (const int error = take_map(key, page, rule); error != 0)
            return error;
    if (page.run != nullptr && page.run->entries.empty())
        page.run = nullptr;
    return 0;
}

// A rule that looks in no map of ours goes.
int Reading::take_map(const AclKey &key, Page &page, const RuleImage &rule)
{
    const std::string chain = page_name(key, page.number);
    const bool ours = rule.tag && rule.tag->purpose == Purpose::map;
    const auto map = ours ? maps_.find(map_name(chain, rule.tag->map)) : maps_.end();
    const auto tag = map == maps_.end() ? std::nullopt : map_tag_of(map->second.user_data);
    const bool fits = tag && map_part(tag->shape, tag->place) == rule.tag->map &&
                      (page.run == nullptr || *page.run->shape == tag->shape);
    if (!fits) {
        table_.remove_rule(mend_, chain, rule.handle, everybody);
        return 0;
    }
    std::vector<ElementImage> elements;
    if (const int error = table_.read_elements(netlink_, map->first, elements); error != 0)
        return error;
    if (page.run == nullptr)
        page.run = std::make_shared<Run>(std::make_shared<const packet::Shape>(tag->shape));
    for (const ElementImage &element : elements)
        if (!take_element(key, *page.run, tag->place, element))
            table_.remove_element(mend_, map->first, element.element, everybody);
    if (page.run->layers.has(tag->place)) {
        page.run->maps[tag->place] = rule.handle;
        maps_.erase(map);
    } else {
        table_.remove_rule(mend_, chain, rule.handle, everybody);
    }
    return 0;
}

bool Reading::take_element(const AclKey &key, Run &run, const packet::Layers::Place &place, const ElementImage &image)
{
    const auto *ace = image.tag ? std::get_if<AceKey>(&image.tag->key) : nullptr;
    if (ace == nullptr || image.tag->purpose != Purpose::entry || ace->app != key.app || ace->acl != key.acl)
        return false;
    const Acl &acl = model_.acls[key];
    if (acl.entries.contains(ace->sn) || image.element.key.size() != place.second.size())
        return false;
    const EntryPointer entry = new_entry(*image.tag);
    if (!acl.list.pages.empty() && entry->position < acl.list.pages.back()->last())
        return false;
    entry->element = {image.element.key, place.second, image.element.verdict};
    entry->shape = run.shape;
    entry->rules = 1;
    run.layers.put(*entry, place.first);
    run.entries.emplace(entry->position, entry);
    add_entry(key, entry);
    return true;
}

// Entries of which rules are missing, or that stand out of order.
void Reading::drop_parts(const AclKey &key, Page &page)
{
    Acl &acl = model_.acls[key];
    std::optional<Position> last;
    if (!acl.list.pages.empty())
        last = acl.list.pages.back()->last();
    std::erase_if(page.entries, [&](const EntryPointer &entry) {
        const bool good = entry->handles.size() == entry->rules && (!last || *last < entry->position);
        if (good) {
            last = entry->position;
            add_entry(key, entry);
            return false;
        }
        for (const uint64_t handle : entry->handles)
            table_.remove_rule(mend_, page_name(key, page.number), handle, everybody);
        acl.entries.erase(entry->position.sn);
        return true;
    });
}

// Hooks before what they jump to, and heads before pages.
void Reading::remove_rest()
{
    for (const int step : {0, 1, 2})
        for (const std::string &chain : rest_) {
            const auto list = list_name(chain);
            const int turn = !list ? 0 : list->page ? 2 : 1;
            if (turn == step)
                table_.remove_chain(mend_, chain, everybody);
        }
    for (const auto &[name, map] : maps_)
        table_.remove_map(mend_, name, everybody);
}

} // namespace

int take_up(Netlink &netlink, const KernelTable &table, uint32_t made_by, Model &model)
{
    model = {};
    return Reading(netlink, table, made_by, model).read();
}

std::vector<Key> lost_hooks(Netlink &netlink, const KernelTable &table, const Model &model)
{
    std::vector<Key> lost;
    std::vector<ChainImage> chains;
    if (table.read_chains(netlink, chains) != 0)
        return lost;
    std::set<std::string> names;
    for (const ChainImage &chain : chains)
        names.insert(chain.name);
    for (const auto &[key, applied] : model.hooks) {
        const auto *apply = std::get_if<ApplyKey>(&key);
        const bool in = apply == nullptr || apply->direction == 0;
        const bool out = apply == nullptr || apply->direction == 1;
        const bool there =
            (!in || names.contains(hook_name(key, false))) && (!out || names.contains(hook_name(key, true)));
        if (!applied.interface.empty() && !there)
            lost.push_back(key);
    }
    return lost;
}

} // namespace plx::plane::nftables
