// Records from text: the builder that all cases share.
#include "fakes.h"

#include <cstring>
#include <plx/s_policy.pb-c.h>
#include <stdexcept>

namespace fake {

static const ProtobufCMessageDescriptor *descriptor_of(const std::string &table)
{
    for (const auto *one : {&s_policy__acl__descriptor, &s_policy__ace__descriptor, &s_policy__apply__descriptor,
                            &s_policy__ace_psta__descriptor, &s_policy__apply_psta__descriptor,
                            &s_policy__ace_counter__descriptor, &s_policy__service_node__descriptor})
        if (table == strrchr(one->name, '.') + 1)
            return one;
    throw std::invalid_argument("no table is called " + table);
}

ProtobufCMessage *record::make(const ProtobufCMessageDescriptor *descriptor)
{
    auto &space = spaces_.emplace_back(descriptor->sizeof_message / sizeof(uint64_t) + 1);
    auto *message = reinterpret_cast<ProtobufCMessage *>(space.data());
    protobuf_c_message_init(descriptor, message);
    return message;
}

void record::put(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field, const std::string &text)
{
    char *at = reinterpret_cast<char *>(message) + field.offset;
    switch (field.type) {
    case PROTOBUF_C_TYPE_STRING:
        *reinterpret_cast<char **>(at) = text == "null" ? nullptr : texts_.emplace_back(text).data();
        break;
    case PROTOBUF_C_TYPE_BYTES: {
        std::string &bytes = texts_.emplace_back();
        for (size_t i = 0; i + 1 < text.size(); i += 2)
            bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
        *reinterpret_cast<ProtobufCBinaryData *>(at) = {bytes.size(), reinterpret_cast<uint8_t *>(bytes.data())};
        break;
    }
    case PROTOBUF_C_TYPE_UINT64:
        *reinterpret_cast<uint64_t *>(at) = strtoull(text.c_str(), nullptr, 0);
        break;
    default: // 32 bits
        *reinterpret_cast<uint32_t *>(at) = static_cast<uint32_t>(strtoll(text.c_str(), nullptr, 0));
    }
}

record::record(const std::string &table, const lines &key, const std::map<std::string, std::string> &fields)
    : message_(make(descriptor_of(table)))
{
    const auto *index = protobuf_c_message_descriptor_get_field_by_name(message_->descriptor, "index");
    if (!key.empty()) {
        ProtobufCMessage *made = make(static_cast<const ProtobufCMessageDescriptor *>(index->descriptor));
        for (size_t i = 0; i < key.size(); i++)
            put(made, made->descriptor->fields[i], key[i]);
        *reinterpret_cast<ProtobufCMessage **>(reinterpret_cast<char *>(message_) + index->offset) = made;
    }
    for (const auto &[name, text] : fields) {
        if (name == "node") { // beside those of the schema, as the wire has it
            std::string &bytes = texts_.emplace_back(1, static_cast<char>(text.size())) += text;
            static std::deque<ProtobufCMessageUnknownField> beside;
            message_->n_unknown_fields = 1;
            message_->unknown_fields = &beside.emplace_back(ProtobufCMessageUnknownField{
                20, PROTOBUF_C_WIRE_TYPE_LENGTH_PREFIXED, bytes.size(), reinterpret_cast<uint8_t *>(bytes.data())});
            continue;
        }
        const auto *field = protobuf_c_message_descriptor_get_field_by_name(message_->descriptor, name.c_str());
        if (!field)
            throw std::invalid_argument(table + " has no field " + name);
        put(message_, *field, text);
    }
}

} // namespace fake
