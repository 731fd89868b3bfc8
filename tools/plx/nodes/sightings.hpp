// Which service nodes there are, and which of them live: those that have a record, what each reported last, and who
// shows itself when called.
#pragma once

#include "output.hpp"
#include "records/host.hpp"
#include "records/node_report.hpp"
#include <tq_mom.h>

namespace plx::tool {

// How long applications wait for a node's sign of life before they count it out.
constexpr milliseconds counted_out{20000};

// Those that live show it at once. One that does not understand, or where this may not be written, is heard of at its
// next sign of life. The store client's result.
int call_nodes(tq_context *context, uint32_t db);

struct Sighting {
    bool recorded = false; // has a `service_node` record
    bool heard = false;    // has shown itself since it was called
    std::optional<NodeReport> report;
    std::optional<milliseconds> age; // of the report, by both machines' clocks
};

class Sightings {
  public:
    Sightings(tq_context *context, uint32_t db) : context_(context), db_(db) {}

    // Hears of nodes from now on. The store client's result, as of the next one.
    int start();
    // Reads who there is, calls them if this user may, and waits until all have shown themselves, at most so long.
    int look(milliseconds longest);

    const std::map<NodeName, Sighting> &all() const { return nodes_; }

    // "alive"; "late": called, and not heard yet, but its report is fresh; "silent". Without a right to call, a fresh
    // report is a sign of life.
    std::string_view state(const Sighting &node) const;

  private:
    static int32_t on_node(void *, const tq_mom_notification *notification, void *arg);
    static int32_t on_sign(void *, const tq_mom_notification *notification, void *arg);

    tq_context *context_;
    uint32_t db_;
    bool called_ = false; // may be
    std::map<NodeName, Sighting> nodes_;
};

// As `plx show node` and `plx top` show it; numbers of one application when `app` is not null.
Row row_of(const NodeName &name, const Sighting &node, std::string_view state, const std::string *app);
Row json_of(const NodeName &name, const Sighting &node, std::string_view state);

} // namespace plx::tool
