// Reading a policy from a document. Every fault is noted and reading goes on, so that one run shows all of them.
//
// A map is read by a table of the keys that it may have, each with what to do about its value. What spans maps - ACLs
// and applies that are there twice, applies of ACLs that are not there - is checked as the parts are added.
#include "policy.hpp"

#include "attribute_value.hpp"
#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <plx/types.h>
#include <tuple>

namespace plx::tool {

namespace {

constexpr uint32_t most_ports_of_an_apply = 4096;
constexpr size_t most_applies = 100'000;
constexpr std::string_view directions[] = {"in", "out"};

struct Field {
    std::string_view name;
    bool required;
    std::function<void(const Part &value)> read;
};

struct Binding { // an apply as the file has it, of any number of ports
    PolicyApply apply;
    std::vector<uint32_t> ports;
};

class Reader {
  public:
    explicit Reader(Errors &errors) : errors_(errors) {}

    Policy read(const Part &root);

  private:
    void fields(const Part &map, std::string_view what, const std::vector<Field> &fields);
    void unknown_key(const Part &key, std::string_view what, const std::vector<Field> &fields);
    void items(const Part &list, std::string_view what, const std::function<void(const Part &)> &read);

    std::string_view text(const Part &part, std::string_view what);
    std::string name(const Part &part, std::string_view what);
    uint64_t number(const Part &part, std::string_view what, uint64_t largest);
    // `read` becomes true when the number was there and in range.
    template <typename Number>
    std::function<void(const Part &)> into(Number &number, std::string_view what, bool *read = nullptr);
    std::function<void(const Part &)> into(std::string &text, std::string_view what);
    bool flag(const Part &part, std::string_view what);

    void acl(const Part &part);
    void entry(const Part &part, PolicyAcl &acl);
    void check_entries(const PolicyAcl &acl);
    void attributes(const Part &map, fp_udp_attr_class cls, PolicyEntry &entry);
    void attribute(const Part &key, const Part &value, fp_udp_attr_class cls, PolicyEntry &entry);
    void unknown_attribute(const Part &key, fp_udp_attr_class cls);

    void apply(const Part &part);
    std::vector<uint32_t> ports(const Part &part);
    void port_range(const Part &part, std::vector<uint32_t> &ports);
    uint32_t direction(const Part &part);
    void bind();
    void bind(PolicyApply apply, uint32_t port);

    Errors &errors_;
    Policy policy_;
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

std::string_view kind_name(Part::Kind kind)
{
    switch (kind) {
    case Part::Kind::null:
        return "nothing";
    case Part::Kind::scalar:
        return "a plain value";
    case Part::Kind::list:
        return "a list";
    case Part::Kind::map:
        return "a map";
    }
    return "";
}

std::string line_of(Position at)
{
    return "line " + std::to_string(at.line);
}

std::string wrong_kind(std::string_view what, std::string_view wanted, const Part &part)
{
    return std::string(what) + " must be " + std::string(wanted) + ", not " + std::string(kind_name(part.kind));
}

// ---- the shapes of YAML ---------------------------------------------------------------------------------------------

void Reader::fields(const Part &map, std::string_view what, const std::vector<Field> &fields)
{
    if (map.kind != Part::Kind::map)
        return errors_.add(map.at, wrong_kind(what, "a map", map));
    std::map<std::string_view, Position> seen;
    for (size_t i = 0; i + 1 < map.parts().size(); i += 2) {
        const Part &key = map.parts()[i];
        const auto field =
            std::find_if(fields.begin(), fields.end(), [&key](const Field &known) { return known.name == key.text; });
        if (field == fields.end())
            unknown_key(key, what, fields);
        else if (const auto [first, fresh] = seen.try_emplace(field->name, key.at); !fresh)
            errors_.add(key.at, quoted(key.text) + " is there twice, first on " + line_of(first->second));
        else
            field->read(map.parts()[i + 1]);
    }
    for (const Field &field : fields) {
        if (field.required && !seen.contains(field.name))
            errors_.add(map.at, std::string(what) + " has no '" + std::string(field.name) + "'");
    }
}

void Reader::unknown_key(const Part &key, std::string_view what, const std::vector<Field> &fields)
{
    if (key.kind != Part::Kind::scalar)
        return errors_.add(key.at, wrong_kind("a key", "a plain value", key));
    std::vector<std::string_view> names(fields.size());
    std::transform(fields.begin(), fields.end(), names.begin(), [](const Field &field) { return field.name; });
    const std::string_view close = errors_.full() ? "" : nearest(key.text, names);
    errors_.add(key.at, std::string(what) + " has no key " + quoted(key.text) +
                            (close.empty() ? "" : "; did you mean '" + std::string(close) + "'?"));
}

void Reader::items(const Part &list, std::string_view what, const std::function<void(const Part &)> &read)
{
    if (list.kind != Part::Kind::list)
        return errors_.add(list.at, wrong_kind(what, "a list", list));
    for (const Part &item : list.parts())
        read(item);
}

std::string_view Reader::text(const Part &part, std::string_view what)
{
    if (part.kind == Part::Kind::scalar)
        return part.text;
    errors_.add(part.at, wrong_kind(what, "a plain value", part));
    return {};
}

std::string Reader::name(const Part &part, std::string_view what)
{
    const std::string_view value = text(part, what);
    constexpr size_t longest = FP_UDP_APP_TYPE_SIZE - 1;
    if (value.size() > longest)
        errors_.add(part.at, std::string(what) + " has " + std::to_string(value.size()) + " characters, more than " +
                                 std::to_string(longest));
    else if (part.kind == Part::Kind::scalar && value.empty())
        errors_.add(part.at, std::string(what) + " is empty");
    const auto unprintable = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(value.begin(), value.end(), unprintable))
        errors_.add(part.at, std::string(what) + " has unprintable characters");
    return std::string(value.substr(0, longest));
}

uint64_t Reader::number(const Part &part, std::string_view what, uint64_t largest)
{
    uint64_t value = 0;
    const size_t before = errors_.size();
    const std::string_view written = text(part, what);
    if (errors_.size() != before)
        return 0;
    if (!parse_number(written, value) || value > largest)
        errors_.add(part.at, std::string(what) + ": " + quoted(written) + " is not a number from 0 to " +
                                 std::to_string(largest));
    return value;
}

template <typename Number>
std::function<void(const Part &)> Reader::into(Number &value, std::string_view what, bool *read)
{
    return [this, &value, what, read](const Part &part) {
        const size_t before = errors_.size();
        value = static_cast<Number>(number(part, what, std::numeric_limits<Number>::max()));
        if (read != nullptr)
            *read = errors_.size() == before;
    };
}

std::function<void(const Part &)> Reader::into(std::string &value, std::string_view what)
{
    return [this, &value, what](const Part &part) { value = name(part, what); };
}

bool Reader::flag(const Part &part, std::string_view what)
{
    bool value = false;
    const size_t before = errors_.size();
    const std::string_view written = text(part, what);
    if (errors_.size() == before && !parse_bool(written, value))
        errors_.add(part.at, std::string(what) + ": " + quoted(written) + " is neither true nor false");
    return value;
}

// ---- the policy -----------------------------------------------------------------------------------------------------

Policy Reader::read(const Part &root)
{
    fields(root, "the policy",
           {{"application", true, into(policy_.application, "the application type")},
            {"acls", true, [this](const Part &list) { items(list, "acls", [this](const Part &part) { acl(part); }); }},
            {"applies", false,
             [this](const Part &list) { items(list, "applies", [this](const Part &part) { apply(part); }); }}});
    bind();
    return std::move(policy_);
}

void Reader::acl(const Part &part)
{
    PolicyAcl acl{.at = part.at};
    bool known = false;
    fields(part, "an ACL",
           {{"id", true,
             [&](const Part &value) {
                 acl.at = value.at;
                 into(acl.id, "the ACL's id", &known)(value);
             }},
            {"name", false, into(acl.name, "the ACL's name")},
            {"class", true, into(acl.cls, "the ACL's class")},
            {"entries", true,
             [&](const Part &list) { items(list, "entries", [&](const Part &item) { entry(item, acl); }); }}});
    all_acls_known_ = all_acls_known_ && known;
    if (!known)
        return;
    if (const auto [first, fresh] = acls_.try_emplace(acl.id, acl.at); !fresh)
        errors_.add(acl.at, "ACL " + std::to_string(acl.id) + " is there twice, first on " + line_of(first->second));
    check_entries(acl);
    policy_.acls.push_back(std::move(acl));
}

void Reader::entry(const Part &part, PolicyAcl &acl)
{
    PolicyEntry entry{.at = part.at};
    bool known = false;
    fields(part, "an entry",
           {{"sn", true,
             [&](const Part &value) {
                 entry.at = value.at;
                 into(entry.sn, "the entry's sn", &known)(value);
             }},
            {"name", false, into(entry.name, "the entry's name")},
            {"priority", false, into(entry.priority, "the entry's priority")},
            {"default", false, [&](const Part &value) { entry.is_default = flag(value, "default"); }},
            {"match", false, [&](const Part &map) { attributes(map, FP_UDP_ATTR_FIELD, entry); }},
            {"action", false, [&](const Part &map) { attributes(map, FP_UDP_ATTR_ACTION, entry); }},
            {"control", false, [&](const Part &map) { attributes(map, FP_UDP_ATTR_CTRL, entry); }}});
    if (known)
        acl.entries.push_back(std::move(entry));
}

void Reader::check_entries(const PolicyAcl &acl)
{
    std::map<uint64_t, Position> sns;
    const PolicyEntry *fallback = nullptr;
    for (const PolicyEntry &entry : acl.entries) {
        if (const auto [first, fresh] = sns.try_emplace(entry.sn, entry.at); !fresh)
            errors_.add(entry.at, "sn " + std::to_string(entry.sn) + " is there twice in ACL " +
                                      std::to_string(acl.id) + ", first on " + line_of(first->second));
        if (!entry.is_default)
            continue;
        if (fallback != nullptr)
            errors_.add(entry.at, "a second default entry in ACL " + std::to_string(acl.id) + ", the first is on " +
                                      line_of(fallback->at));
        fallback = &entry;
    }
}

void Reader::attributes(const Part &map, fp_udp_attr_class cls, PolicyEntry &entry)
{
    if (map.kind != Part::Kind::map)
        return errors_.add(map.at, wrong_kind(class_name(cls), "a map", map));
    std::map<std::string_view, Position> seen;
    for (size_t i = 0; i + 1 < map.parts().size(); i += 2) {
        const Part &key = map.parts()[i];
        if (const auto [first, fresh] = seen.try_emplace(key.text, key.at); !fresh)
            errors_.add(key.at, quoted(key.text) + " is there twice, first on " + line_of(first->second));
        else
            attribute(key, map.parts()[i + 1], cls, entry);
    }
}

void Reader::attribute(const Part &key, const Part &value, fp_udp_attr_class cls, PolicyEntry &entry)
{
    const Form *form = find_form(cls, key.text);
    if (form == nullptr)
        return unknown_attribute(key, cls);
    if (value.kind != Part::Kind::scalar)
        return errors_.add(value.at, wrong_kind(key.text, "a plain value", value));
    Encoding encoding = encode(*form, value.text);
    if (!encoding.error.empty())
        return errors_.add(value.at, key.text + ": " + encoding.error);
    entry.attributes.push_back({form, std::move(encoding.bytes)});
}

void Reader::unknown_attribute(const Part &key, fp_udp_attr_class cls)
{
    std::string message = "there is no " + std::string(class_name(cls)) + " attribute " + quoted(key.text);
    std::vector<std::string_view> names;
    for (const Form &form : forms()) {
        if (form.cls == cls)
            names.push_back(form.name);
        else if (form.name == key.text)
            return errors_.add(key.at, message + ", but one under '" + std::string(class_name(form.cls)) + "'");
    }
    const std::string_view close = errors_.full() ? "" : nearest(key.text, names);
    errors_.add(key.at, message + (close.empty() ? "" : "; did you mean '" + std::string(close) + "'?"));
}

// ---- applies --------------------------------------------------------------------------------------------------------

void Reader::apply(const Part &part)
{
    Binding binding{.apply = {.at = part.at}, .ports = {}};
    bool known = false;
    fields(part, "an apply",
           {{"acl", true,
             [&](const Part &value) {
                 binding.apply.at = value.at;
                 into(binding.apply.acl, "the apply's ACL", &known)(value);
             }},
            {"port", true, [&](const Part &value) { binding.ports = ports(value); }},
            {"direction", true, [&](const Part &value) { binding.apply.direction = direction(value); }},
            {"priority", false, into(binding.apply.priority, "the apply's priority")}});
    if (!known)
        return;
    ports_ += binding.ports.size(); // an apply of a few bytes may have thousands
    if (ports_ > most_applies)
        return errors_.add(binding.apply.at, "more than " + std::to_string(most_applies) + " applies");
    bindings_.push_back(std::move(binding));
}

std::vector<uint32_t> Reader::ports(const Part &part)
{
    std::vector<uint32_t> numbers;
    if (part.kind != Part::Kind::list)
        port_range(part, numbers);
    else
        items(part, "port", [&](const Part &item) { port_range(item, numbers); });
    return numbers;
}

void Reader::port_range(const Part &part, std::vector<uint32_t> &ports)
{
    const size_t before = errors_.size();
    const std::string_view written = text(part, "the apply's port");
    if (errors_.size() != before)
        return;
    const size_t hyphen = std::min(written.find('-'), written.size());
    uint64_t first = 0;
    uint64_t last = 0;
    const bool numbers = parse_number(written.substr(0, hyphen), first) &&
                         parse_number(hyphen == written.size() ? written : written.substr(hyphen + 1), last);
    if (!numbers || first > last || last > UINT32_MAX)
        return errors_.add(part.at, quoted(written) + " is not a port number or a range such as 1-24");
    if (last - first >= most_ports_of_an_apply - std::min<uint64_t>(ports.size(), most_ports_of_an_apply))
        return errors_.add(part.at, "more than " + std::to_string(most_ports_of_an_apply) + " ports in one apply");
    for (uint64_t port = first; port <= last; ++port)
        ports.push_back(static_cast<uint32_t>(port));
}

uint32_t Reader::direction(const Part &part)
{
    const size_t before = errors_.size();
    const std::string_view written = text(part, "the apply's direction");
    for (uint32_t direction = 0; direction < std::size(directions); ++direction) {
        if (written == directions[direction])
            return direction;
    }
    if (errors_.size() == before)
        errors_.add(part.at, "direction " + quoted(written) + " is neither in nor out");
    return 0;
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

std::optional<Policy> read_policy(const Part &root, Errors &errors)
{
    Policy policy = Reader(errors).read(root);
    return errors.empty() ? std::optional(std::move(policy)) : std::nullopt;
}

std::string_view direction_name(uint32_t direction)
{
    return direction < std::size(directions) ? directions[direction] : "?";
}

} // namespace plx::tool
