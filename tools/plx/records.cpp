// See records.hpp.
#include "records.hpp"

#include "attribute_text.hpp"
#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <plx/s_policy.pb-c.h>
#include <tq_topics.pb-c.h>

namespace plx::tool {

namespace {

// The names under which tables carry an application type, the ACL's number, and an entry's.
constexpr const char *app_fields[] = {"t_app_type", "app_type", "t_apply_type", "apply_type"};

const ProtobufCFieldDescriptor *find_field(const ProtobufCMessageDescriptor &type, const char *name)
{
    return protobuf_c_message_descriptor_get_field_by_name(&type, name);
}

const void *member(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return reinterpret_cast<const char *>(&message) + field.offset;
}

template <class Value> Value value_of(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return *static_cast<const Value *>(member(message, field));
}

const ProtobufCMessage *key_of(const ProtobufCMessage &record)
{
    const auto *index = find_field(*record.descriptor, "index");
    return index == nullptr ? nullptr : value_of<const ProtobufCMessage *>(record, *index);
}

std::string hex(const ProtobufCBinaryData &bytes)
{
    std::string text;
    for (size_t i = 0; bytes.data != nullptr && i < bytes.len; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", bytes.data[i]);
        text += digits;
    }
    return text;
}

// Private bytes are mostly a short text in a long field.
ProtobufCBinaryData without_padding(ProtobufCBinaryData bytes)
{
    while (bytes.data != nullptr && bytes.len > 0 && bytes.data[bytes.len - 1] == 0)
        --bytes.len;
    return bytes;
}

constexpr const char *class_names[] = {"control", "match", "action"};

// Attributes by class; a name that stands twice is shown twice, the later ones numbered.
Row attributes_of(const ProtobufCBinaryData &packed)
{
    const size_t len = packed.data == nullptr ? 0 : packed.len;
    const auto attributes = unpack({packed.data, len});
    if (!attributes)
        return {{"malformed", hex(packed)}};
    Row row = Row::object();
    for (const Attribute &attribute : *attributes) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        Row &group = row[attribute.cls < std::size(class_names) ? class_names[attribute.cls] : "unknown"];
        const std::string name = attribute_name(attribute, form);
        std::string key = name;
        for (int i = 2; group.contains(key); ++i)
            key = name + "#" + std::to_string(i);
        group[key] = format_value(form, attribute.value);
    }
    return row;
}

Row scalar(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    switch (field.type) {
    case PROTOBUF_C_TYPE_UINT32:
        return value_of<uint32_t>(message, field);
    case PROTOBUF_C_TYPE_INT32:
        return value_of<int32_t>(message, field);
    case PROTOBUF_C_TYPE_UINT64:
        return value_of<uint64_t>(message, field);
    case PROTOBUF_C_TYPE_BOOL:
        return value_of<protobuf_c_boolean>(message, field) != 0;
    case PROTOBUF_C_TYPE_STRING: {
        const char *text = value_of<const char *>(message, field);
        return text == nullptr ? "" : text;
    }
    case PROTOBUF_C_TYPE_BYTES:
        return hex(without_padding(value_of<ProtobufCBinaryData>(message, field)));
    default: // no other type is shown
        return nullptr;
    }
}

bool is_packed(const ProtobufCFieldDescriptor &field)
{
    return field.type == PROTOBUF_C_TYPE_BYTES && std::string_view(field.name) == "value";
}

void add_fields(Row &row, const ProtobufCMessage &message)
{
    for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
        const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
        if (std::string_view(field.name) == "index" || field.label == PROTOBUF_C_LABEL_REPEATED)
            continue;
        if (is_packed(field))
            row["attributes"] = attributes_of(value_of<ProtobufCBinaryData>(message, field));
        else
            row[field.name] = scalar(message, field);
    }
}

uint64_t key_number(const ProtobufCMessage &key, const char *name, bool &has)
{
    const auto *field = find_field(*key.descriptor, name);
    has = field != nullptr;
    if (!has)
        return 0;
    return field->type == PROTOBUF_C_TYPE_UINT64 ? value_of<uint64_t>(key, *field) : value_of<uint32_t>(key, *field);
}

bool has_application(const ProtobufCMessage &key, const std::string &app)
{
    return std::any_of(std::begin(app_fields), std::end(app_fields), [&](const char *name) {
        const auto *field = find_field(*key.descriptor, name);
        const char *text = field == nullptr ? nullptr : value_of<const char *>(key, *field);
        return text != nullptr && app == text;
    });
}

// "match ipv4_src=10.0.0.0/8 action fwd=deny"
std::string flat(const Row &value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_object())
        return value.dump();
    std::string text;
    for (const auto &[name, inner] : value.items()) {
        text += text.empty() ? "" : " ";
        text += inner.is_object() ? name + " " + flat(inner) : name + "=" + flat(inner);
    }
    return text;
}

// Text as a terminal may show it: what is not printable ASCII is escaped.
std::string printable(const std::string &text)
{
    std::string safe;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        safe += byte >= 0x20 && byte < 0x7f ? std::string(1, c) : escaped;
    }
    return safe;
}

struct Column {
    std::string name;
    size_t width;
};

// The column of that name, added behind the others when it is new.
Column &column_of(std::vector<Column> &columns, const std::string &name)
{
    for (Column &column : columns)
        if (column.name == name)
            return column;
    return columns.emplace_back(Column{name, name.size()});
}

void print_line(const Row &row, const std::vector<Column> &columns)
{
    std::string line;
    for (const Column &column : columns) {
        std::string text = row.contains(column.name) ? printable(flat(row[column.name])) : "";
        text.resize(std::max(text.size(), column.width), ' ');
        line += (line.empty() ? "" : "  ") + text;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
}

} // namespace

const std::vector<Kind> &kinds()
{
    static const std::vector<Kind> all = {
        {"acl", {&s_policy__acl__descriptor}},
        {"ace", {&s_policy__ace__descriptor}, &s_policy__ace_psta__descriptor},
        {"apply", {&s_policy__apply__descriptor}, &s_policy__apply_psta__descriptor},
        {"port",
         {&s_policy__port_off__descriptor, &s_policy__port_off_psta__descriptor, &s_policy__uplink__descriptor,
          &s_policy__uplink_psta__descriptor, &s_policy__svi_router__descriptor, &s_policy__svi_router_psta__descriptor,
          &s_policy__port_bindinfo__descriptor, &s_policy__port_bindinfo_psta__descriptor}},
        {"node", {&s_policy__service_node__descriptor}},
        {"commit", {&s_policy__app_commit__descriptor}},
        {"topic", {&topics__topic__descriptor}},
        {"counters", {&s_policy__ace_counter__descriptor}},
    };
    return all;
}

const Kind *find_kind(const std::string &name)
{
    const auto kind = std::find_if(kinds().begin(), kinds().end(), [&](const Kind &k) { return k.name == name; });
    return kind == kinds().end() ? nullptr : &*kind;
}

void RecordOptions::add_to(CLI::App &command)
{
    command.add_option("--store", store, "address of the store: unix:/path, redis://host:port")
        ->envname("PLX_STORE")
        ->capture_default_str();
    command.add_option("--db", db, "number of the policy database")->capture_default_str();
    command.add_option("--app", app, "only records of this application type")->each([this](const std::string &) {
        by_app = true;
    });
    command.add_option("--acl", acl, "only records of the ACL with this number")->each([this](const std::string &) {
        by_acl = true;
    });
    command.add_option("--sn", sn, "only the entry with this sequence number")->each([this](const std::string &) {
        by_sn = true;
    });
    command.add_flag("--json", json, "one JSON object a line, for scripts");
}

bool RecordOptions::take(const ProtobufCMessage *record) const
{
    const ProtobufCMessage *key = record == nullptr ? nullptr : key_of(*record);
    if (key == nullptr)
        return !by_app && !by_acl && !by_sn;
    bool has = false;
    return (!by_app || has_application(*key, app)) && (!by_acl || (key_number(*key, "acl_id", has) == acl && has)) &&
           (!by_sn || (key_number(*key, "sn", has) == sn && has));
}

std::string table_name(const ProtobufCMessageDescriptor &table)
{
    const std::string name = table.name;
    return name.substr(name.rfind('.') + 1);
}

Row row_of(const ProtobufCMessage *record, bool with_values)
{
    Row row = Row::object();
    if (record == nullptr)
        return row;
    if (const ProtobufCMessage *key = key_of(*record); key != nullptr)
        add_fields(row, *key);
    if (with_values)
        add_fields(row, *record);
    return row;
}

void print_json(const Row &row)
{
    std::cout << row.dump(-1, ' ', true, Row::error_handler_t::replace) << '\n';
}

void print_line(const Row &row)
{
    std::cout << printable(flat(row)) << '\n';
}

void print_table(const std::vector<Row> &rows)
{
    std::vector<Column> columns;
    for (const Row &row : rows)
        for (const auto &[name, value] : row.items()) {
            Column &column = column_of(columns, name);
            column.width = std::max(column.width, printable(flat(value)).size());
        }
    if (columns.empty())
        return;
    Row heading = Row::object();
    for (const Column &column : columns)
        heading[column.name] = column.name;
    print_line(heading, columns);
    for (const Row &row : rows)
        print_line(row, columns);
}

std::string shown_address(const std::string &store)
{
    std::string address = store.substr(0, store.find('?'));
    const size_t scheme = address.find("://");
    const size_t at = address.rfind('@');
    if (scheme == std::string::npos || at == std::string::npos || at < scheme)
        return address;
    return address.substr(0, scheme + 3) + address.substr(at + 1);
}

Context open_store(const char *command, const RecordOptions &options, int &exit_code)
{
    Context context(tq_context_new(options.store.c_str()));
    if (context == nullptr) {
        std::cerr << "plx " << command << ": '" << shown_address(options.store) << "' is not the address of a store\n";
        exit_code = EXIT_USAGE;
    } else if (const int result = tq_mom_client_connect_sync(context.get(), options.db); result != 0) {
        std::cerr << "plx " << command << ": store " << shown_address(options.store) << ": " << tq_mom_strerror(result)
                  << '\n';
        exit_code = EXIT_UNREACHABLE;
        context.reset();
    }
    return context;
}

} // namespace plx::tool
