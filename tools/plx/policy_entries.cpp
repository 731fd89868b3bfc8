// A policy's entries: their attributes, packed as the library keeps them, and lists of values that stand for several.
#include "policy_reader.hpp"

#include <fstream>

namespace plx::tool {

namespace {

constexpr size_t longest_line = 255; // of a file of values

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

void append_packed(std::vector<uint8_t> &packed, const Form &form, std::span<const uint8_t> value)
{
    const uint32_t header[2] = {attribute_id(form) << 8U | static_cast<uint32_t>(form.cls),
                                static_cast<uint32_t>(value.size())};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    packed.insert(packed.end(), bytes, bytes + sizeof header);
    packed.insert(packed.end(), value.begin(), value.end());
}

// Where a range stands for a port.
std::string range_advice(const Form &form, std::string_view text)
{
    const Form *range = form.name == "dst_l4port"   ? find_form(FP_UDP_ATTR_FIELD, "dst_range")
                        : form.name == "src_l4port" ? find_form(FP_UDP_ATTR_FIELD, "src_range")
                                                    : nullptr;
    const bool meant = range != nullptr && encode(*range, text).error.empty();
    return meant ? "; a range goes under '" + std::string(range->name) + "'" : "";
}

} // namespace

const Field<EntryDraft> PolicyReader::entry_fields[] = {
    {"sn", true,
     [](PolicyReader &self, const Event &value, EntryDraft &draft) {
         draft.entry.at = value.at;
         draft.known = self.number(value, "the entry's sn", draft.entry.sn);
     }},
    {"name", false,
     [](PolicyReader &self, const Event &value, EntryDraft &draft) {
         self.name(value, "the entry's name", draft.name);
     }},
    {"priority", false,
     [](PolicyReader &self, const Event &value, EntryDraft &draft) {
         self.number(value, "the entry's priority", draft.entry.priority);
     }},
    {"default", false,
     [](PolicyReader &self, const Event &value, EntryDraft &draft) {
         self.flag(value, "default", draft.entry.is_default);
     }},
    {"match", false,
     [](PolicyReader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_FIELD); }},
    {"action", false,
     [](PolicyReader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_ACTION); }},
    {"control", false,
     [](PolicyReader &self, const Event &map, EntryDraft &) { self.attributes(map, FP_UDP_ATTR_CTRL); }}};

void PolicyReader::entry(const Event &value, PolicyAcl &acl)
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

// One entry, or one for each value in the list: numbered on from the entry's own sn, and else alike.
void PolicyReader::add_entries(PolicyAcl &acl)
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

void PolicyReader::add_entry(PolicyAcl &acl, uint64_t sn, std::span<const uint8_t> packed)
{
    if (packed.size() > UINT16_MAX)
        return errors_.add(draft_.entry.at, "the entry's attributes have more than 65535 bytes");
    PolicyEntry &entry = acl.entries.emplace_back(draft_.entry);
    entry.sn = sn;
    entry.bytes = policy_.pool.add({reinterpret_cast<const uint8_t *>(draft_.name.data()), draft_.name.size()}, packed);
    entry.name_size = static_cast<uint8_t>(draft_.name.size());
    entry.packed_size = static_cast<uint16_t>(packed.size());
}

void PolicyReader::attributes(const Event &map, fp_udp_attr_class cls)
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

void PolicyReader::attribute(const Form &form, const Event &value)
{
    if (value.opens() && form.cls == FP_UDP_ATTR_FIELD)
        return several(form, value);
    const auto written = text(value, form.name);
    if (!written)
        return;
    const Encoding encoding = encode(form, *written);
    if (!encoding.error.empty())
        return errors_.add(value.at, std::string(form.name) + ": " + encoding.error + range_advice(form, *written));
    append_packed(draft_.packed, form, encoding.bytes);
}

bool PolicyReader::add_value(const Form &form, std::string_view text, std::string &error)
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
void PolicyReader::several(const Form &form, const Event &value)
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

void PolicyReader::values_of_file(const Form &form, const Event &map)
{
    struct Named {
        std::string path{};
        Position at{};
    };
    static constexpr Field<Named> file_fields[] = {
        {"prefixes", true, [](PolicyReader &self, const Event &value, Named &named) {
             named.at = value.at;
             if (const auto written = self.text(value, "the file's name"))
                 named.path = *written;
         }}};
    Named named;
    fields(map, form.name, file_fields, named);
    if (named.path.empty())
        return;
    policy_.names_files = true;
    const std::string path = named.path[0] == '/' ? named.path : directory_ + named.path;
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return errors_.add(named.at, file_error(quoted(named.path) + " cannot be opened"));
    values_of_file(form, file, named.at, path);
}

// One value a line; what stands behind # or ; is a comment.
void PolicyReader::values_of_file(const Form &form, std::istream &file, Position at, const std::string &path)
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

void PolicyReader::unknown_attribute(const Event &key, fp_udp_attr_class cls)
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

} // namespace plx::tool
