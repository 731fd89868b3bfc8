// What is suspicious in a policy that is valid: what no node would take, what never acts, what could be shorter.
#pragma once

#include "policy.hpp"

namespace plx::tool {

struct Warnings {
    Errors found;
    // In some ACL, not every entry was compared with all in front of it: there are too many, or they differ too much.
    bool bounded = false;
};

Warnings find_warnings(const Policy &policy);

} // namespace plx::tool
