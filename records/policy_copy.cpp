// See policy_copy.hpp.
#include "records/policy_copy.hpp"

#include <memory>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <span>

namespace plx {

namespace {

struct Unpacked {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};

} // namespace

void for_each_copied(const ProtobufCMessage *copy, const std::function<void(const ProtobufCMessage &)> &take)
{
    if (copy == nullptr || copy->descriptor != &plx_node__policy_copy__descriptor)
        return;
    const auto &part = *reinterpret_cast<const PlxNode__PolicyCopy *>(copy);
    const auto each = [&take](const ProtobufCMessageDescriptor &table, std::span<const ProtobufCBinaryData> records) {
        for (const ProtobufCBinaryData &packed : records) {
            const std::unique_ptr<ProtobufCMessage, Unpacked> record(
                protobuf_c_message_unpack(&table, nullptr, packed.len, packed.data));
            if (record != nullptr)
                take(*record);
        }
    };
    each(s_policy__acl__descriptor, {part.acls, part.n_acls});
    each(s_policy__apply__descriptor, {part.applies, part.n_applies});
    each(s_policy__ace__descriptor, {part.aces, part.n_aces});
}

} // namespace plx
