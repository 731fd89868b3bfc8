// An application's policy as it was before it was last written, kept in the store: what a hold makes nodes keep to, and
// what an undone change goes back to.
//
// A hold is a commit marker of its own kind: its record's `tm_val` is the slot of the copy. It has no end of its own:
// who set it removes it, or who finds it left behind puts the copy back and removes it then.
#pragma once

#include <cstdint>
#include <functional>
#include <protobuf-c/protobuf-c.h>

namespace plx {

constexpr uint32_t hold_marker = 16; // as `commit_op_type`, beside those that applications use

// Calls back with each record of a `policy_copy`: ACLs, applies, then entries. What cannot be unpacked is left out.
void for_each_copied(const ProtobufCMessage *copy, const std::function<void(const ProtobufCMessage &)> &take);

} // namespace plx
