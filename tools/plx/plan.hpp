// A plan: a policy that was compared with a store, what it changes there, and the state of the store that it was made
// from. A file of JSON lines, so that a person can read it and nothing that it was made from is needed to apply it.
#pragma once

#include "policy_diff.hpp"
#include <istream>
#include <optional>

namespace plx::tool {

struct Plan {
    Policy policy;
    uint64_t state = 0;
    std::vector<ItemChange> changes{};
    size_t unchanged = 0;
};

// False when the file cannot be written, with errno.
bool write_plan(const std::string &path, const Policy &policy, const PolicyDiff &diff);

// nullopt with a reason when the file is not a plan whole and sound. It may come from anywhere.
std::optional<Plan> read_plan(const std::string &path, std::string &error);
std::optional<Plan> read_plan(std::istream &in, std::string &error);

} // namespace plx::tool
