// Which service nodes there are, and which of them live: those that have a record, who shows itself when called, what
// each reported last; and, while an application's policy is applied, who went away, what each has answered and what it
// says that it has. Who may write signs of life may make nodes up: so many are believed, and that there are more is
// told once.
#pragma once

#include "records/host.hpp"
#include "records/node_report.hpp"
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::tool {

// How long applications wait for a node's sign of life before they count it out.
constexpr milliseconds counted_out{20000};

constexpr size_t most_nodes = 4096;

// Those that live show it at once. One that does not understand, or where this may not be written, is heard of at its
// next sign of life. The store client's result.
int call_nodes(tq_context *context, uint32_t db);

// The nodes that have a record. The store client's result.
int read_nodes(tq_context *context, uint32_t db, std::set<NodeName> &nodes);

class NodeWatch {
  public:
    struct Node {
        bool recorded = false; // had a `service_node` record when they were read
        bool left = false;     // it was taken out since
        milliseconds seen{0};  // its last sign of life; 0: never
        std::optional<NodeReport> report{};
        std::optional<milliseconds> age{}; // of the report when it was looked at, by both machines' clocks
        std::optional<Digest> has{};       // of the application that is followed, as it says
    };
    // A status record as it came, and its node's name; "" of a node that does not name itself.
    using OnAnswer = std::function<void(const ProtobufCMessage *status, const std::string &node)>;
    using Names = std::vector<std::string>;

    // The context outlives it.
    NodeWatch(tq_context *context, uint32_t db) : context_(context), db_(db) {}

    // Hears of nodes from now on. The store client's result, as of the next two.
    int start();
    // Reads who there is, calls them if this user may, and waits until all have shown themselves, at most so long.
    int look(milliseconds longest);
    // In place of both: reads who there is, and hears from then on of nodes, their reports and their answers to an
    // application. The library is to register later: then this hears first.
    int follow(std::string app, OnAnswer on_answer);

    const std::map<NodeName, Node> &all() const { return nodes_; }
    // "alive"; "late": called, and not heard yet, but its report is fresh; "silent". Without a right to call, a fresh
    // report is a sign of life.
    std::string_view state(const Node &node) const;

    size_t recorded() const;
    Names alive() const;
    std::set<NodeName> living() const; // the same
    Names silent() const;              // had a record when this began, and gave no sign of life
    Names vanished() const;            // lived, and went
    // Those alive that say that they have something else of the application than this. A node that says nothing of
    // itself is not among them.
    Names without(const Digest &wanted) const;
    // Of those alive that say what they have, the one that has least, and how many records; "" when there is none.
    std::pair<std::string, uint64_t> slowest() const;
    // When a node's word on the application changed last.
    milliseconds last_change() const { return last_change_; }

  private:
    static int32_t on_node(void *handle, const tq_mom_notification *change, void *arg);
    static int32_t on_report(void *handle, const tq_mom_notification *change, void *arg);
    static int32_t on_status(void *handle, const tq_mom_notification *change, void *arg);
    static bool heard(const Node &node) { return node.seen != milliseconds(0); }
    static bool lives(const Node &node);
    int read_recorded();
    Node *known(const NodeName &name); // null: there are too many
    template <typename Which> Names names(Which &&which) const;

    tq_context *context_;
    uint32_t db_;
    std::string app_;
    OnAnswer on_answer_;
    bool called_ = false; // may be
    bool told_ = false;   // that there are too many
    std::map<NodeName, Node> nodes_;
    milliseconds last_change_{0};
};

// "0/1/0, 0/2/0 and 5 more"
std::string listed(const NodeWatch::Names &names);

} // namespace plx::tool
