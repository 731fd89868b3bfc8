// What of an application the kernel has in force, for those who doubt what the plane believes. Changes nothing.
#pragma once

#include "plane/nftables/model.hpp"
#include "plane/nftables/table.hpp"

namespace plx::plane::nftables {

using InForce = std::vector<std::pair<Key, Installed>>;

// Entries all of whose rules stand in a page that is jumped to, and applies whose chains stand; what needs nothing in
// the kernel - an apply to a port of another node, an entry that takes no part - is as the model has it. What was made
// by another configuration than `made_by` has no fingerprint. 0 or an errno.
int read_back(Netlink &netlink, const KernelTable &table, uint32_t made_by, const Model &model, const std::string &app,
              InForce &found);

} // namespace plx::plane::nftables
