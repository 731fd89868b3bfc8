// The fields of a record that is known by its descriptor alone.
#pragma once

#include <protobuf-c/protobuf-c.h>

namespace plx::tool {

inline const ProtobufCFieldDescriptor *find_field(const ProtobufCMessageDescriptor &type, const char *name)
{
    return protobuf_c_message_descriptor_get_field_by_name(&type, name);
}

inline const void *member(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return reinterpret_cast<const char *>(&message) + field.offset;
}

template <class Value> Value value_of(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return *static_cast<const Value *>(member(message, field));
}

inline const ProtobufCMessage *key_of(const ProtobufCMessage &record)
{
    const auto *index = find_field(*record.descriptor, "index");
    return index == nullptr ? nullptr : value_of<const ProtobufCMessage *>(record, *index);
}

} // namespace plx::tool
