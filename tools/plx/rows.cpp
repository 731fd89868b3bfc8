// See rows.hpp.
#include "rows.hpp"

#include "attribute_text.hpp"
#include "field.hpp"
#include "records/record.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <span>
#include <string_view>

namespace plx::tool {

namespace {

constexpr size_t longest_text = 256;        // bytes of one value that are shown
constexpr size_t longest_attributes = 4096; // packed

// Private bytes are mostly a short text in a long field.
std::span<const uint8_t> without_padding(std::span<const uint8_t> bytes)
{
    while (!bytes.empty() && bytes.back() == 0)
        bytes = bytes.first(bytes.size() - 1);
    return bytes;
}

constexpr const char *class_names[] = {"control", "match", "action", "unknown"};
constexpr size_t unknown_class = std::size(class_names) - 1;

// Makes a row, and keeps account of what it leaves out of each column.
class RowMaker {
  public:
    explicit RowMaker(bool full) : full_(full) {}
    void add(const ProtobufCMessage &message);
    Row row();

  private:
    size_t shown(const std::string &column, size_t bytes, size_t longest);
    std::string text(const std::string &column, const char *value);
    std::string text(const std::string &column, std::span<const uint8_t> value);
    Row scalar(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
    Row attributes(std::span<const uint8_t> packed);
    void add_name(std::span<const uint8_t> bytes);

    bool full_;
    Row row_ = Row::object();
    Row cut_ = Row::object();
};

Row RowMaker::row()
{
    if (!cut_.empty())
        row_[cut_column] = std::move(cut_);
    return std::move(row_);
}

// How many of a value's bytes are shown.
size_t RowMaker::shown(const std::string &column, size_t bytes, size_t longest)
{
    if (full_ || bytes <= longest)
        return bytes;
    cut_[column] = bytes - longest;
    return longest;
}

std::string RowMaker::text(const std::string &column, const char *value)
{
    const std::string_view whole = value == nullptr ? "" : value;
    return std::string(whole.substr(0, shown(column, whole.size(), longest_text)));
}

std::string RowMaker::text(const std::string &column, std::span<const uint8_t> value)
{
    return hex(value.first(shown(column, value.size(), longest_text)));
}

// Attributes by class; a name that stands twice is shown twice, the later ones numbered. They are put at a group's end
// unseen: looking for a name takes as long as there are names.
Row RowMaker::attributes(std::span<const uint8_t> packed)
{
    const auto all = unpack(packed);
    if (!all)
        return {{"malformed", text("attributes", packed)}};
    std::array<Row::object_t, std::size(class_names)> groups;
    std::map<std::pair<size_t, std::string>, int> seen;
    size_t end = 0;
    for (const Attribute &attribute : *all) {
        const auto next = static_cast<size_t>(attribute.value.data() + attribute.value.size() - packed.data());
        if (!full_ && next > longest_attributes) {
            shown("attributes", packed.size(), end);
            break;
        }
        end = next;
        bool known = false;
        const Form *form = form_of(attribute, known);
        const size_t group = std::min<size_t>(attribute.cls, unknown_class);
        std::string name = attribute_name(attribute, form);
        if (const int times = ++seen[{group, name}]; times > 1)
            name += "#" + std::to_string(times);
        groups[group].emplace_back(name, format_value(form, attribute.value));
    }
    Row row = Row::object();
    for (size_t group = 0; group < groups.size(); ++group)
        if (!groups[group].empty())
            row[class_names[group]] = std::move(groups[group]);
    return row;
}

Row RowMaker::scalar(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
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
    case PROTOBUF_C_TYPE_STRING:
        return text(field.name, value_of<const char *>(message, field));
    case PROTOBUF_C_TYPE_BYTES:
        return text(field.name, without_padding(span_of(value_of<ProtobufCBinaryData>(message, field))));
    default: // no other type is shown
        return nullptr;
    }
}

// What an application keeps as private data is mostly a name.
bool is_name(std::span<const uint8_t> bytes)
{
    return !bytes.empty() && std::none_of(bytes.begin(), bytes.end(), [](uint8_t c) { return c < 0x20 || c == 0x7f; });
}

bool is_packed(const ProtobufCFieldDescriptor &field)
{
    return field.type == PROTOBUF_C_TYPE_BYTES && std::string_view(field.name) == "value";
}

void RowMaker::add(const ProtobufCMessage &message)
{
    for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
        const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
        if (std::string_view(field.name) == "index" || field.label == PROTOBUF_C_LABEL_REPEATED)
            continue;
        if (is_packed(field))
            row_["attributes"] = attributes(span_of(value_of<ProtobufCBinaryData>(message, field)));
        else
            row_[field.name] = scalar(message, field);
        if (std::string_view(field.name) == "priv")
            add_name(without_padding(span_of(value_of<ProtobufCBinaryData>(message, field))));
    }
}

void RowMaker::add_name(std::span<const uint8_t> bytes)
{
    if (is_name(bytes))
        row_["name"] =
            std::string(reinterpret_cast<const char *>(bytes.data()), shown("name", bytes.size(), longest_text));
}

} // namespace

Row without_internal(const Row &row)
{
    static constexpr std::string_view internal[] = {"c_status", "req_uuid", "rep_uuid", "ifx"};
    const bool named = row.contains("name");
    Row shown = Row::object();
    for (const auto &[name, value] : row.items())
        if (std::find(std::begin(internal), std::end(internal), name) == std::end(internal) &&
            !(name == "priv" && (named || (value.is_string() && value.get_ref<const std::string &>().empty()))))
            shown[name] = value;
    return shown;
}

std::string table_name(const ProtobufCMessageDescriptor &table)
{
    const std::string name = table.name;
    return name.substr(name.rfind('.') + 1);
}

Row row_of(const ProtobufCMessage *record, bool full, bool with_values)
{
    RowMaker maker(full);
    const ProtobufCMessage *key = record == nullptr ? nullptr : key_of(*record);
    if (key != nullptr)
        maker.add(*key);
    if (record != nullptr && with_values)
        maker.add(*record);
    return maker.row();
}

} // namespace plx::tool
