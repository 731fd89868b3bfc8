// See policy_diff.hpp.
#include "policy_diff.hpp"

#include "attribute_text.hpp"
#include "display.hpp"
#include "field.hpp"
#include "records/fnv.hpp"
#include "records/record.hpp"

#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

namespace plx::tool {

namespace {

enum Kind { an_acl, an_apply, an_entry };
constexpr const char *classes[] = {"control", "match", "action"};

void add_attributes(std::span<const uint8_t> packed, std::vector<std::pair<std::string, std::string>> &fields)
{
    const auto attributes = unpack(packed);
    if (!attributes) {
        fields.emplace_back("attributes", "malformed");
        return;
    }
    for (const Attribute &attribute : *attributes) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        const std::string cls = attribute.cls < std::size(classes) ? classes[attribute.cls] : "unknown";
        fields.emplace_back(cls + '.' + attribute_name(attribute, form), format_value(form, attribute.value));
    }
}

std::string text_of(const ProtobufCBinaryData &name)
{
    const auto *text = reinterpret_cast<const char *>(name.data);
    return name.data == nullptr ? "" : std::string(text, strnlen(text, name.len));
}

// Of what is in the record but the identifier of its last request.
uint64_t number_of(const ProtobufCMessage &record)
{
    std::vector<uint8_t> bytes(protobuf_c_message_get_packed_size(&record));
    bytes.resize(protobuf_c_message_pack(&record, bytes.data()));
    const uint64_t hash = fnv1a(bytes);
    return hash ^ hash >> 32U;
}

template <typename Message> uint64_t number_of(Message record)
{
    record.req_uuid = 0;
    return number_of(record.base);
}

std::string item_name(uint32_t acl, const std::string &what, const std::string &name)
{
    return "acl " + std::to_string(acl) + what + (name.empty() ? "" : " " + name);
}

std::string entry_name(uint32_t acl, uint64_t sn, const std::string &name)
{
    return item_name(acl, " entry " + std::to_string(sn), name);
}

std::string apply_name(uint32_t acl, uint32_t port, uint32_t direction)
{
    return item_name(acl, " on port " + std::to_string(port), std::string(direction_name(direction)));
}

} // namespace

std::string ItemChange::how_text() const
{
    std::string text;
    for (const std::string &each : how)
        text.append(text.empty() ? "" : ", ").append(each);
    return text;
}

size_t PolicyDiff::count(char kind) const
{
    return static_cast<size_t>(
        std::count_if(changes_.begin(), changes_.end(), [kind](const ItemChange &each) { return each.kind == kind; }));
}

// The last table is not of a policy: an application writes it by itself.
int PolicyDiff::compare(tq_context *context, uint32_t db, Holdings *there)
{
    there_ = there;
    for (const PolicyAcl &acl : policy_.acls) {
        wanted_[{an_acl, acl.id, 0, 0, 0}] = {.acl = &acl};
        for (const PolicyEntry &entry : acl.entries)
            wanted_[{an_entry, acl.id, entry.sn, 0, 0}] = {.acl = &acl, .entry = &entry};
    }
    for (const PolicyApply &apply : policy_.applies)
        wanted_[{an_apply, apply.acl, apply.port, apply.priority, apply.direction}] = {.apply = &apply};
    for (const auto *table : {&s_policy__acl__descriptor, &s_policy__apply__descriptor, &s_policy__ace__descriptor,
                              &s_policy__port_bindinfo__descriptor}) {
        if (there == nullptr && table == &s_policy__port_bindinfo__descriptor)
            break;
        Record selection(*table);
        selection.set_key_text(0, policy_.application.c_str());
        const int result = tq_mom_scan_sync(context, db, selection.message(), 1, &PolicyDiff::on_record, this);
        if (result != 0)
            return result;
    }
    if (there != nullptr)
        there->sort();
    for (const auto &[id, item] : wanted_) {
        ItemChange &added = changes_.emplace_back(ItemChange{'+', name(item), {}, record_name(id)});
        for (const auto &[field, value] : fields(item))
            added.how.emplace_back(field).append(": ").append(value);
    }
    return 0;
}

int32_t PolicyDiff::on_record(void *, const tq_mom_notification *found, void *arg)
{
    auto *self = static_cast<PolicyDiff *>(arg);
    if (found->result != 0 || found->record == nullptr || plx::tool::key_of(*found->record) == nullptr) {
        ++self->unreadable_;
        return 0;
    }
    const auto key = self->there_ == nullptr ? std::nullopt : plx::key_of(found->record);
    if (key)
        self->there_->add(*key, requested_of(found->record));
    else if (self->there_ != nullptr && found->record->descriptor != &s_policy__acl__descriptor)
        ++self->unreadable_;
    if (found->record->descriptor != &s_policy__port_bindinfo__descriptor)
        self->take(*found->record);
    return 0;
}

void PolicyDiff::take(const ProtobufCMessage &record)
{
    Id id;
    std::string name;
    if (record.descriptor == &s_policy__acl__descriptor) {
        const auto &acl = reinterpret_cast<const SPolicy__Acl &>(record);
        id = {an_acl, acl.index->acl_id, 0, 0, 0};
        name = item_name(acl.index->acl_id, "", text_of(acl.priv));
        state_ += number_of(acl);
    } else if (record.descriptor == &s_policy__apply__descriptor) {
        const auto &apply = reinterpret_cast<const SPolicy__Apply &>(record);
        const SPolicy__ApplyKey &key = *apply.index;
        id = {an_apply, key.acl_id, key.phyid, key.priority, key.direction};
        name = apply_name(key.acl_id, key.phyid, key.direction);
        state_ += number_of(apply);
        ++applies_;
    } else {
        const auto &ace = reinterpret_cast<const SPolicy__Ace &>(record);
        id = {an_entry, ace.index->acl_id, ace.index->sn, 0, 0};
        name = entry_name(ace.index->acl_id, ace.index->sn, text_of(ace.priv));
        state_ += number_of(ace);
    }
    const auto item = wanted_.find(id);
    if (item == wanted_.end()) {
        changes_.push_back({'-', printable(name), {}, record_name(id)});
        return;
    }
    compare(item->second, record, printable(name));
    if (!changes_.empty() && changes_.back().record.empty())
        changes_.back().record = record_name(id);
    wanted_.erase(item);
}

void PolicyDiff::compare(const Item &item, const ProtobufCMessage &record, const std::string &name)
{
    const Fields there = fields(record), here = fields(item);
    if (there == here) {
        ++unchanged_;
        return;
    }
    ItemChange &change = changes_.emplace_back(ItemChange{'~', name, {}});
    std::map<std::string, std::pair<std::string, std::string>> both;
    for (const auto &[field, value] : there)
        both[field].first += (both[field].first.empty() ? "" : ", ") + value;
    for (const auto &[field, value] : here)
        both[field].second += (both[field].second.empty() ? "" : ", ") + value;
    for (const auto &[field, values] : both)
        if (values.first != values.second)
            change.how.push_back(field + ": " + (values.first.empty() ? "none" : printable(values.first)) + " -> " +
                                 (values.second.empty() ? "none" : values.second));
    if (change.how.empty())
        change.how.emplace_back("attributes in another order");
}

PolicyDiff::Fields PolicyDiff::fields(const Item &item) const
{
    Fields fields;
    if (item.entry != nullptr) {
        fields = {{"name", std::string(item.entry->name())},
                  {"priority", std::to_string(item.entry->priority)},
                  {"default", item.entry->is_default ? "true" : "false"}};
        add_attributes(item.entry->attributes(), fields);
    } else if (item.acl != nullptr) {
        fields = {{"name", item.acl->name}, {"class", std::to_string(item.acl->cls)}};
    } else {
        for (const PolicyAcl &acl : policy_.acls)
            if (acl.id == item.apply->acl)
                fields = {{"class", std::to_string(acl.cls)}};
    }
    std::erase_if(fields, [](const auto &field) { return field.second.empty() && field.first == "name"; });
    return fields;
}

PolicyDiff::Fields PolicyDiff::fields(const ProtobufCMessage &record)
{
    Fields fields;
    if (record.descriptor == &s_policy__ace__descriptor) {
        const auto &ace = reinterpret_cast<const SPolicy__Ace &>(record);
        fields = {{"name", text_of(ace.priv)},
                  {"priority", std::to_string(ace.ace_pri)},
                  {"default", ace.default_ace != 0 ? "true" : "false"}};
        add_attributes(span_of(ace.value), fields);
    } else if (record.descriptor == &s_policy__acl__descriptor) {
        const auto &acl = reinterpret_cast<const SPolicy__Acl &>(record);
        fields = {{"name", text_of(acl.priv)}, {"class", std::to_string(acl.acl_cls)}};
    } else {
        const auto &apply = reinterpret_cast<const SPolicy__Apply &>(record);
        fields = {{"class", std::to_string(apply.acl_cls)}};
        add_attributes(span_of(apply.value), fields);
    }
    std::erase_if(fields, [](const auto &field) { return field.second.empty() && field.first == "name"; });
    return fields;
}

std::string PolicyDiff::record_name(const Id &id)
{
    const auto &[kind, acl, first, second, third] = id;
    if (kind == an_acl)
        return item_name(acl, "", "");
    if (kind == an_entry)
        return described(AceKey{"", acl, first});
    return described(ApplyKey{"", acl, "", static_cast<uint32_t>(first), second, third});
}

std::string PolicyDiff::name(const Item &item)
{
    if (item.entry != nullptr)
        return entry_name(item.acl->id, item.entry->sn, std::string(item.entry->name()));
    if (item.acl != nullptr)
        return item_name(item.acl->id, "", item.acl->name);
    return apply_name(item.apply->acl, item.apply->port, item.apply->direction);
}

} // namespace plx::tool
