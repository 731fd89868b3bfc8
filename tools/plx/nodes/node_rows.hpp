// A node as `plx show node` and `plx top` show it.
#pragma once

#include "nodes/node_watch.hpp"
#include "output.hpp"

namespace plx::tool {

// Numbers of one application when `app` is not null.
Row row_of(const NodeName &name, const NodeWatch::Node &node, std::string_view state, const std::string *app);
Row json_of(const NodeName &name, const NodeWatch::Node &node, std::string_view state);

} // namespace plx::tool
