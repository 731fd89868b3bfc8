// A policy's ACLs and applies, and what is checked across them. policy_reader.hpp tells how a document is read.
#include "policy.hpp"

#include "policy_reader.hpp"
#include <algorithm>
#include <fstream>
#include <iostream>

namespace plx::tool {

namespace {

constexpr uint32_t most_ports_of_an_apply = 4096;
constexpr size_t most_applies = 100'000;
constexpr std::string_view directions[] = {"in", "out"};

} // namespace

const Field<PolicyReader> PolicyReader::policy_fields[] = {
    {"application", true,
     [](PolicyReader &self, const Event &value, PolicyReader &) {
         self.name(value, "the application type", self.policy_.application);
     }},
    {"acls", true,
     [](PolicyReader &self, const Event &list, PolicyReader &) {
         self.items(list, "acls", [&self](const Event &item) { self.acl(item); });
     }},
    {"applies", false, [](PolicyReader &self, const Event &list, PolicyReader &) {
         self.items(list, "applies", [&self](const Event &item) { self.apply(item); });
     }}};

Policy PolicyReader::read()
{
    fields(document_.next(), "the policy", policy_fields, *this);
    document_.finish();
    bind();
    return std::move(policy_);
}

using AclDraft = std::pair<PolicyAcl, bool>; // and whether it has a number

const Field<AclDraft> PolicyReader::acl_fields[] = {
    {"id", true,
     [](PolicyReader &self, const Event &value, AclDraft &draft) {
         draft.first.at = value.at;
         draft.second = self.number(value, "the ACL's id", draft.first.id);
     }},
    {"name", false,
     [](PolicyReader &self, const Event &value, AclDraft &draft) {
         self.name(value, "the ACL's name", draft.first.name);
     }},
    {"class", true,
     [](PolicyReader &self, const Event &value, AclDraft &draft) {
         self.number(value, "the ACL's class", draft.first.cls);
     }},
    {"entries", true, [](PolicyReader &self, const Event &list, AclDraft &draft) {
         self.items(list, "entries", [&](const Event &item) { self.entry(item, draft.first); });
     }}};

void PolicyReader::acl(const Event &value)
{
    AclDraft draft{{.at = value.at}, false};
    fields(value, "an ACL", acl_fields, draft);
    auto &[acl, known] = draft;
    all_acls_known_ = all_acls_known_ && known;
    if (!known)
        return;
    if (const auto [first, fresh] = acls_.try_emplace(acl.id, acl.at); !fresh)
        errors_.add(acl.at, "ACL " + std::to_string(acl.id) + " is there twice, first on " + line_of(first->second));
    check_entries(acl);
    policy_.acls.push_back(std::move(acl));
}

void PolicyReader::check_entries(const PolicyAcl &acl)
{
    const auto &entries = acl.entries;
    const auto ascending = [](const PolicyEntry &a, const PolicyEntry &b) { return a.sn >= b.sn; };
    if (std::adjacent_find(entries.begin(), entries.end(), ascending) != entries.end())
        check_sns(acl);
    const PolicyEntry *fallback = nullptr;
    for (const PolicyEntry &entry : entries) {
        if (!entry.is_default)
            continue;
        if (fallback != nullptr)
            errors_.add(entry.at, "a second default entry in ACL " + std::to_string(acl.id) + ", the first is on " +
                                      line_of(fallback->at));
        fallback = &entry;
    }
}

// Where they stand in no order.
void PolicyReader::check_sns(const PolicyAcl &acl)
{
    std::vector<const PolicyEntry *> sorted;
    sorted.reserve(acl.entries.size());
    for (const PolicyEntry &entry : acl.entries)
        sorted.push_back(&entry);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const PolicyEntry *a, const PolicyEntry *b) { return a->sn < b->sn; });
    const PolicyEntry *first = nullptr; // of its sn
    for (const PolicyEntry *entry : sorted) {
        if (first != nullptr && first->sn == entry->sn)
            errors_.add(entry->at, "sn " + std::to_string(entry->sn) + " is there twice in ACL " +
                                       std::to_string(acl.id) + ", first on " + line_of(first->at));
        else
            first = entry;
    }
}

// ---- applies --------------------------------------------------------------------------------------------------------

using ApplyDraft = std::pair<Binding, bool>; // and whether it has an ACL

const Field<ApplyDraft> PolicyReader::apply_fields[] = {
    {"acl", true,
     [](PolicyReader &self, const Event &value, ApplyDraft &draft) {
         draft.first.apply.at = value.at;
         draft.second = self.number(value, "the apply's ACL", draft.first.apply.acl);
     }},
    {"port", true,
     [](PolicyReader &self, const Event &value, ApplyDraft &draft) { self.ports(value, draft.first.ports); }},
    {"direction", true,
     [](PolicyReader &self, const Event &value, ApplyDraft &draft) {
         self.direction(value, draft.first.apply.direction);
     }},
    {"priority", false, [](PolicyReader &self, const Event &value, ApplyDraft &draft) {
         self.number(value, "the apply's priority", draft.first.apply.priority);
     }}};

void PolicyReader::apply(const Event &value)
{
    ApplyDraft draft{{.apply = {.at = value.at}, .ports = {}}, false};
    fields(value, "an apply", apply_fields, draft);
    auto &[binding, known] = draft;
    if (!known)
        return;
    ports_ += binding.ports.size(); // an apply of a few bytes may have thousands
    if (ports_ > most_applies)
        return errors_.add(binding.apply.at, "more than " + std::to_string(most_applies) + " applies");
    bindings_.push_back(std::move(binding));
}

void PolicyReader::ports(const Event &value, std::vector<uint32_t> &ports)
{
    if (value.kind != Event::Kind::list)
        port_range(value, ports);
    else
        items(value, "port", [&](const Event &item) { port_range(item, ports); });
}

void PolicyReader::port_range(const Event &value, std::vector<uint32_t> &ports)
{
    const auto whole = text(value, "the apply's port");
    if (!whole)
        return;
    const std::string_view written = *whole;
    const size_t hyphen = std::min(written.find('-'), written.size());
    uint64_t first = 0;
    uint64_t last = 0;
    const bool numbers = parse_number(written.substr(0, hyphen), first) &&
                         parse_number(hyphen == written.size() ? written : written.substr(hyphen + 1), last);
    if (!numbers || first > last || last > UINT32_MAX)
        return errors_.add(value.at, quoted(written) + " is not a port number or a range such as 1-24");
    if (last - first >= most_ports_of_an_apply - std::min<uint64_t>(ports.size(), most_ports_of_an_apply))
        return errors_.add(value.at, "more than " + std::to_string(most_ports_of_an_apply) + " ports in one apply");
    for (uint64_t port = first; port <= last; ++port)
        ports.push_back(static_cast<uint32_t>(port));
}

void PolicyReader::direction(const Event &value, uint32_t &direction)
{
    const auto written = text(value, "the apply's direction");
    if (!written)
        return;
    const auto known = std::find(std::begin(directions), std::end(directions), *written);
    if (known == std::end(directions))
        errors_.add(value.at, "direction " + quoted(*written) + " is neither in nor out");
    else
        direction = static_cast<uint32_t>(known - directions);
}

// When all ACLs are known: an ACL may stand behind the applies of it.
void PolicyReader::bind()
{
    for (const Binding &binding : bindings_) {
        const std::string acl = "ACL " + std::to_string(binding.apply.acl);
        if (!acls_.contains(binding.apply.acl)) {
            if (all_acls_known_)
                errors_.add(binding.apply.at, "there is no " + acl + " in this policy");
            continue;
        }
        for (const uint32_t port : binding.ports)
            bind(binding.apply, port);
    }
}

// The library tells the applies of an ACL apart by port and priority, not by direction.
void PolicyReader::bind(PolicyApply apply, uint32_t port)
{
    apply.port = port;
    const auto [first, fresh] = bound_.try_emplace({apply.acl, port, apply.priority}, apply);
    if (fresh)
        return policy_.applies.push_back(apply);
    std::string message = "ACL " + std::to_string(apply.acl) + " is applied twice to port " + std::to_string(port) +
                          ", first on " + line_of(first->second.at);
    if (first->second.direction != apply.direction)
        message += ": in another direction it needs another priority";
    errors_.add(apply.at, std::move(message));
}

std::optional<Policy> read_policy(std::istream &in, const std::string &directory, Errors &errors)
{
    try {
        Document document(in);
        Policy policy = PolicyReader(document, directory, errors).read();
        if (errors.empty())
            return policy;
    } catch (const Document::Fault &fault) {
        errors.add(fault.at, fault.what());
    } catch (const std::bad_alloc &) {
        errors.add({}, "is too large for this process's memory");
    }
    return std::nullopt;
}

std::optional<Policy> read_policy(const std::string &path, Errors &errors)
{
    if (path == "-")
        return read_policy(std::cin, ".", errors);
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        errors.add({}, file_error("cannot be opened"));
        return std::nullopt;
    }
    DigestedBuffer digested(*file.rdbuf());
    std::istream in(&digested);
    auto policy = read_policy(in, path.substr(0, path.rfind('/') + 1), errors);
    if (policy && !policy->names_files)
        policy->file = digested.result();
    return policy;
}

const uint8_t *BytePool::add(std::span<const uint8_t> first, std::span<const uint8_t> second)
{
    constexpr size_t chunk_size = 256U << 10U;
    const size_t size = first.size() + second.size();
    if (size > room_.size()) {
        const size_t taken = std::max(size, chunk_size);
        chunks_.push_back(std::make_unique_for_overwrite<uint8_t[]>(taken));
        room_ = {chunks_.back().get(), taken};
    }
    uint8_t *at = room_.data();
    std::copy(second.begin(), second.end(), std::copy(first.begin(), first.end(), at));
    room_ = room_.subspan(size);
    return at;
}

std::string_view direction_name(uint32_t direction)
{
    return direction < std::size(directions) ? directions[direction] : "?";
}

} // namespace plx::tool
