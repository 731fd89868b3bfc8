// A record that somebody hands to the store, with the key that it points to: it stays where it was made.
#pragma once

#include <protobuf-c/protobuf-c.h>

/// A record and its key, good for any store call.
template <typename Record, typename Key, const ProtobufCMessageDescriptor &of> struct keyed {
    keyed()
    {
        const auto *index = protobuf_c_message_descriptor_get_field_by_name(&of, "index");
        protobuf_c_message_init(&of, &record);
        protobuf_c_message_init(static_cast<const ProtobufCMessageDescriptor *>(index->descriptor), &key);
        record.index = &key;
    }
    keyed(const keyed &) = delete;
    keyed &operator=(const keyed &) = delete;
    operator const ProtobufCMessage *() const { return &record.base; }

    Record record;
    Key key;
};
