// What `plx show node` and `plx node forget` do.
#pragma once

#include "record_options.hpp"

namespace plx::tool {

// Every node with what it says of itself, and what it has refused. The exit code.
int show_nodes(const RecordOptions &options);

// Adds `forget` below the command `node`.
void add_forget_command(CLI::App &node, int &exit_code);

} // namespace plx::tool
