// How differences are told, and what service nodes would say to a policy.
#pragma once

#include "policy_diff.hpp"
#include <optional>
#include <string>

namespace plx::tool {

constexpr size_t item_width = 32; // characters, of the column that names what differs

// "edge_filter: 2 to add, 1 to change, 1 to remove, 70 unchanged", and a line for each; with --json the same as lines
// of type "change". EXIT_DIFFERS, or EXIT_DONE where there are none.
int tell_changes(const std::string &application, const std::vector<ItemChange> &changes, size_t unchanged);

// Room, ports and attributes as the nodes' reports have them: a line with "!" for each thing that would not go. Nodes
// that show no life are passed over. `applies`: how many the store has of the application, which take no room. With
// `every_node` the room of each is told, and else where it is too little. The store client's result.
int tell_objections(tq_context *context, uint32_t db, const Policy &policy, size_t applies, bool every_node);

// What each service node has otherwise than the policy: nodes that report that they have the same are believed, the
// others' planes are asked. The exit code.
int tell_nodes_changes(tq_context *context, uint32_t db, const Policy &policy);

} // namespace plx::tool
