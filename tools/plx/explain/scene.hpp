// The ACLs that judge at a port in a direction, and their entries, in the order in which they are asked.
#pragma once

#include "policy.hpp"
#include "records/record.hpp"
#include <tq_context.h>

namespace plx::tool {

struct SceneEntry {
    uint64_t sn = 0, priority = 0;
    bool is_default = false;
    std::string name{};
    Requested wanted{};
};

struct SceneAcl {
    std::string app; // that owns it
    uint32_t id = 0;
    uint32_t priority = 0; // of the apply
    std::string name{};
    ApplyKey apply{}; // in the store, and what it asks for
    Requested applied{};
    std::vector<SceneEntry> entries{};
};

struct Scene {
    bool off = false; // the port
    std::vector<SceneAcl> acls{};
};

Scene scene_of(const Policy &policy, uint32_t port, uint32_t direction);
// The same from the store. The store client's result; `unreadable` counts what cannot be read.
int read_scene(tq_context *context, uint32_t db, uint32_t port, uint32_t direction, Scene &scene, size_t &unreadable);

} // namespace plx::tool
