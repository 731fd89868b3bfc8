// How a record stands on service nodes, as their planes have it now.
#pragma once

#include "nodes/questions.hpp"

namespace plx::tool {

struct Standing {
    bool known = false;      // the node has answered
    bool programmed = false; // perhaps with another content
    std::string text;        // "programmed", "not programmed: table full (101)", "no answer"
};
using Standings = std::map<NodeName, Standing>;

// Asks the nodes, which all have one of the result. The store client's result.
int ask_standings(Questions &questions, const Key &key, const Requested &wanted, const std::set<NodeName> &nodes,
                  Standings &standings);

} // namespace plx::tool
