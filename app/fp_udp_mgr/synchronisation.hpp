// Finding the security application's ACLs and ACEs in the store: at start-up, and whenever others change them.
#pragma once

#include <tq_mom.h>

namespace plx::mgr {

// Scans ACLs, then ACEs, and caches what is found. Failures are reported only.
void fp_udp_cache_all_secu_acl_info(void *ctx);

// Subscribe to changes of those records; the subscription's result is of no use to the caller.
void subscribe_acl_changes(void *ctx);
void subscribe_ace_changes(void *ctx);

} // namespace plx::mgr
