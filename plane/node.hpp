// A service node: it keeps a forwarding plane as the policy store asks, answers every request, and shows that it lives.
//
// The node owns its store context, and with it the subscriptions that call it; the plane is the caller's and may
// outlive the node. Everything runs on the event loop of the context; store calls block as the store client says.
//
// Changes are taken from notifications and gathered until the loop has delivered what it had (take_changes). Where
// notifications may be missing - at the start, when the store says so, when a commit ends, after a failed call - the
// node reads the tables and makes only what differs (compare). A request is answered once, however often it is seen.
// Answers leave without waiting for the store's word on them, which is taken a moment later (take_answers), in any case
// before anything else is written. What the node wrote about an entry goes with it; what is left of entries that went
// while no node was there is looked for at the start.
//
// While an application's enable marker stands, and its seconds have not passed, none of the application's changes is
// programmed. Its publish marker, the end of the seconds and the removal of the enable marker each make all of them
// together. Nothing is kept of the changes meanwhile: the tables are compared when it is time.
#pragma once

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

    size_t known() const { return entries_.size(); } // records taken up, programmed or refused

  private:
    // What was last asked for under a key, and what became of it.
    struct Entry {
        uint64_t request = 0;
        uint64_t fingerprint = 0;
        Status status = Status::ok;
    };

    // An application's enable marker. One whose time has passed stays, as spent, until it is written again.
    struct Commit {
        milliseconds until{0};
        bool spent = false;
    };

    struct Verdict {
        uint64_t request;
        Status status;
    };

    struct Reply {
        Key key;
        const ProtobufCMessageDescriptor *record;
        std::optional<Verdict> verdict; // none: the entry is gone, and the record is to go
    };

    // The tables as the store has them, of one application or whole.
    struct Snapshot {
        std::map<Key, Requested> records;
        std::set<size_t> unreadable; // tables in which a record could not be read: nothing of them is removed
        size_t table = 0;            // the one that is being read
        bool lacks(const Key &key) const { return !records.contains(key) && !unreadable.contains(key.index()); }
    };

    static int32_t on_change(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_commit(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_scan(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    static int32_t on_leftover(void *handle, const tq_mom_notification *notification, void *arg) noexcept;

    int subscribe();
    void take_up_installed();
    void take_changes();
    void arm(Timer &timer, milliseconds delay);

    void take_marker(const std::string &app, const ProtobufCMessage &record, bool deleted);
    void open_commit(const std::string &app, uint64_t seconds);
    void finish_commit(const std::string &app, bool stands);
    void end_commits();
    bool staged(const std::string &app);

    bool clear_leftovers(const Snapshot &snapshot);
    void compare();
    bool compare(const std::string *app);
    bool scan(const std::string *app, Snapshot &snapshot);
    std::vector<Change> differences(const std::string *app, const Snapshot &snapshot);
    void drop_staged(std::vector<Change> &changes);
    void make(std::vector<Change> changes);
    bool needs_plane(const Change &change);
    void settle(const Change &change, const Answer &answer);

    void send_replies();
    void schedule_replies(milliseconds pause);
    void take_answers();
    void forget(const Key &key);
    bool outdated(const Reply &reply) const;
    int write(const Reply &reply);
    void beat();
    void publish_counters();
    int write(const Key &ace, const Counters &counters);

    NodeOptions options_;
    Plane &plane_;
    Context context_;
    std::map<Key, Entry> entries_;
    std::vector<Change> inbox_;
    bool cleared_ = false; // what entries had left that went before this node was there
    std::map<std::string, Commit> commits_;
    std::set<std::string> unmarked_;             // applications that were looked up and have no enable marker
    std::multimap<milliseconds, Reply> replies_; // by the time at which they are due
    bool batching_ = false;
    std::vector<Reply> sent_;           // in this batch
    std::map<Key, Counters> published_; // of each entry, what its counter record holds
    std::optional<Key> last_counted_;   // where the publication goes on
    Timer inbox_timer_, compare_timer_, commit_timer_, reply_timer_, answer_timer_, heartbeat_timer_, counter_timer_;
};

} // namespace plx::plane
