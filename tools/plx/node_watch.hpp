// Which service nodes there are while a policy is applied, by name: which had a record when it began, which show that
// they live, which went, what each has answered and what it says that it has.
#pragma once

#include "records/host.hpp"
#include "records/node_report.hpp"
#include <functional>
#include <map>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::tool {

class NodeWatch {
  public:
    // A status record as it came, and its node's name; "" of a node that does not name itself.
    using OnAnswer = std::function<void(const ProtobufCMessage *status, const std::string &node)>;
    using Names = std::vector<std::string>;

    // The context outlives it.
    NodeWatch(tq_context *context, uint32_t db, std::string app, OnAnswer on_answer);

    // Reads who is there and listens from then on. The library is to register later: then this hears first. The store
    // client's result.
    int start();

    size_t recorded() const { return recorded_; }
    Names alive() const;
    Names silent() const;   // had a record when this began, and gave no sign of life
    Names vanished() const; // lived, and went
    // Those alive that say that they have something else of the application than this. A node that says nothing of
    // itself is not among them.
    Names without(const Digest &wanted) const;
    // Of those alive that say what they have, the one that has least, and how many records; "" when there is none.
    std::pair<std::string, uint64_t> slowest() const;
    // When a node's word on the application changed last.
    milliseconds last_change() const { return last_change_; }

  private:
    struct Node {
        bool recorded = false, left = false;
        milliseconds seen{0}; // 0: never
        std::optional<Digest> has{};
    };

    static int32_t on_node(void *handle, const tq_mom_notification *change, void *arg);
    static int32_t on_recorded(void *handle, const tq_mom_notification *entry, void *arg);
    static int32_t on_report(void *handle, const tq_mom_notification *change, void *arg);
    static int32_t on_status(void *handle, const tq_mom_notification *change, void *arg);
    static bool lives(const Node &node);
    template <typename Which> Names names(Which &&which) const;

    tq_context *context_;
    uint32_t db_;
    std::string app_;
    OnAnswer on_answer_;
    std::map<NodeName, Node> nodes_;
    size_t recorded_ = 0;
    milliseconds last_change_{0};
};

// "0/1/0, 0/2/0 and 5 more"
std::string listed(const NodeWatch::Names &names);

} // namespace plx::tool
