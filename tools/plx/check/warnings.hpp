// What is suspicious in a policy that is valid: what no node would take, what never acts, what could be shorter.
#pragma once

#include "policy.hpp"

#include <string>
#include <vector>

namespace plx::tool {

struct Warnings {
    Errors found;
    // In some ACL, not every entry was compared with all in front of it: there are too many, or they differ too much.
    bool bounded = false;
};

// What each kind of them is called: "shadowed".
const std::vector<std::string> &kinds_of_warnings();

// Without those of the ignored kinds.
Warnings find_warnings(const Policy &policy, const std::vector<std::string> &ignored);

} // namespace plx::tool
