// A service node: it keeps a forwarding plane as the policy store asks, answers every request, and shows that it
// lives.
//
// The node owns its store context, and with it the subscriptions that call it; the plane is the caller's and may
// outlive the node. Everything runs on the event loop of the context; store calls block as the store client says.
//
// Changes are taken from notifications, gathered (inbox.hpp), and made.
// Where notifications may be missing - at the start, when the store says so, when a commit ends, after a failed call,
// when the plane lost something - the node reads the tables and makes only what differs (compare). A request is
// answered once, however often it is seen. What the node wrote about an entry goes with it, and so does what another
// node left of one that went (leftovers.hpp).
//
// What the store lost, rather than that somebody took it away, stays programmed for a while (hold.hpp).
//
// Nothing that it does grows with the number of entries between two signs of life: long walks and long calls of the
// plane beat on their way, and counters are published so many in a second, in turns.
//
// Changes that an application stages are left alone until they are to be made together (commits.hpp); then the tables
// are compared. How answers reach the store is in outbox.hpp, counters in counter_records.hpp; what the node says of
// itself is in life.hpp, report.hpp and inquiries.hpp.
#pragma once

#include "plane/commits.hpp"
#include "plane/counter_records.hpp"
#include "plane/hold.hpp"
#include "plane/inbox.hpp"
#include "plane/inquiries.hpp"
#include "plane/leftovers.hpp"
#include "plane/life.hpp"
#include "plane/outbox.hpp"
#include "plane/plane.hpp"
#include "plane/report.hpp"
#include "records/host.hpp"
#include <optional>
#include <set>
#include <span>
#include <string>
#include <tq_mom.h>
#include <unordered_map>
#include <vector>

namespace plx::plane {

struct NodeOptions {
    uint32_t db = 8; // the database that the applications registered
    uint32_t dev = 0;
    uint32_t slot = 0;
    uint32_t id = 0;
    uint64_t token = 0;           // random; tells it from another node of the same name
    milliseconds heartbeat{5000}; // of the node's record: applications count a node out after 20 s without
    milliseconds counters{10000}; // between two publications of an entry's counters, at least
    uint32_t counter_rate = 200;  // counters published in a second, at most: the rest follow in turn
    milliseconds retry{1000};     // after a failed store call
    milliseconds hold{300'000};   // what the store has lost stays programmed so long; 0: until it is written again
    std::function<void(const std::string &)> tell{}; // hears what an operator should know
    milliseconds leftovers{3000}; // after the first comparison: what is left of entries that went is looked for
};

class Node {
  public:
    Node(Context context, Plane &plane, NodeOptions options);
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    ~Node() { plane_.set_alive({}); }

    // Announces the node, subscribes, and reads what is in the store. The store client's result: when it is not 0 the
    // node does nothing, and is to be destroyed.
    int start();

    // Looks after what the plane has, as at every heartbeat: something that concerns it has changed.
    void look();

    // Has what is held of what the store lost taken out of the plane.
    void release() { hold_.release(); }

    size_t known() const { return entries_.size(); } // records taken up, programmed or refused

    // What it has, and what it has counted. The references are good until the loop runs.
    struct Numbers {
        Description plane;
        const Report::Applications &applications;
        const AnswerNumbers &answers;
        const Histogram &plane_calls; // how long each took
        uint64_t records;             // taken up: beside those programmed and refused the plane lost some
        uint64_t held;                // tables of an application of which something is held
        uint64_t heard, answering;    // changes to be made, and answers to be given
        uint64_t comparisons;
        uint64_t heartbeats, failed_heartbeats;
        milliseconds since_heartbeat; // that the store took; since the start where it took none
    };
    Numbers numbers() const;

    // Calls back for each entry whose counters are in the store, in no order, with what is there.
    void each_counted(const std::function<void(const AceKey &, const Counters &)> &callback) const;

  private:
    // What was last asked for under a key, and what became of it.
    struct Entry : Standing, CounterRecord {
        uint32_t seen = 0; // the last comparison that found it in the store
    };
    using Entries = std::unordered_map<Key, Entry, KeyHash>;

    // A walk over the tables, of one application or whole.
    struct Comparison {
        const std::string *app;
        uint32_t number;
        bool from_nothing;  // no entry was known: what is found is made at once
        bool trial = false; // nothing is made, and nobody answered
        uint64_t begun = now_us();
        std::set<size_t> unreadable{}; // tables in which a record could not be read: nothing of them is removed
        std::vector<Change> found{};   // that differ
    };

    static int32_t on_change(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_marker(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_call(void *handle, const tq_mom_notification *notification, void *arg) noexcept;

    int subscribe();
    void take_up_installed();
    void take_changes(std::vector<Change> changes);

    void compare();
    bool compare(const std::string *app);
    bool scan(Comparison &comparison);
    bool take_copies(Comparison &comparison);
    void find(Comparison &comparison, Change change);
    Hold::Shares programmed(const Comparison &comparison, bool lost_whole) const;
    std::vector<Change> removals(const Comparison &comparison);
    void drop_staged(std::vector<Change> &changes);
    void make(std::vector<Change> changes);
    void program(std::span<const Change> changes, size_t step);
    bool differs(const Change &change) const;
    bool needs_plane(const Change &change);
    void settle(const Change &change, const Answer &answer);
    std::vector<std::pair<Key, Standing>> refused(const std::string &app) const;
    std::optional<std::vector<std::pair<Key, Standing>>> try_out(const std::string &app);
    bool current(const Key &key, uint64_t request) const;

    void watch_plane();
    std::optional<uint64_t> publish_report();
    CounterRecord *counter_record(const Key &key);

    NodeOptions options_;
    Plane &plane_;
    Context context_;
    Entries entries_;
    uint32_t comparisons_ = 0;
    Inbox inbox_;
    Commits commits_;
    Hold hold_;
    Outbox outbox_;
    Report report_;
    Life life_;
    Leftovers leftovers_;
    CounterRecords counter_records_;
    Inquiries inquiries_;
    Watch watch_; // of the plane's descriptor
    Histogram plane_calls_;
    Timer compare_timer_;
};

} // namespace plx::plane
