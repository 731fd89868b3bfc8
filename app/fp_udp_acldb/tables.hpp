// Storing a node in its kind's table, with what became of it: the exported insert tells nobody.
#pragma once

#include "node_table.hpp"

#include <plx/cache.h>

namespace plx::acldb {

[[nodiscard]] Stored store(fp_udp_acl_node &node);
[[nodiscard]] Stored store(fp_udp_ace_node &node);
[[nodiscard]] Stored store(fp_udp_apply_node &node);

} // namespace plx::acldb
