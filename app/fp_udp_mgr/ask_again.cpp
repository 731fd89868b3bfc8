// What is pending when the store tells that answers were lost is written again, under a new identifier: service nodes
// that have programmed it answer once more and do nothing else, and those that refused it refuse it again.
//
// A timer of its own does so, oldest request first, a bounded time in each of its turns. A request that was written
// again is the youngest and goes to the end of the list; the walk ends at the first that is younger than the loss.
// What is written is what the store holds: an entry that somebody has taken out or written over is left to them.
#include "ask_again.hpp"

#include "../fp_udp_req_mng/kinds.hpp"
#include "../fp_udp_req_mng/pending.hpp"
#include "../list.hpp"
#include "store_record.hpp"

#include <tq_time.h>

namespace plx::mgr {
namespace {

constexpr uint64_t turn_us = 5000;
constexpr timeval pause = {0, 20'000};
constexpr timeval pause_after_failure = {1, 0};

struct {
    void *ctx;
    timeval lost;  // when
    uint64_t left; // to be written again, at most
    tq_thread *timer;
} asking = {};

template <class Node> struct asked;

template <> struct asked<fp_udp_ace_node> {
    using record = SPolicy__Ace;
    static void fill_key(SPolicy__AceKey &key, const fp_udp_ace_node &node) { fill(key, node.acl, node.ace.sn); }
};

template <> struct asked<fp_udp_apply_node> {
    using record = SPolicy__Apply;
    static void fill_key(SPolicy__ApplyKey &key, const fp_udp_apply_node &node) { fill(key, node.acl, node.apply); }
};

bool is_after(const timeval &a, const timeval &b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_usec > b.tv_usec;
}

// The youngest of all from now on.
template <class Node> void wait_anew(Node &node)
{
    fp_udp_list &links = node.req->links;
    (void)fp_udp_req_node_add(kind<Node>::request_type, &node); // there is one
    req::pending_walk::leave(links);
    list::unlink(links);
    list::push_back(g_req_para.pending, links);
}

// The store's result; other than 0, nothing has changed.
template <class Node> [[nodiscard]] int write_again(Node &node)
{
    using Record = typename asked<Node>::record;
    store_record<Record> wanted;
    asked<Node>::fill_key(wanted.key, node);
    const store_result result(tq_mom_hgetall_sync(asking.ctx, para.db, wanted.message()));
    if (!result.answered() || result.status() != 0)
        return result.answered() ? result.status() : int{TQ_MOM_DISCONNECTED};
    const auto *found = result.template record<Record>();
    auto &state = state_of(node);
    if (found == nullptr || found->req_uuid != state.uuid)
        return 0;
    wanted.values = *found;
    wanted.values.index = &wanted.key;
    wanted.values.req_uuid = new_request_id();
    if (const int written = wanted.write(asking.ctx); written != 0)
        return written;
    state.uuid = wanted.values.req_uuid;
    state.req_count = 0;
    return 0;
}

// The oldest request that is as old as the loss, or null.
fp_udp_req_node *next_unanswered()
{
    if (asking.left == 0 || list::empty(g_req_para.pending))
        return nullptr;
    auto *oldest = reinterpret_cast<fp_udp_req_node *>(g_req_para.pending.next);
    return is_after(oldest->time, asking.lost) ? nullptr : oldest;
}

void schedule(const timeval &interval);

int turn(tq_thread *)
{
    asking.timer = nullptr;
    (void)bulk::settle(); // runs callbacks, which may end any request: none is held yet
    const uint64_t end = new_request_id() + turn_us;
    while (fp_udp_req_node *request = next_unanswered()) {
        const int failed = with_node(*request, [](auto &node) {
            const int result = write_again(node);
            if (result == 0)
                wait_anew(node);
            return result;
        });
        if (failed != 0)
            return schedule(pause_after_failure), 0;
        --asking.left;
        if (new_request_id() >= end)
            return schedule(pause), 0;
    }
    return 0;
}

// A timer that is refused leaves what is pending to its age.
void schedule(const timeval &interval)
{
    auto **members = static_cast<tq_thread_master **>(asking.ctx);
    if (asking.timer == nullptr && members != nullptr)
        (void)tq_thread_insert_timer_timeval(members[1], &asking.timer, turn, nullptr, &interval, "fp_udp_again");
}

} // namespace

void ask_again(void *ctx)
{
    timeval now = {};
    if (list::empty(g_req_para.pending) || tq_monotime(&now) != 0)
        return;
    report<Impt>("answers were lost, asking again.\n");
    asking.ctx = ctx;
    asking.lost = now;
    asking.left = 0;
    for (const auto *at = g_req_para.pending.next; at != &g_req_para.pending; at = at->next)
        ++asking.left;
    schedule(pause);
}

} // namespace plx::mgr
