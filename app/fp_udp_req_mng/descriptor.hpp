// Which records are taken for which message.
#pragma once

#include <protobuf-c/protobuf-c.h>

namespace plx {

// A store client may carry descriptors of its own, generated from the same schema: another copy of one that names the
// same message and lays it out alike is as good as the library's. The fields of the messages within are compared, too.
bool describes(const ProtobufCMessageDescriptor *given, const ProtobufCMessageDescriptor &own);

} // namespace plx
