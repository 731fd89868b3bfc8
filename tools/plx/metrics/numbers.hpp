// The numbers that plx serves, as families of a page; plx-metrics(1) tells what each means.
#pragma once

#include "metrics/exposition.hpp"
#include "plane/node.hpp"

namespace plx::tool {

// Of every program: its version, its event loop, its log.
void add_program(Exposition &page, const tq_thread_master *loop);

// Of a connection to the store that hears of changes.
void add_store_client(Exposition &page, tq_context *context, uint32_t db);

// Of a service node. Of its entries' counters those `most_entries` that most packets hit.
void add_node(Exposition &page, const plane::Node &node, const std::string &name, size_t most_entries);

} // namespace plx::tool
