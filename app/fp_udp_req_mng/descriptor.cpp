// Comparing descriptors field by field. The library's own schema nests a key in a record, and no deeper.
#include "descriptor.hpp"

#include <cstring>

namespace plx {
namespace {

bool same_name(const char *a, const char *b)
{
    return a == b || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

bool lies_alike(const ProtobufCFieldDescriptor &given, const ProtobufCFieldDescriptor &own)
{
    if (given.id != own.id || given.type != own.type || given.label != own.label || given.offset != own.offset)
        return false;
    return own.type != PROTOBUF_C_TYPE_MESSAGE ||
           describes(static_cast<const ProtobufCMessageDescriptor *>(given.descriptor),
                     *static_cast<const ProtobufCMessageDescriptor *>(own.descriptor));
}

} // namespace

bool describes(const ProtobufCMessageDescriptor *given, const ProtobufCMessageDescriptor &own)
{
    if (given == &own)
        return true;
    if (given == nullptr || given->sizeof_message != own.sizeof_message || given->n_fields != own.n_fields ||
        !same_name(given->name, own.name))
        return false;
    for (unsigned i = 0; i < own.n_fields; ++i)
        if (!lies_alike(given->fields[i], own.fields[i]))
            return false;
    return true;
}

} // namespace plx
