// Reading a policy from a document. Every fault is noted and reading goes on, so that one run shows all of them.
//
// A map is read by a table of the keys that it may have, each with what to do about its value, as the document's events
// come. What spans maps - ACLs and applies that are there twice, applies of ACLs that are not there - is checked as the
// parts are added.
#include "policy.hpp"

#include "attribute_value.hpp"
#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <map>
#include <plx/types.h>
#include <tuple>

namespace plx::tool {

namespace {

constexpr uint32_t most_ports_of_an_apply = 4096;
constexpr size_t most_applies = 100'000;
constexpr size_t longest_line = 255; // of a file of values
constexpr std::string_view directions[] = {"in", "out"};

// What a map may have under one key. `read` takes the value, whose first event it is given, to its end.
template <typename Target> struct Field {
    std::string_view name;
    bool required;
    void (*read)(class Reader &reader, const Event &value, Target &target);
};

struct Binding { // an apply as the file has it, of any number of ports
    PolicyApply apply;
    std::vector<uint32_t> ports;
};

// An entry as the file has it: it may stand for several, each with another value of one attribute.
struct EntryDraft {
    PolicyEntry entry;
    bool known = false; // it has a number
    std::string name;
    std::vector<uint8_t> packed;  // attributes
    const Form *listed = nullptr; // the one that has several values
    size_t listed_at = 0;         // where it belongs among the others
    std::vector<uint8_t> values;  // of it, each behind its length
};

class Reader {
  public:
    Reader(Document &document, const std::string &directory, Errors &errors)
        : document_(document), directory_(directory), errors_(errors)
    {
    }

    Policy read();

  private:
    template <typename Target, size_t Count>
    void fields(const Event &map, std::string_view what, const Field<Target> (&fields)[Count], Target &target);
    template <typename Target, size_t Count>
    void unknown_key(const Event &key, std::string_view what, const Field<Target> (&fields)[Count]);
    void refuse_kind(const Event &value, std::string_view what, std::string_view wanted);
    template <typename Read> void items(const Event &list, std::string_view what, Read &&read);

    std::optional<std::string_view> text(const Event &value, std::string_view what);
    void name(const Event &value, std::string_view what, std::string &name);
    // Whether the number was there and in range.
    template <typename Number> bool number(const Event &value, std::string_view what, Number &number);
    void flag(const Event &value, std::string_view what, bool &flag);

    void acl(const Event &value);
    void check_entries(const PolicyAcl &acl);
    void check_sns(const PolicyAcl &acl);

    void entry(const Event &value, PolicyAcl &acl);
    void add_entries(PolicyAcl &acl);
    void add_entry(PolicyAcl &acl, uint64_t sn, std::span<const uint8_t> packed);
    void attributes(const Event &map, fp_udp_attr_class cls);
    void attribute(const Form &form, const Event &value);
    void several(const Form &form, const Event &value);
    void values_of_file(const Form &form, const Event &map);
    void values_of_file(const Form &form, std::istream &file, Position at, const std::string &path);
    bool add_value(const Form &form, std::string_view text, std::string &error);
    void unknown_attribute(const Event &key, fp_udp_attr_class cls);

    void apply(const Event &value);
    void ports(const Event &value, std::vector<uint32_t> &ports);
    void port_range(const Event &value, std::vector<uint32_t> &ports);
    void direction(const Event &value, uint32_t &direction);
    void bind();
    void bind(PolicyApply apply, uint32_t port);

    static const Field<Reader> policy_fields[3];
    static const Field<std::pair<PolicyAcl, bool>> acl_fields[4];
    static const Field<EntryDraft> entry_fields[7];
    static const Field<std::pair<Binding, bool>> apply_fields[4];

    Document &document_;
    const std::string &directory_;
    Errors &errors_;
    Policy policy_;
    EntryDraft draft_;
    std::map<uint32_t, Position> acls_;
    bool all_acls_known_ = true; // no ACL without a number
    std::vector<Binding> bindings_;
    size_t ports_ = 0;                                                      // of all bindings
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, PolicyApply> bound_; // by ACL, port and priority
};

std::string_view class_name(fp_udp_attr_class cls)
{
    switch (cls) {
    case FP_UDP_ATTR_CTRL:
        return "control";
    case FP_UDP_ATTR_FIELD:
        return "match";
    case FP_UDP_ATTR_ACTION:
        return "action";
    }
    return "";
}

std::string_view kind_name(Event::Kind kind)
{
    switch (kind) {
    case Event::Kind::null:
        return "nothing";
    case Event::Kind::scalar:
        return "a plain value";
    case Event::Kind::list:
        return "a list";
    case Event::Kind::map:
        return "a map";
    case Event::Kind::end:
        break;
    }
    return "";
}

std::string line_of(Position at)
{
    return "line " + std::to_string(at.line);
}

std::string did_you_mean(std::string_view text, const std::vector<std::string_view> &names)
{
    const std::string_view close = nearest(text, names);
    return close.empty() ? "" : "; did you mean '" + std::string(close) + "'?";
}

// ---- the shapes of YAML ---------------------------------------------------------------------------------------------

void Reader::refuse_kind(const Event &value, std::string_view what, std::string_view wanted)
{
    errors_.add(value.at,
                std::string(what) + " must be " + std::string(wanted) + ", not " + std::string(kind_name(value.kind)));
    document_.skip(value);
}

template <typename Target, size_t Count>
void Reader::fields(const Event &map, std::string_view what, const Field<Target> (&fields)[Count], Target &target)
{
    if (map.kind != Event::Kind::map)
        return refuse_kind(map, what, "a map");
    std::array<Position, Count> seen{};
    for (Event key = document_.next(); key.kind != Event::Kind::end; key = document_.next()) {
        const auto field = std::find_if(std::begin(fields), std::end(fields), [&key](const auto &known) {
            return key.kind == Event::Kind::scalar && known.name == key.text;
        });
        if (field == std::end(fields)) {
            unknown_key(key, what, fields);
            document_.skip(document_.next());
        } else if (Position &first = seen[static_cast<size_t>(field - fields)]; first.line != 0) {
            errors_.add(key.at, quoted(key.text) + " is there twice, first on " + line_of(first));
            document_.skip(document_.next());
        } else {
            first = key.at;
            field->read(*this, document_.next(), target);
        }
    }
    for (size_t field = 0; field < Count; ++field) {
        if (fields[field].required && seen[field].line == 0)
            errors_.add(map.at, std::string(what) + " has no '" + std::string(fields[field].name) + "'");
    }
}

template <typename Target, size_t Count>
void Reader::unknown_key(const Event &key, std::string_view what, const Field<Target> (&fields)[Count])
{
    if (key.kind != Event::Kind::scalar)
        return refuse_kind(key, "a key", "a plain value");
    std::vector<std::string_view> names;
    for (const auto &field : fields)
        names.push_back(field.name);
    errors_.add(key.at, std::string(what) + " has no key " + quoted(key.text) +
                            (errors_.full() ? "" : did_you_mean(key.text, names)));
}

template <typename Read> void Reader::items(const Event &list, std::string_view what, Read &&read)
{
    if (list.kind != Event::Kind::list)
        return refuse_kind(list, what, "a list");
    for (Event item = document_.next(); item.kind != Event::Kind::end; item = document_.next())
        read(item);
}

std::optional<std::string_view> Reader::text(const Event &value, std::string_view what)
{
    if (value.kind == Event::Kind::scalar)
        return value.text;
    refuse_kind(value, what, "a plain value");
    return std::nullopt;
}

void Reader::name(const Event &value, std::string_view what, std::string &name)
{
    const auto written = text(value, what);
    if (!written)
        return;
    constexpr size_t longest = FP_UDP_APP_TYPE_SIZE - 1;
    if (written->size() > longest)
        errors_.add(value.at, std::string(what) + " has " + std::to_string(written->size()) +
                                  " characters, more than " + std::to_string(longest));
    else if (written->empty())
        errors_.add(value.at, std::string(what) + " is empty");
    const auto unprintable = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(written->begin(), written->end(), unprintable))
        errors_.add(value.at, std::string(what) + " has unprintable characters");
    name = written->substr(0, longest);
}

template <typename Number> bool Reader::number(const Event &value, std::string_view what, Number &number)
{
    constexpr uint64_t largest = std::numeric_limits<Number>::max();
    const auto written = text(value, what);
    uint64_t read = 0;
    if (!written)
        return false;
    if (!parse_number(*written, read) || read > largest) {
        errors_.add(value.at, std::string(what) + ": " + quoted(*written) + " is not a number from 0 to " +
                                  std::to_string(largest));
        return false;
    }
    number = static_cast<Number>(read);
    return true;
}

void Reader::flag(const Event &value, std::string_view what, bool &flag)
{
    const auto written = text(value, what);
    if (written && !parse_bool(*written, flag))
        errors_.add(value.at, std::string(what) + ": " + quoted(*written) + " is neither true nor false");
}

// ---- the policy -----------------------------------------------------------------------------------------------------

const Field<Reader> Reader::policy_fields[] = {
    {"application", true,
     [](Reader &self, const Event &value, Reader &) {
         self.name(value, "the application type", self.policy_.application);
     }},
    {"acls", true,
     [](Reader &self, const Event &list, Reader &) {
         self.items(list, "acls", [&self](const Event &item) { self.acl(item); });
     }},
    {"applies", false, [](Reader &self, const Event &list, Reader &) {
         self.items(list, "applies", [&self](const Event &item) { self.apply(item); });
     }}};

Policy Reader::read()
{
    fields(document_.next(), "the policy", policy_fields, *this);
    document_.finish();
    bind();
    return std::move(policy_);
}

using AclDraft = std::pair<PolicyAcl, bool>; // and whether it has a number

const Field<AclDraft> Reader::acl_fields[] = {
    {"id", true,
     [](Reader &self, const Event &value, AclDraft &draft) {
         draft.first.at = value.at;
         draft.second = self.number(value, "the ACL's id", draft.first.id);
     }},
    {"name", false,
     [](Reader &self, const Event &value, AclDraft &draft) { self.name(value, "the ACL's name", draft.first.name); }},
    {"class", true,
     [](Reader &self, const Event &value, AclDraft &draft) { self.number(value, "the ACL's class", draft.first.cls); }},
    {"entries", true, [](Reader &self, const Event &list, AclDraft &draft) {
         self.items(list, "entries", [&](const Event &item) { self.entry(item, draft.first); });
     }}};

void Reader::acl(const Event &value)
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

void Reader::check_entries(const PolicyAcl &acl)
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
void Reader::check_sns(const PolicyAcl &acl)
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

// ---- entries --------------------------------------------------------------------------------------------------------

const Field<EntryDraft> Reader::entry_fields[] = {
    {"sn", true,
     [](Reader &self, const Event &value, EntryDraft &draft) {
         draft.entry.at = value.at;
         draft.known = self.number(value, "the entry's sn", draft.entry.sn);
     }},
    {"name", false,
     [](Reader &self, const Event &value, EntryDraft &draft) { self.name(value, "the entry's name", draft.name); }},
    {"priority", false,
     [](Reader &self, const Event &value, EntryDraft &draft) {
         self.number(value, "the entry's priority", draft.entry.priority);
     }},
    {"default", false,
     [](Reader &self, const Event &value, EntryDraft &draft) { self.flag(value, "default", draft.entry.is_default); }},
    {"match", false, [](Reader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_FIELD); }},
    {"action", false, [](Reader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_ACTION); }},
    {"control", false, [](Reader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_CTRL); }}};

void Reader::entry(const Event &value, PolicyAcl &acl)
{
    draft_.entry = {.at = value.at};
    draft_.known = false;
    draft_.name.clear();
    draft_.packed.clear();
    draft_.listed = nullptr;
    draft_.values.clear();
    fields(value, "an entry", entry_fields, draft_);
    if (draft_.known)
        add_entries(acl);
}

void append_packed(std::vector<uint8_t> &packed, const Form &form, std::span<const uint8_t> value)
{
    const uint32_t header[2] = {attribute_id(form) << 8U | static_cast<uint32_t>(form.cls),
                                static_cast<uint32_t>(value.size())};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    packed.insert(packed.end(), bytes, bytes + sizeof header);
    packed.insert(packed.end(), value.begin(), value.end());
}

// One entry, or one for each value in the list: numbered on from the entry's own sn, and else alike.
void Reader::add_entries(PolicyAcl &acl)
{
    const PolicyEntry &entry = draft_.entry;
    if (draft_.listed == nullptr)
        return add_entry(acl, entry.sn, draft_.packed);
    if (entry.is_default)
        return errors_.add(entry.at, "a default entry takes no list: an ACL has one");
    uint64_t sn = entry.sn;
    std::vector<uint8_t> packed;
    for (size_t at = 0; at < draft_.values.size(); at += 1 + size_t{draft_.values[at]}, ++sn) {
        if (sn < entry.sn)
            return errors_.add(entry.at, "there are no numbers left for the list: the entry's sn is too large");
        const auto listed_at = draft_.packed.begin() + static_cast<ptrdiff_t>(draft_.listed_at);
        packed.assign(draft_.packed.begin(), listed_at);
        append_packed(packed, *draft_.listed, std::span(draft_.values).subspan(at + 1, draft_.values[at]));
        packed.insert(packed.end(), listed_at, draft_.packed.end());
        add_entry(acl, sn, packed);
    }
}

void Reader::add_entry(PolicyAcl &acl, uint64_t sn, std::span<const uint8_t> packed)
{
    if (packed.size() > UINT16_MAX)
        return errors_.add(draft_.entry.at, "the entry's attributes have more than 65535 bytes");
    PolicyEntry &entry = acl.entries.emplace_back(draft_.entry);
    entry.sn = sn;
    entry.bytes = policy_.pool.add({reinterpret_cast<const uint8_t *>(draft_.name.data()), draft_.name.size()}, packed);
    entry.name_size = static_cast<uint8_t>(draft_.name.size());
    entry.packed_size = static_cast<uint16_t>(packed.size());
}

void Reader::attributes(const Event &map, fp_udp_attr_class cls)
{
    if (map.kind != Event::Kind::map)
        return refuse_kind(map, class_name(cls), "a map");
    std::vector<std::pair<const Form *, Position>> seen;
    for (Event key = document_.next(); key.kind != Event::Kind::end; key = document_.next()) {
        const Form *form = key.kind == Event::Kind::scalar ? find_form(cls, key.text) : nullptr;
        const auto first =
            std::find_if(seen.begin(), seen.end(), [form](const auto &had) { return had.first == form; });
        if (form == nullptr) {
            unknown_attribute(key, cls);
            document_.skip(document_.next());
        } else if (first != seen.end()) {
            errors_.add(key.at, quoted(key.text) + " is there twice, first on " + line_of(first->second));
            document_.skip(document_.next());
        } else {
            seen.emplace_back(form, key.at);
            attribute(*form, document_.next());
        }
    }
}

void Reader::attribute(const Form &form, const Event &value)
{
    if (value.opens() && form.cls == FP_UDP_ATTR_FIELD)
        return several(form, value);
    const auto written = text(value, form.name);
    if (!written)
        return;
    const Encoding encoding = encode(form, *written);
    if (!encoding.error.empty())
        return errors_.add(value.at, std::string(form.name) + ": " + encoding.error);
    append_packed(draft_.packed, form, encoding.bytes);
}

bool Reader::add_value(const Form &form, std::string_view text, std::string &error)
{
    Encoding encoding = encode(form, text);
    if (encoding.error.empty()) {
        draft_.values.push_back(static_cast<uint8_t>(encoding.bytes.size()));
        draft_.values.insert(draft_.values.end(), encoding.bytes.begin(), encoding.bytes.end());
        return true;
    }
    error = std::string(form.name) + ": " + encoding.error;
    return false;
}

// A list of values, or the file that has them.
void Reader::several(const Form &form, const Event &value)
{
    if (draft_.listed != nullptr) {
        errors_.add(value.at,
                    std::string(form.name) + ": the entry has a list already, of " + std::string(draft_.listed->name));
        return document_.skip(value);
    }
    draft_.listed = &form;
    draft_.listed_at = draft_.packed.size();
    const size_t before = errors_.size();
    if (value.kind == Event::Kind::map)
        values_of_file(form, value);
    else
        items(value, form.name, [&](const Event &item) {
            std::string error;
            const auto written = text(item, form.name);
            if (written && !add_value(form, *written, error))
                errors_.add(item.at, error);
        });
    if (draft_.values.empty() && errors_.size() == before)
        errors_.add(value.at, std::string(form.name) + " has no values");
}

void Reader::values_of_file(const Form &form, const Event &map)
{
    struct Named {
        std::string path{};
        Position at{};
    };
    static constexpr Field<Named> file_fields[] = {
        {"prefixes", true, [](Reader &self, const Event &value, Named &named) {
             named.at = value.at;
             if (const auto written = self.text(value, "the file's name"))
                 named.path = *written;
         }}};
    Named named;
    fields(map, form.name, file_fields, named);
    if (named.path.empty())
        return;
    const std::string path = named.path[0] == '/' ? named.path : directory_ + named.path;
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return errors_.add(named.at, file_error(quoted(named.path) + " cannot be opened"));
    values_of_file(form, file, named.at, path);
}

// One value a line; what stands behind # or ; is a comment.
void Reader::values_of_file(const Form &form, std::istream &file, Position at, const std::string &path)
{
    std::array<char, longest_line + 1> buffer;
    std::string error;
    for (int line = 1; file.getline(buffer.data(), buffer.size()); ++line) {
        std::string_view text = buffer.data();
        text = text.substr(0, text.find_first_of("#;"));
        const size_t first = std::min(text.find_first_not_of(" \t\r"), text.size());
        text = text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
        if (!text.empty() && !add_value(form, text, error))
            errors_.add(at, path, line, error);
    }
    if (file.bad())
        errors_.add(at, path, 0, file_error("cannot be read"));
    else if (!file.eof())
        errors_.add(at, path, 0, "has a line of more than " + std::to_string(longest_line) + " characters");
}

void Reader::unknown_attribute(const Event &key, fp_udp_attr_class cls)
{
    if (key.kind != Event::Kind::scalar)
        return refuse_kind(key, "a key", "a plain value");
    std::string message = "there is no " + std::string(class_name(cls)) + " attribute " + quoted(key.text);
    std::vector<std::string_view> names;
    for (const Form &form : forms()) {
        if (form.cls == cls)
            names.push_back(form.name);
        else if (form.name == key.text)
            return errors_.add(key.at, message + ", but one under '" + std::string(class_name(form.cls)) + "'");
    }
    errors_.add(key.at, message + (errors_.full() ? "" : did_you_mean(key.text, names)));
}

// ---- applies --------------------------------------------------------------------------------------------------------

using ApplyDraft = std::pair<Binding, bool>; // and whether it has an ACL

const Field<ApplyDraft> Reader::apply_fields[] = {
    {"acl", true,
     [](Reader &self, const Event &value, ApplyDraft &draft) {
         draft.first.apply.at = value.at;
         draft.second = self.number(value, "the apply's ACL", draft.first.apply.acl);
     }},
    {"port", true, [](Reader &self, const Event &value, ApplyDraft &draft) { self.ports(value, draft.first.ports); }},
    {"direction", true,
     [](Reader &self, const Event &value, ApplyDraft &draft) { self.direction(value, draft.first.apply.direction); }},
    {"priority", false, [](Reader &self, const Event &value, ApplyDraft &draft) {
         self.number(value, "the apply's priority", draft.first.apply.priority);
     }}};

void Reader::apply(const Event &value)
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

void Reader::ports(const Event &value, std::vector<uint32_t> &ports)
{
    if (value.kind != Event::Kind::list)
        port_range(value, ports);
    else
        items(value, "port", [&](const Event &item) { port_range(item, ports); });
}

void Reader::port_range(const Event &value, std::vector<uint32_t> &ports)
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

void Reader::direction(const Event &value, uint32_t &direction)
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
void Reader::bind()
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
void Reader::bind(PolicyApply apply, uint32_t port)
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

} // namespace

std::optional<Policy> read_policy(std::istream &in, const std::string &directory, Errors &errors)
{
    try {
        Document document(in);
        Policy policy = Reader(document, directory, errors).read();
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
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        errors.add({}, file_error("cannot be opened"));
        return std::nullopt;
    }
    return read_policy(file, path.substr(0, path.rfind('/') + 1), errors);
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
