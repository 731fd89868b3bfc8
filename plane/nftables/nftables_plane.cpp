// See nftables_plane.hpp.
#include "plane/nftables/nftables_plane.hpp"

#include "plane/nftables/read_back.hpp"
#include "plane/nftables/take_up.hpp"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace plx::plane::nftables {

namespace {

// Changes whenever the same entry gives other rules than in the version before: a table of an older node is then made
// anew.
constexpr uint32_t revision = 2;

constexpr size_t most_told = 20; // refusals of one call, in the log

class Digest {
  public:
    void add(uint64_t number)
    {
        for (int i = 0; i < 8; ++i, number >>= 8U)
            hash_ = (hash_ ^ static_cast<uint8_t>(number)) * 0x01000193U;
    }
    void add(std::string_view text)
    {
        for (const char character : text)
            add(static_cast<uint64_t>(character));
        add(text.size());
    }
    uint32_t value() const { return hash_; }

  private:
    uint32_t hash_ = 0x811c9dc5;
};

uint32_t digest_of(const packet::Config &config)
{
    Digest digest;
    digest.add(revision);
    for (const auto &[meter, rate] : config.meters)
        for (const uint64_t number : {uint64_t{meter}, rate.per_second, uint64_t{rate.bytes}, uint64_t{rate.burst}})
            digest.add(number);
    for (const auto &[session, interface] : config.mirrors) {
        digest.add(session);
        digest.add(interface);
    }
    digest.add(config.sample_group.value_or(0));
    digest.add(config.sample_group.has_value());
    for (const auto &udf : config.udf)
        digest.add(udf ? uint64_t{udf->offset} << 16U | uint64_t{udf->size} << 8U | static_cast<uint64_t>(udf->load)
                       : 0);
    for (const Form *form : config.ignored)
        digest.add(form->name);
    digest.add(config.double_tagged);
    return digest.value();
}

// An identifier that two names share is refused where both are.
std::vector<uint32_t> refused_attributes(const packet::Config &config)
{
    std::set<uint32_t> refused, supported;
    for (const Form &form : forms())
        (packet::supports(form, config) || config.ignored.contains(&form) ? supported : refused)
            .insert(static_cast<uint32_t>(form.cls) << 16U | attribute_id(form));
    std::vector<uint32_t> only;
    std::set_difference(refused.begin(), refused.end(), supported.begin(), supported.end(), std::back_inserter(only));
    return only;
}

const uint32_t *port_of(const Key &key)
{
    if (const auto *apply = std::get_if<ApplyKey>(&key))
        return &apply->phyid;
    if (const auto *off = std::get_if<PortOffKey>(&key))
        return &off->phyid;
    return nullptr;
}

Status status_of(int error, const Key &key)
{
    switch (error) {
    case EPERM:
    case EACCES:
        return Status::not_permitted;
    case ENOMEM:
    case ENOSPC:
    case ENFILE:
    case ENOBUFS:
        return Status::table_full;
    case ENODEV:
        return Status::no_interface;
    case ENOENT:
        return port_of(key) != nullptr ? Status::no_interface : Status::plane_error;
    default:
        return Status::plane_error;
    }
}

std::string shown(const Key &key)
{
    if (const auto *ace = std::get_if<AceKey>(&key))
        return "entry " + ace->app + '/' + std::to_string(ace->acl) + '/' + std::to_string(ace->sn);
    if (const auto *apply = std::get_if<ApplyKey>(&key))
        return "apply of " + apply->acl_app + '/' + std::to_string(apply->acl) + " to port " +
               std::to_string(apply->phyid);
    return port_of(key) != nullptr ? "port " + std::to_string(*port_of(key)) : "record of another kind";
}

// What became of it, or would, is to be read: replies were lost, or the table is not what it was taken for.
bool is_unknown(const Outcome &outcome)
{
    const auto stale = outcome.errors.find(everybody);
    return outcome.lost || (stale != outcome.errors.end() && (stale->second == ESTALE || stale->second == ENOENT));
}

} // namespace

NftablesPlane::NftablesPlane(NftablesOptions options, Log log)
    : options_(std::move(options)), log_(std::move(log)), table_(options_.table), made_by_(digest_of(options_.config)),
      refused_attributes_(refused_attributes(options_.config))
{
}

// ---- start ----------------------------------------------------------------------------------------------------------

int NftablesPlane::start()
{
    if (const int error = netlink_.open(NETLINK_NETFILTER); error != 0)
        return error;
    netlink_.set_step([this] { step(); });
    if (const int error = links_.open(); error != 0)
        return error;
    if (const int error = create(); error != 0)
        return error;
    named_ = named_interfaces();
    const int error = take_up(netlink_, table_, made_by_, model_);
    remove_old_meters();
    return error;
}

// Meters of another rate than the configuration's. Those that entries still ask go at the next start: the entries are
// made anew in this one.
void NftablesPlane::remove_old_meters()
{
    for (const std::string &name : model_.counters) {
        const auto is_it = [&name](const auto &meter) { return packet::meter_name(meter.first, meter.second) == name; };
        const auto &meters = options_.config.meters;
        if (!name.starts_with('m') || std::any_of(meters.begin(), meters.end(), is_it))
            continue;
        Batch batch;
        table_.remove_meter(batch, name);
        netlink_.commit(batch);
    }
}

std::string NftablesPlane::holder()
{
    const uint32_t process = table_.read_owner(netlink_);
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    if (process == 0)
        return "";
    return name.empty() ? "another process" : "process " + std::to_string(process) + " (" + name + ')';
}

// Owned where the kernel can keep an owned table beyond its owner's life; a table that dies with the node would let
// everything pass.
int NftablesPlane::create()
{
    std::set<std::string> sets, objects;
    for (const int error : {table_.read_names(netlink_, NFT_MSG_GETSET, NFTA_SET_NAME, sets),
                            table_.read_names(netlink_, NFT_MSG_GETOBJ, NFTA_OBJ_NAME, objects)})
        if (error != 0 && error != ENOENT)
            return error;
    for (owned_ = true;; owned_ = false) {
        Batch batch;
        table_.create(batch, owned_);
        for (const packet::ConstantSet &set : packet::constant_sets())
            if (!sets.contains(std::string(set.name)))
                table_.add_set(batch, set);
        for (const auto &[meter, rate] : options_.config.meters)
            if (!objects.contains(packet::meter_name(meter, rate)))
                table_.add_meter(batch, meter, rate);
        const Outcome outcome = netlink_.commit(batch);
        generation_ = outcome.generation;
        if (outcome.done())
            return 0;
        const int error = outcome.errors.empty() ? ENOBUFS : outcome.errors.begin()->second;
        if (!owned_ || (error != EINVAL && error != EOPNOTSUPP))
            return error;
    }
}

// ---- judging --------------------------------------------------------------------------------------------------------

NftablesPlane::Judged NftablesPlane::judge(const Change &change)
{
    if (!change.wanted)
        return {};
    if (const auto *ace = std::get_if<AceKey>(&change.key))
        return judge_entry(*ace, *change.wanted);
    if (port_of(change.key) == nullptr)
        return {Status::unsupported, "not a thing that this plane can do", {}, {}};
    return judge_hook(change.key, *change.wanted);
}

NftablesPlane::Judged NftablesPlane::judge_entry(const AceKey &key, const Requested &wanted)
{
    packet::Compiled compiled = compile(wanted, options_.config);
    if (compiled.status != Status::ok)
        return {compiled.status, std::move(compiled.text), {}, {}};
    Judged judged{Status::ok, "", prepare(key, wanted, std::move(compiled)), {}};
    share_shape(*judged.entry->entry);
    return judged;
}

// Most entries have the shape of one before.
void NftablesPlane::share_shape(Entry &entry)
{
    constexpr size_t most = 16;
    if (entry.shape == nullptr)
        return;
    const auto same = std::find_if(shapes_.begin(), shapes_.end(),
                                   [&entry](const ShapePointer &shape) { return *shape == *entry.shape; });
    if (same != shapes_.end())
        entry.shape = *same;
    else if (shapes_.insert(shapes_.begin(), entry.shape); shapes_.size() > most)
        shapes_.pop_back();
}

// A port that is not here belongs to another node: nothing is programmed, with success.
NftablesPlane::Judged NftablesPlane::judge_hook(const Key &key, const Requested &wanted) const
{
    const auto *apply = std::get_if<ApplyKey>(&key);
    if (apply != nullptr && apply->direction > 1)
        return {Status::out_of_range, "the direction is neither 0 (in) nor 1 (out)", {}, {}};
    return {Status::ok, "", {}, Applied{wanted.request, wanted.fingerprint(), interface_of(key)}};
}

uint8_t NftablesPlane::directions_used(const AclKey &acl) const
{
    uint8_t used = 0;
    for (const auto &[key, applied] : model_.hooks)
        if (const auto *apply = std::get_if<ApplyKey>(&key);
            apply != nullptr && !applied.interface.empty() && AclKey{apply->acl_app, apply->acl} == acl)
            used = static_cast<uint8_t>(used | (apply->direction == 0 ? packet::ingress : packet::egress));
    return used;
}

// What depends on the other entries and applies: the room, and directions in which an ACL cannot be applied.
void NftablesPlane::judge_together(std::span<const Change> changes, std::vector<Judged> &judged) const
{
    const std::string wrong_way = "looks at a port that is not known in the direction in which the list is applied";
    std::map<AclKey, uint8_t> used, allowed;
    size_t entries = model_.entries;
    for (size_t i = 0; i < changes.size(); ++i) {
        const auto *ace = std::get_if<AceKey>(&changes[i].key);
        if (ace == nullptr)
            continue;
        const AclKey acl{ace->app, ace->acl};
        const auto list = model_.acls.find(acl);
        const bool there = list != model_.acls.end() && list->second.entries.contains(ace->sn);
        if (!judged[i].entry) {
            entries -= there && !changes[i].wanted ? 1 : 0;
            continue;
        }
        const uint8_t directions = judged[i].entry->entry->directions;
        if (!used.contains(acl))
            used[acl] = directions_used(acl);
        if ((used[acl] & ~directions) != 0)
            judged[i] = {Status::unsupported, wrong_way, {}, {}};
        else if (!there && entries >= options_.table_size)
            judged[i] = {Status::table_full, "the table has its " + std::to_string(entries) + " entries", {}, {}};
        else
            entries += there ? 0 : 1;
        if (judged[i].entry)
            allowed.try_emplace(acl, packet::ingress | packet::egress).first->second &= directions;
    }
    for (size_t i = 0; i < changes.size(); ++i) {
        const auto *apply = std::get_if<ApplyKey>(&changes[i].key);
        if (apply == nullptr || !judged[i].applied || judged[i].applied->interface.empty())
            continue;
        const AclKey acl{apply->acl_app, apply->acl};
        uint8_t directions = allowed.contains(acl) ? allowed[acl] : packet::ingress | packet::egress;
        if (const auto list = model_.acls.find(acl); list != model_.acls.end())
            for (const auto &[sn, entry] : list->second.entries)
                directions &= entry->directions;
        if ((directions & (apply->direction == 0 ? packet::ingress : packet::egress)) == 0)
            judged[i] = {Status::unsupported, wrong_way, {}, {}};
    }
}

// ---- programming ----------------------------------------------------------------------------------------------------

std::vector<NftablesPlane::Judged> NftablesPlane::judge_all(std::span<const Change> changes)
{
    std::vector<Judged> judged;
    judged.reserve(changes.size());
    for (const Change &change : changes) {
        step();
        judged.push_back(judge(change));
    }
    judge_together(changes, judged);
    return judged;
}

// The kernel's first word: what it would say of the rest without what it refuses is not asked.
std::vector<Answer> NftablesPlane::try_out(std::span<const Change> changes)
{
    std::vector<Judged> judged = judge_all(changes);
    Draft next = draft(changes, judged);
    std::map<size_t, int> errors = next.write();
    if (errors.empty() && next.batch().size() != 0)
        if (const Outcome outcome = netlink_.try_out(next.batch()); !is_unknown(outcome))
            errors = outcome.errors;
    refuse(changes, judged, errors);
    std::vector<Answer> answers(changes.size());
    for (size_t i = 0; i < changes.size(); ++i) {
        answers[i].status = judged[i].status;
        answers[i].text = judged[i].text;
    }
    return answers;
}

std::vector<Answer> NftablesPlane::program(std::span<const Change> changes)
{
    std::vector<Judged> judged = judge_all(changes);
    commit(changes, judged);
    std::vector<Answer> answers(changes.size());
    size_t refused = 0;
    for (size_t i = 0; i < changes.size(); ++i) {
        answers[i].status = judged[i].status;
        answers[i].text = judged[i].text;
        waiting_.erase(changes[i].key);
        if (judged[i].status != Status::ok && ++refused <= most_told)
            tell(changes[i].key, judged[i]);
        if (judged[i].status == Status::no_interface || judged[i].status == Status::out_of_range)
            waiting_.insert(changes[i].key);
    }
    if (refused > most_told)
        log_("and " + std::to_string(refused - most_told) + " more were refused");
    return answers;
}

Draft NftablesPlane::draft(std::span<const Change> changes, const std::vector<Judged> &judged)
{
    Draft draft({model_, table_, netlink_, options_.config, links_, made_by_});
    for (size_t i = 0; i < changes.size(); ++i) {
        const Change &change = changes[i];
        step();
        if (judged[i].status != Status::ok)
            continue;
        if (const auto *ace = std::get_if<AceKey>(&change.key))
            draft.set(*ace, change.wanted ? &*change.wanted : nullptr, judged[i].entry ? &*judged[i].entry : nullptr,
                      i);
        else if (port_of(change.key) != nullptr)
            draft.set(change.key, judged[i].applied, i);
    }
    return draft;
}

// Until the kernel takes what is left.
void NftablesPlane::commit(std::span<const Change> changes, std::vector<Judged> &judged)
{
    for (int rereads = 0;;) {
        Draft next = draft(changes, judged);
        Outcome outcome;
        outcome.errors = next.write();
        if (outcome.errors.empty() && next.batch().size() != 0) {
            outcome = netlink_.commit(next.batch());
            errors_ += outcome.errors.size() + (outcome.lost ? 1 : 0);
            generation_ = outcome.generation;
        }
        if (outcome.done())
            return next.take(outcome);
        if (is_unknown(outcome) && rereads++ == 0) {
            reread();
            continue;
        }
        if (outcome.errors.empty())
            outcome.errors[everybody] = ENOBUFS;
        refuse(changes, judged, outcome.errors);
    }
}

void NftablesPlane::refuse(std::span<const Change> changes, std::vector<Judged> &judged,
                           const std::map<size_t, int> &errors)
{
    for (size_t i = 0; i < changes.size(); ++i)
        for (const size_t owner : {i, everybody})
            if (const auto error = errors.find(owner); error != errors.end() && judged[i].status == Status::ok) {
                judged[i].status = status_of(error->second, changes[i].key);
                judged[i].text = std::string(strerror(error->second)) + " (" + std::to_string(error->second) + ')';
            }
}

void NftablesPlane::tell_error(const char *what, int error)
{
    ++errors_;
    log_(std::string(what) + strerror(error));
}

// What the kernel has is what is in force, whatever was meant.
void NftablesPlane::reread()
{
    log_("reading the kernel's table again");
    Model model;
    if (const int error = take_up(netlink_, table_, made_by_, model); error != 0)
        tell_error("cannot read it: ", error);
    for (const auto &[key, acl] : model_.acls)
        if (!acl.conditional.empty())
            model.acls[key].conditional = acl.conditional;
    for (const auto &[key, applied] : model_.hooks)
        if (applied.interface.empty())
            model.hooks.emplace(key, applied);
    model_ = std::move(model);
}

void NftablesPlane::tell(const Key &key, const Judged &judged) const
{
    const std::string_view status = status_text(static_cast<int32_t>(judged.status));
    log_(shown(key) + ": " + std::string(status) + (judged.text.empty() ? "" : ": " + judged.text));
}

// ---- looking --------------------------------------------------------------------------------------------------------

std::map<Key, Installed> NftablesPlane::installed() const
{
    std::map<Key, Installed> all;
    for (const auto &[key, acl] : model_.acls)
        for (const auto &[sn, entry] : acl.entries) {
            step();
            if (!entry->unless_default) // what they ask for has to be known
                all[AceKey{key.app, key.acl, sn}] = {entry->request, entry->fingerprint};
        }
    for (const auto &[key, applied] : model_.hooks)
        all[key] = {applied.request, applied.interface == interface_of(key) ? applied.fingerprint : 0};
    return all;
}

std::optional<std::vector<std::pair<Key, Installed>>> NftablesPlane::read_back(const std::string &app)
{
    InForce found;
    const int error = nftables::read_back(netlink_, table_, made_by_, model_, app, found);
    if (error != 0)
        tell_error("cannot read the kernel's table: ", error);
    return error == 0 ? std::optional(std::move(found)) : std::nullopt;
}

Description NftablesPlane::describe() const
{
    Description description{"nftables", options_.table_size, model_.entries};
    for (const auto &[port, interface] : options_.config.ports)
        description.ports.push_back(port);
    description.refused_attributes = refused_attributes_;
    description.errors = errors_;
    return description;
}

// An entry may be several rules.
NftablesPlane::Counted NftablesPlane::read_page(const AclKey &key, const Page &page)
{
    std::map<AceKey, Counters> sums;
    std::vector<RuleImage> rules;
    table_.read_rules(netlink_, page_name(key, page.number), rules);
    for (const RuleImage &rule : rules)
        if (const auto *ace = rule.tag ? std::get_if<AceKey>(&rule.tag->key) : nullptr) {
            sums[*ace].packets += rule.counters.packets;
            sums[*ace].bytes += rule.counters.bytes;
        }
    counted_ = {key, page.last()};
    return {sums.begin(), sums.end()};
}

// So many of a run, behind those that were read before.
NftablesPlane::Counted NftablesPlane::read_run(const AclKey &key, const Page &page)
{
    constexpr size_t most = 1024;
    const bool on = counted_ && counted_->first == key;
    auto at = on ? page.run->entries.upper_bound(counted_->second) : page.run->entries.begin();
    std::map<packet::Layers::Place, std::vector<packet::Element>> elements;
    for (size_t left = most; at != page.run->entries.end() && left > 0; ++at, --left) {
        elements[{at->second->layer, at->second->element.mask}].push_back(at->second->element);
        counted_ = {key, at->first};
    }
    Counted all;
    for (const auto &[place, some] : elements) {
        std::vector<ElementImage> images;
        const std::string map = map_name(page_name(key, page.number), map_part(*page.run->shape, place));
        table_.read_elements(netlink_, map, some, images);
        for (const ElementImage &image : images)
            if (const auto *ace = image.tag ? std::get_if<AceKey>(&image.tag->key) : nullptr)
                all.emplace_back(*ace, image.counters);
    }
    return all;
}

// A page, or a part of a run, at a time.
std::vector<std::pair<AceKey, Counters>> NftablesPlane::counters()
{
    auto acl = counted_ ? model_.acls.lower_bound(counted_->first) : model_.acls.begin();
    for (; acl != model_.acls.end(); ++acl)
        for (const PagePointer &page : acl->second.list.pages)
            while (!counted_ || counted_->first < acl->first || counted_->second < page->last())
                if (Counted some = page->run ? read_run(acl->first, *page) : read_page(acl->first, *page);
                    !some.empty())
                    return some;
    counted_.reset();
    return {};
}

void NftablesPlane::set_ports(std::map<uint32_t, std::string> ports)
{
    ports_changed_ = ports_changed_ || ports != options_.config.ports;
    options_.config.ports = std::move(ports);
}

std::vector<Key> NftablesPlane::look()
{
    std::set<Key> keys;
    links_.refresh();
    const std::map<std::string, uint32_t> named = named_interfaces();
    if (std::exchange(ports_changed_, false) || named != named_) {
        named_ = named;
        keys.swap(waiting_);
        take_moved_hooks(keys);
        take_entries_by_interface(keys);
    }
    if (!owned_)
        take_foreign_changes(keys);
    return {keys.begin(), keys.end()};
}

std::map<std::string, uint32_t> NftablesPlane::named_interfaces() const
{
    std::map<std::string, uint32_t> named;
    for (const auto *names : {&options_.config.ports, &options_.config.mirrors})
        for (const auto &[number, name] : *names)
            named[name] = links_.index_of(name).value_or(0);
    return named;
}

// Those whose chains went with their interfaces, and those that are to be elsewhere now.
void NftablesPlane::take_moved_hooks(std::set<Key> &keys)
{
    for (const Key &key : lost_hooks(netlink_, table_, model_))
        model_.hooks[key] = {};
    for (const auto &[key, applied] : model_.hooks)
        if (applied.interface != interface_of(key))
            keys.insert(key);
}

// Rules know other interfaces by their numbers.
void NftablesPlane::take_entries_by_interface(std::set<Key> &keys) const
{
    for (const auto &[key, acl] : model_.acls)
        for (const auto &[sn, entry] : acl.entries)
            if (entry->by_interface)
                keys.insert(AceKey{key.app, key.acl, sn});
}

void NftablesPlane::take_foreign_changes(std::set<Key> &keys)
{
    if (netlink_.generation() == generation_)
        return;
    const std::map<Key, Installed> before = installed();
    if (const int error = create(); error != 0)
        tell_error("cannot make the table anew: ", error);
    reread();
    generation_ = netlink_.generation();
    const std::map<Key, Installed> after = installed();
    for (const auto &[key, was] : before)
        if (const auto is = after.find(key); is == after.end() || is->second.fingerprint != was.fingerprint)
            keys.insert(key);
}

std::string NftablesPlane::interface_of(const Key &key) const
{
    const auto port = options_.config.ports.find(*port_of(key));
    return port == options_.config.ports.end() ? "" : port->second;
}

} // namespace plx::plane::nftables
