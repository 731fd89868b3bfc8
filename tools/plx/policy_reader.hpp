// A policy as it is read from a document. Every fault is noted and reading goes on, so that one run shows all of them.
//
// A map is read by a table of the keys that it may have, each with what to do about its value, as the document's events
// come. What spans maps - ACLs and applies that are there twice, applies of ACLs that are not there - is checked as the
// parts are added.
#pragma once

#include "attribute_value.hpp"
#include "policy.hpp"
#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <tuple>

namespace plx::tool {

std::string line_of(Position at);
std::string did_you_mean(std::string_view text, const std::vector<std::string_view> &names);

// What a map may have under one key. `read` takes the value, whose first event it is given, to its end.
template <typename Target> struct Field {
    std::string_view name;
    bool required;
    void (*read)(class PolicyReader &reader, const Event &value, Target &target);
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

class PolicyReader {
  public:
    PolicyReader(Document &document, const std::string &directory, Errors &errors)
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

    static const Field<PolicyReader> policy_fields[3];
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

// ---- the shapes of YAML -------------------------------------------------------------------------------------------

template <typename Target, size_t Count>
void PolicyReader::fields(const Event &map, std::string_view what, const Field<Target> (&fields)[Count], Target &target)
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
void PolicyReader::unknown_key(const Event &key, std::string_view what, const Field<Target> (&fields)[Count])
{
    if (key.kind != Event::Kind::scalar)
        return refuse_kind(key, "a key", "a plain value");
    std::vector<std::string_view> names;
    for (const auto &field : fields)
        names.push_back(field.name);
    errors_.add(key.at, std::string(what) + " has no key " + quoted(key.text) +
                            (errors_.full() ? "" : did_you_mean(key.text, names)));
}

template <typename Read> void PolicyReader::items(const Event &list, std::string_view what, Read &&read)
{
    if (list.kind != Event::Kind::list)
        return refuse_kind(list, what, "a list");
    for (Event item = document_.next(); item.kind != Event::Kind::end; item = document_.next())
        read(item);
}

template <typename Number> bool PolicyReader::number(const Event &value, std::string_view what, Number &number)
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

} // namespace plx::tool
