// A policy as `plx apply` takes it from a file: checked whole, attribute values encoded.
#pragma once

#include "document.hpp"
#include "records/attribute.hpp"
#include <optional>

namespace plx::tool {

struct PolicyAttribute {
    const Form *form;
    std::vector<uint8_t> value;
};

struct PolicyEntry {
    Position at;
    uint64_t sn = 0;
    std::string name{}; // kept as private data; may be empty
    uint64_t priority = 0;
    bool is_default = false;
    std::vector<PolicyAttribute> attributes{};
};

struct PolicyAcl {
    Position at;
    uint32_t id = 0;
    std::string name{};
    uint8_t cls = 0;
    std::vector<PolicyEntry> entries{};
};

struct PolicyApply {
    Position at;
    uint32_t acl = 0;
    uint32_t port = 0;
    uint32_t direction = 0;
    uint32_t priority = 0;
};

struct Policy {
    std::string application;
    std::vector<PolicyAcl> acls;
    std::vector<PolicyApply> applies;
};

// The policy in a document; nullopt, with all that is wrong, when anything is.
std::optional<Policy> read_policy(const Part &root, Errors &errors);

std::string_view direction_name(uint32_t direction);

} // namespace plx::tool
