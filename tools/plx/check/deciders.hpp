// Which earlier entry leaves nothing to a later one: looked up, not compared one by one.
//
// Rules that test the same bits for equality are in one group, by the values of those bits. A rule is covered by one
// whose tests hold for every frame that it could match itself; so in each group at most one place is looked at. Only
// single rules are found, not several that cover another together. What is kept is bounded.
#pragma once

#include "explain/knowledge.hpp"
#include "policy.hpp"
#include <unordered_map>

namespace plx::tool {

struct Decider {
    const PolicyEntry *entry = nullptr;
    plane::packet::Verdict verdict = plane::packet::Verdict::next;
};

class Deciders {
  public:
    void add(const plane::packet::Rule &rule, const PolicyEntry &entry);
    // Who decides on every frame of which that is known; nullptr when nobody alone does.
    const Decider *covering(const Knowledge &known) const;
    bool bounded() const { return bounded_; } // something was not kept

  private:
    struct Place {
        plane::packet::Source source;
        plane::packet::Bytes mask;
        auto operator<=>(const Place &) const = default;
    };
    struct Candidate {
        std::vector<plane::packet::Test> rest; // its tests of other kinds
        Decider decider;
    };
    struct Group {
        std::vector<Place> places;
        std::unordered_map<std::string, std::vector<Candidate>> by_value;
    };

    Group *group_of(std::vector<Place> places);

    std::vector<Group> groups_;
    size_t kept_ = 0;
    bool bounded_ = false;
};

} // namespace plx::tool
