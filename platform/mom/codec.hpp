// The codec of all engines: a protobuf message <-> a table, a key text and one byte string per value field.
//
// A record_type is what a descriptor means to the store, worked out once. Writing appends each field's own encoding to
// one reused buffer; reading joins the fields behind the key's encoding and unpacks once, so fields that this schema
// does not know come back as the message's unknown fields. Descriptors live as long as the process.
#ifndef TQ_MOM_CODEC_HPP
#define TQ_MOM_CODEC_HPP

#include "key_text.hpp"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

namespace mom {

/// What a record is, told by its fields: it decides the event code of its changes.
enum class record_kind {
    requested,   ///< has `req_uuid`: somebody asks for this state
    status,      ///< has `rep_uuid`: it answers a request
    publication, ///< neither
};

/// Whether lost changes are told: publications speak for themselves.
constexpr bool tells_losses(record_kind kind)
{
    return kind != record_kind::publication;
}

struct record_type {
    const ProtobufCMessageDescriptor *descriptor;
    std::string table;
    const ProtobufCFieldDescriptor *index; ///< null: the table holds one record
    field_span key_fields;
    record_kind kind;
};

/// One value field: its number and its own encoding, empty for a default value. For reading, number `joined` stands for
/// any fields, joined.
constexpr uint32_t joined = 0;
struct field_value {
    uint32_t number;
    std::string_view bytes;
};
using field_values = std::span<const field_value>;

/// What a write brings: the fields one by one, each number once, and joined.
struct encoded_fields {
    field_values values;
    std::string_view bytes;
};

/// The types in use, by descriptor.
class type_book {
  public:
    /// Null when the descriptor cannot stand for a table.
    const record_type *find(const ProtobufCMessageDescriptor *descriptor);

  private:
    std::unordered_map<const ProtobufCMessageDescriptor *, std::unique_ptr<record_type>> types_;
    const record_type *latest_ = nullptr;
};

const ProtobufCMessage *key_of(const record_type &type, const ProtobufCMessage &record);

/// Encodes fields into one buffer that is reused from call to call; the result is valid until the next one.
class field_encoder {
  public:
    /// The listed fields, defaults as empty strings. False when a number is not a value field of the type.
    [[nodiscard]] bool encode_listed(const record_type &type, const ProtobufCMessage &record,
                                     std::span<const uint32_t> numbers);
    /// All that is not default, unknown fields included.
    void encode_all(const record_type &type, const ProtobufCMessage &record);
    encoded_fields fields() const { return {values_, bytes_}; }

  private:
    void begin();
    void append_unknown(const record_type &type, const ProtobufCMessage &record);
    void end_field(uint32_t number, size_t start);
    void finish();

    std::string bytes_;
    std::vector<size_t> sizes_;
    std::vector<field_value> values_;
};

/// The record under `key` with these fields, to be freed by protobuf_c_message_free_unpacked(); null when the bytes are
/// no such record. `scratch` is a buffer to reuse.
ProtobufCMessage *decode_record(const record_type &type, std::string_view key, field_values fields,
                                std::string &scratch);

} // namespace mom

#endif
