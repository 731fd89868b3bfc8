// What a table of the kernel holds from a node before, or after others changed it, as a model.
#pragma once

#include "plane/nftables/model.hpp"
#include "plane/nftables/table.hpp"

namespace plx::plane::nftables {

// Reads the table. What is not of ours, or not whole, goes out of the kernel and is not in the model; what was made by
// another configuration than `made_by` has no fingerprint. 0 or an errno.
int take_up(Netlink &netlink, const KernelTable &table, uint32_t made_by, Model &model);

// Chains of hooks that the model has and the kernel has not: they went with their interfaces.
std::vector<Key> lost_hooks(Netlink &netlink, const KernelTable &table, const Model &model);

} // namespace plx::plane::nftables
