// From the tests that an entry's attributes ask for to those that a rule makes: no test twice, none that others imply,
// in the order for a plane; or the finding that no frame can pass them all.
#pragma once

#include "plane/packet/rule.hpp"
#include "records/attribute.hpp"

namespace plx::plane::packet {

// A test and the attribute that asks for it.
struct Sought {
    Test test;
    const Form *by;
};

struct Settled {
    std::vector<Test> tests;
    // When no frame can pass: the attributes that exclude each other, possibly one twice.
    const Form *one = nullptr, *other = nullptr;
    bool possible() const { return one == nullptr; }
};

// Not every contradiction is found, for some need arithmetic; what is found is one.
Settled settle(std::vector<Sought> sought);

} // namespace plx::plane::packet
