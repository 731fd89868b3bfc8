// What `plx apply` was asked for.
#pragma once

#include "records/host.hpp"
#include <string>
#include <vector>

namespace plx::tool {

struct ApplyOptions {
    std::string file;
    std::string store = "unix:/run/plx-store/store.sock";
    uint32_t db = 8;
    double timeout_s = 200; // above the 180 s after which the library itself stops waiting
    double wait_s = 30;     // for a store or for nodes that are yet to come
    double wait_lock_s = 0;
    uint32_t lock_s = 30; // that a lock outlives its owner
    bool atomic = false;
    bool changes_only = false;
    bool failed_only = false; // lists what is not as it was asked for
    bool rollback = false, dry_run = false;
    std::string plan{}, progress{};
    std::string rollback_app{};
    bool json = false, progress_json = false;
    uint32_t nodes = 0; // 0: not given
    std::vector<size_t> table_sizes;
    std::vector<std::string> simulate;

    bool only_changes() const { return changes_only || !plan.empty(); }
    bool embedded() const { return store.starts_with("mem:"); }
    milliseconds wait() const { return of(wait_s); }
    milliseconds timeout() const { return of(timeout_s); }
    milliseconds wait_lock() const { return of(wait_lock_s); }

  private:
    static milliseconds of(double seconds) { return milliseconds(static_cast<int64_t>(seconds * 1000)); }
};

} // namespace plx::tool
