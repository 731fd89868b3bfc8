// What a store tells of all nodes and applications, as families of a page.
//
// Nodes are read for each page: who lives is told by the signs of life that are heard, and by a report's age until
// those would have been. What is asked for is counted now and then, for that takes a walk over the tables.
#pragma once

#include "metrics/exposition.hpp"
#include "records/host.hpp"
#include "records/node_report.hpp"
#include "records/record.hpp"
#include <set>
#include <tq_mom.h>

namespace plx::tool {

class Fleet {
  public:
    // The context outlives it. `between_counts`: seconds between two walks; more when a walk takes long.
    Fleet(tq_context *context, uint32_t db, milliseconds between_counts);

    // Hears of nodes from now on, and counts. The store client's result: when it is not 0, it may be tried again.
    int start();

    void add_to(Exposition &page) const;

  private:
    using Nodes = std::set<NodeName>;
    using Reports = std::map<NodeName, NodeReport>;
    struct Counts {
        std::map<std::string, std::map<size_t, uint64_t>> applications{}; // by table, as in tables()
        bool cut = false; // there are more applications than are told apart
    };

    static int32_t on_node(void *handle, const tq_mom_notification *change, void *arg) noexcept;
    static int32_t on_record(void *handle, const tq_mom_notification *entry, void *arg);
    void count();
    bool lives(const NodeName &name, const Reports &reports) const;
    void add_nodes(Exposition &page, const Nodes &nodes, const Reports &reports) const;
    void add_counts(Exposition &page) const;

    tq_context *context_;
    uint32_t db_;
    milliseconds between_counts_;
    milliseconds heard_from_{0}; // since when signs of life are heard; 0: not yet
    std::map<NodeName, milliseconds> seen_;
    Counts counts_;
    milliseconds counted_{0}, count_took_{0}; // when; 0: not yet
    Timer count_timer_;
};

} // namespace plx::tool
