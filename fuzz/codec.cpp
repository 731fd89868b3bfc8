// Records as a store may hold them: a key text and field bytes that somebody else wrote. What decodes must encode to
// the same again, and a selection must take exactly the keys that begin like it.
#include "input.hpp"

#include <mom/codec.hpp>
#include <mom/wire.hpp>
#include <plx/s_policy.pb-c.h>

#include <memory>

namespace {

struct free_message {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using owned_message = std::unique_ptr<ProtobufCMessage, free_message>;

const mom::record_type &any_type(fuzz::input &in)
{
    static mom::type_book book;
    const ProtobufCMessageDescriptor *descriptors[] = {&s_policy__ace__descriptor,
                                                       &s_policy__apply__descriptor,
                                                       &s_policy__acl__descriptor,
                                                       &s_policy__ace_psta__descriptor,
                                                       &s_policy__svi_router__descriptor,
                                                       &s_policy__acl_index_ace__descriptor,
                                                       &s_policy__ace_com_class_id__descriptor,
                                                       &s_policy__port_bindinfo__descriptor};
    const mom::record_type *type = book.find(in.pick(descriptors));
    fuzz::require(type != nullptr, "every policy record is a table");
    return *type;
}

std::string key_text(const mom::record_type &type, const ProtobufCMessage &record)
{
    std::string text;
    mom::append_key_text(text, type.key_fields, mom::key_of(type, record), type.key_fields.size());
    return text;
}

// The fields as owned texts, since an encoder's are gone at its next call.
std::vector<std::pair<uint32_t, std::string>> encoded(const mom::record_type &type, const ProtobufCMessage &record)
{
    static mom::field_encoder encoder;
    encoder.encode_all(type, record);
    std::vector<std::pair<uint32_t, std::string>> fields;
    for (const mom::field_value &field : encoder.fields().values) {
        fuzz::require(mom::holds_only_field(field.bytes, field.number), "a field's bytes are that field's");
        fields.emplace_back(field.number, field.bytes);
    }
    return fields;
}

owned_message decoded(const mom::record_type &type, const std::string &key,
                      const std::vector<std::pair<uint32_t, std::string>> &fields)
{
    static std::string scratch;
    std::vector<mom::field_value> values;
    for (const auto &[number, bytes] : fields)
        values.push_back({number, bytes});
    return owned_message(mom::decode_record(type, key, values, scratch));
}

void require_same_again(const mom::record_type &type, const ProtobufCMessage &record)
{
    const std::string key = key_text(type, record);
    const auto fields = encoded(type, record);
    const owned_message again = decoded(type, key, fields);
    fuzz::require(again != nullptr, "what was encoded decodes");
    fuzz::require(key_text(type, *again) == key, "a record keeps its key");
    fuzz::require(encoded(type, *again) == fields, "a record keeps its fields");
}

void decode_any_fields(const mom::record_type &type, fuzz::input in)
{
    const std::string key = in.text();
    std::vector<std::pair<uint32_t, std::string>> fields;
    while (!in.done()) {
        const uint32_t number = in.below(16);
        fields.emplace_back(number, in.text());
    }
    const owned_message record = decoded(type, key, fields);
    if (record == nullptr)
        return;
    fuzz::require(key_text(type, *record) == key, "a key has one spelling");
    require_same_again(type, *record);
}

void decode_any_record(const mom::record_type &type, fuzz::input in)
{
    const std::string packed = in.rest();
    const owned_message record(protobuf_c_message_unpack(type.descriptor, nullptr, packed.size(),
                                                         reinterpret_cast<const uint8_t *>(packed.data())));
    if (record != nullptr)
        require_same_again(type, *record);
}

// Compares a selection by its first `count` key fields with the texts of those fields alone.
void select_any_keys(const mom::record_type &type, fuzz::input in)
{
    const std::string first = in.text(), second = in.text();
    const owned_message one = decoded(type, first, {}), other = decoded(type, second, {});
    if (one == nullptr || other == nullptr)
        return;
    for (size_t count = 0; count <= type.key_fields.size(); count++) {
        std::string begin, other_begin;
        mom::append_key_text(begin, type.key_fields, mom::key_of(type, *one), count);
        mom::append_key_text(other_begin, type.key_fields, mom::key_of(type, *other), count);
        const mom::key_range range = mom::select_keys(type.key_fields, mom::key_of(type, *one), count);
        fuzz::require(range.contains(first), "a selection takes the key that it was made from");
        fuzz::require(range.contains(second) == (begin == other_begin), "and those that begin like it");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const mom::record_type &type = any_type(in);
    switch (in.below(3)) {
    case 0:
        decode_any_fields(type, in);
        break;
    case 1:
        decode_any_record(type, in);
        break;
    default:
        select_any_keys(type, in);
    }
    return 0;
}
