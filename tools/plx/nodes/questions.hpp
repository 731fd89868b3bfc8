// Asks service nodes what is in their planes, and gathers the answers, which come from the event loop.
//
// Answers come from the store and are hostile: texts are cut, what is beyond a node's bounds is left.
#pragma once

#include "records/host.hpp"
#include "records/node_report.hpp"
#include <array>
#include <set>
#include <span>
#include <tq_mom.h>

namespace plx::tool {

class Questions {
  public:
    struct Answer {
        std::string error; // why the plane cannot be read
        PartDigests sums{};
        std::vector<NodeEntry> entries;
        bool tried = false;         // they are what the node would refuse
        std::set<uint32_t> records; // of the answer that have come
        uint32_t expected = 0;      // of them; 0: none has come
        bool whole() const { return expected != 0 && records.size() == expected; }
    };
    using Answers = std::map<NodeName, Answer>;

    Questions(tq_context *context, uint32_t db) : context_(context), db_(db) {}

    // Before all else. The store client's result.
    int start();

    // Asks every node what it would refuse of what is in the application's tables. The store client's result.
    int put_trial(const std::string &app);
    // Whether all of these have answered what was asked last.
    bool answered(const std::set<NodeName> &nodes) const;
    // The whole answers that have come.
    Answers take();

    // Asks these nodes, each for itself or all at once, and waits for whole answers, at most so long. Answers that
    // have come are taken out of the store. The store client's result.
    int ask(const std::string &app, const std::set<NodeName> &nodes, std::span<const uint32_t> parts,
            milliseconds longest, Answers &answers);

  private:
    static int32_t on_answer(void *, const tq_mom_notification *notification, void *arg);
    int write(const std::string &node, const std::string &app, std::span<const uint32_t> parts, bool trial);

    tq_context *context_;
    uint32_t db_;
    uint64_t nonce_ = 0;
    Answers answers_;
};

} // namespace plx::tool
