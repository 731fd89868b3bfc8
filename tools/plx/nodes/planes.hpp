// What service nodes' planes have otherwise than they should: each node is asked for sums over parts of what it has,
// and for the records of those parts alone whose sums are not the ones wanted.
#pragma once

#include "nodes/holdings.hpp"
#include "nodes/questions.hpp"
#include <optional>

namespace plx::tool {

constexpr size_t most_named = 20; // differences of one comparison

struct Difference {
    std::string name; // "acl 10 sn 150"
    std::string what; // "not in the store"
    int32_t status = 0;
    char kind = '~'; // +: there is nothing of it there, -: nobody wants it
};

struct Differences {
    std::vector<Difference> named;
    size_t unnamed = 0;
    // Keeps as many as are named.
    void bound();
};

class Planes {
  public:
    // `where`: what the nodes are compared with, for the texts: "store".
    Planes(tq_context *context, uint32_t db, std::string app, std::string where, milliseconds longest)
        : questions_(context, db), app_(std::move(app)), where_(std::move(where)), longest_(longest)
    {
    }

    // Asks the nodes for their sums. The store client's result.
    int ask(const std::set<NodeName> &nodes);
    // What the node's plane has; nullopt with a text, where it says nothing.
    std::optional<Digest> has(const NodeName &node, std::string &error) const;
    // What differs; of a node that has told what it has. The store client's result, and a text where it fell silent.
    int compare(const NodeName &node, const Holdings &wanted, Differences &found, std::string &error);

  private:
    void take(const std::vector<NodeEntry> &entries, const std::set<uint32_t> &parts, const Holdings &wanted,
              std::vector<Difference> &found) const;

    Questions questions_;
    std::string app_, where_;
    milliseconds longest_;
    Questions::Answers sums_;
};

} // namespace plx::tool
