// libplx against the test doubles, for targets that run in one process as long as the fuzzer likes: registered once,
// and set back to the state after registration before each run.
#pragma once

#include "input.hpp"

#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <support/fakes.h>

namespace fuzz {

struct application_context {
    void *client;
    tq_thread_master *master;
};
extern application_context context;

// Registers "security_app" and "my_app" with these callbacks and database 5, the first time; empties cache, lists and
// doubles. The operation table.
fp_udp_mgr &fresh_library(const fp_udp_acl_handler &handler);

// Nodes, tables, lists and pending requests agree with each other.
void require_consistency();

} // namespace fuzz
