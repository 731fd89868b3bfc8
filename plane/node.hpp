// A service node: it keeps a forwarding plane as the policy store asks, answers every request, and shows that it lives.
//
// The node owns its store context, and with it the subscriptions that call it; the plane is the caller's and may
// outlive the node. Everything runs on the event loop of the context; store calls block as the store client says.
//
// Changes are taken from notifications and gathered until the loop has delivered what it had, and for as long as the
// plane took for those before (take_changes): each call of the plane has its price. Where notifications may be missing
// - at the start, when the store says so, when a commit ends, after a failed call, when the plane lost something - the
// node reads the tables and makes only what differs (compare). A request is answered once, however often it is seen.
// What the node wrote about an entry goes with it; what is left of entries that went while no node was there is looked
// for at the start.
//
// Changes that an application stages are left alone until they are to be made together (commits.hpp); then the tables
// are compared. How answers reach the store is in outbox.hpp.
#pragma once

#include "plane/commits.hpp"
#include "plane/outbox.hpp"
#include "plane/plane.hpp"
#include "records/host.hpp"
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::plane {

struct NodeOptions {
    uint32_t db = 8; // the database that the applications registered
    uint32_t dev = 0;
    uint32_t slot = 0;
    uint32_t id = 0;
    milliseconds heartbeat{5000}; // of the node's record: applications count a node out after 20 s without
    milliseconds counters{10000}; // between two publications of the entries' counters
    milliseconds retry{1000};     // after a failed store call
};

class Node {
  public:
    Node(Context context, Plane &plane, NodeOptions options);
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    // Announces the node, subscribes, and reads what is in the store. The store client's result: when it is not 0 the
    // node does nothing, and is to be destroyed.
    int start();

    // Looks after what the plane has, as at every heartbeat: something that concerns it has changed.
    void look();

    size_t known() const { return entries_.size(); } // records taken up, programmed or refused

  private:
    // What was last asked for under a key, and what became of it.
    struct Entry {
        uint64_t request = 0;
        uint64_t fingerprint = 0;
        Status status = Status::ok;
    };

    // The tables as the store has them, of one application or whole.
    struct Snapshot {
        std::map<Key, Requested> records;
        std::set<size_t> unreadable; // tables in which a record could not be read: nothing of them is removed
        size_t table = 0;            // the one that is being read
        bool lacks(const Key &key) const { return !records.contains(key) && !unreadable.contains(key.index()); }
    };

    static int32_t on_change(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_marker(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_scan(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_leftover(void *handle, const tq_mom_notification *notification, void *arg) noexcept;

    int subscribe();
    void take_up_installed();
    void take_changes();

    bool clear_leftovers(const Snapshot &snapshot);
    void compare();
    bool compare(const std::string *app);
    bool scan(const std::string *app, Snapshot &snapshot);
    std::vector<Change> differences(const std::string *app, const Snapshot &snapshot);
    void drop_staged(std::vector<Change> &changes);
    void make(std::vector<Change> changes);
    bool needs_plane(const Change &change);
    void settle(const Change &change, const Answer &answer);
    bool current(const Key &key, uint64_t request) const;

    void watch_plane();

    void beat();
    void publish_counters();
    int write(const Key &ace, const Counters &counters);

    NodeOptions options_;
    Plane &plane_;
    Context context_;
    std::map<Key, Entry> entries_;
    std::vector<Change> inbox_;
    milliseconds gathering_{0}; // changes, for as long as the plane took for the last
    bool cleared_ = false;      // what entries had left that went before this node was there
    Commits commits_;
    Outbox outbox_;
    std::map<Key, Counters> published_; // of each entry, what its counter record holds
    Watch watch_;                       // of the plane's descriptor
    Timer inbox_timer_, compare_timer_, heartbeat_timer_, counter_timer_;
};

} // namespace plx::plane
