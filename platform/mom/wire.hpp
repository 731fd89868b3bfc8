// The protobuf wire format, one field at a time: what a value field's bytes in the store are made of.
//
// Called by the codec (values) and the key text (rebuilding a key message). Nothing here allocates beyond the buffer
// that it appends to. Bytes from the store are hostile until holds_only_field() has accepted them.
#ifndef TQ_MOM_WIRE_HPP
#define TQ_MOM_WIRE_HPP

#include <cstdint>
#include <protobuf-c/protobuf-c.h>
#include <string>
#include <string_view>

namespace mom {

enum class wire_type : uint32_t { varint = 0, fixed64 = 1, length = 2, fixed32 = 5 };

void append_varint(std::string &out, uint64_t value);
void append_tag(std::string &out, uint32_t number, wire_type type);
void append_length_field(std::string &out, uint32_t number, std::string_view bytes);

/// Number types are handled as 64 raw bits: signed ones sign-extended, floating ones as their bit pattern.
bool is_number(ProtobufCType type);
uint64_t load_number(const void *member, ProtobufCType type);
size_t number_size(ProtobufCType type);
void append_number(std::string &out, ProtobufCType type, uint64_t raw);
void append_number_field(std::string &out, const ProtobufCFieldDescriptor &field, uint64_t raw);

/// Appends the encoding of one field of `message`, tags included; nothing for a proto3 default.
void append_field(std::string &out, const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);

/// True when `bytes` is any number of well-formed elements of field `number` and nothing else.
bool holds_only_field(std::string_view bytes, uint32_t number);

/// True when `bytes` is any number of well-formed elements, none of field `number`.
bool holds_no_field(std::string_view bytes, uint32_t number);

/// True when the pointer is a message that carries a usable descriptor.
bool is_message(const ProtobufCMessage *message);

} // namespace mom

#endif
