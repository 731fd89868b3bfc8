/* plx/request.h: requests that the forwarding plane has yet to answer, and the service nodes that answer them.
 *
 * An application needs plx_wait_for_nodes() of this header, perhaps g_fp_service.count, and nothing else: set_ace and
 * set_apply start requests, the event loop ends them. The rest is for tools that look into a live process, and tests.
 *
 * A request ends in success when as many service nodes have confirmed it as g_fp_service counts, in failure at the
 * first refusal, and after 180 seconds in success unless a failure was recorded. Where no node is known one answer is
 * enough.
 */
#ifndef PLX_REQUEST_H
#define PLX_REQUEST_H

#include <plx/cache.h>
#include <plx/manager.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The platform's (tq_time.h): a pending timer, an event loop, and the clock that requests are aged by. */
struct tq_thread;
struct tq_thread_master;
int tq_monotime(struct timeval *now);
uint64_t tq_timeval_to_ms(const struct timeval *tv);

/* What a request is for: no other number is accepted. */
enum fp_udp_req_type { FP_UDP_REQ_ACE = 1, FP_UDP_REQ_APPLY = 2 };

/* One pending ACE or apply. Node and request always point at each other. */
typedef struct fp_udp_req_node {
    /* In g_req_para.pending, oldest submission first. */
    fp_udp_list links;
    /* Monotonic time of the last add. */
    struct timeval time;
    /* fp_udp_ace_node or fp_udp_apply_node */
    void *node;
    /* enum fp_udp_req_type */
    uint8_t type;
} fp_udp_req_node;

/* What the last registration gave, and every pending request. */
typedef struct fp_udp_req_para {
    void *g_ssd_fp_global;
    /* The library's own copy. */
    const fp_udp_acl_handler *handler;
    /* Of fp_udp_req_node. */
    fp_udp_list pending;
} fp_udp_req_para;

/* For reading. */
extern fp_udp_req_para g_req_para;
/* The timer of the ageing pass, every 10 s, and of the service-node expiry, every 15 s. */
extern struct tq_thread *g_req_check_thread;
extern struct tq_thread *g_service_expire_thread;

/* Empties the pending list and the service-node list and starts both timers. Registration calls it, once. Returns the
 * request-check timer's result. */
int32_t fp_udp_req_init(void *g_ssd_fp_global, const fp_udp_acl_handler *handler);

/* Starts waiting for a node's outcome; one that is waited for already keeps its place and gets a new time. 0, -4 for a
 * bad type or null node, -2. */
int32_t fp_udp_req_node_add(uint8_t type, void *node);
/* Stops waiting, without a callback. 0, also when nothing was pending; -4. */
int32_t fp_udp_req_node_del(uint8_t type, void *node);

/* Judges one answer (`final` 0) or the end of waiting (`final` non-zero) and runs the application's callback when that
 * decides the outcome. The callback may delete the node: only a new look-up tells. 0, or -4 for a null node. */
int32_t fp_udp_ace_req_stat_proc(fp_udp_ace_node *node, int32_t status, int32_t final);
int32_t fp_udp_apply_req_stat_proc(fp_udp_apply_node *node, int32_t status, int32_t final);

/* The ageing pass: ends every request of 180 s or more and, with `force` 1, those that enough service nodes have
 * answered. With `force` 0 it visits at most 5000 requests. */
void fp_udp_req_check_proc(int32_t force);

/* Insert the one-shot timers, which insert themselves again, on the context's loop. 0, or the timer library's code. */
int32_t fp_udp_expire(void);
int32_t fp_udp_req_check(void);

/* What names a service node: a device, a slot of it, and the service's number on that slot. */
typedef struct fp_udp_service_node_key {
    uint32_t dev;
    uint32_t slot;
    uint32_t id;
} fp_udp_service_node_key;
FP_UDP_LAYOUT(sizeof(fp_udp_service_node_key) == 12);

/* A node that has been heard of and has not fallen silent. */
typedef struct fp_udp_service_node {
    /* In g_fp_service.nodes, first heard of first. */
    fp_udp_list links;
    uint32_t dev;
    uint32_t slot;
    uint32_t id;
    /* Monotonic time of its last record; a live node writes one every 5 seconds. */
    struct timeval up_time;
} fp_udp_service_node;

/* The nodes known at the moment. */
typedef struct fp_udp_service {
    fp_udp_list nodes;
    /* Elements of nodes: the answers that a request needs. 0 after registration, until the loop has run. */
    int32_t count;
} fp_udp_service;

/* For reading; `plx shell NAME.fp fp_udp_dump_service_node` shows it from outside. */
extern fp_udp_service g_fp_service;

/* Subscribes to all service-node records of a database. The store client's result. */
int32_t fp_udp_service_node_subscribe(void *g_ssd_fp_global, uint32_t db);

/* The known node, or NULL. */
fp_udp_service_node *fp_udp_fp_service_node_search(const fp_udp_service_node_key *key);
/* Notes that a node is alive. 0 or -2. */
int32_t fp_udp_fp_service_node_add(const fp_udp_service_node_key *key);
/* Drops the nodes silent for 20 s or more and judges all pending requests again when there was one: what the remaining
 * nodes have confirmed is a success then. A silent node is so noticed after 20 to 35 seconds. */
void fp_udp_fp_service_node_expire(void);

/* Runs the event loop until `wanted` service nodes are known, or `bound_ms` milliseconds have passed, or the loop
 * fails. Returns how many are known then: fewer than `wanted` is for the caller to tell, and to decide.
 *
 * Call it between registration and the first set_ace or set_apply. A request that is set earlier is judged by the nodes
 * known when their answers come: the first node's word would do for all. A live node is heard of within 6.5 seconds, so
 * a smaller bound may miss it; `wanted` 0 returns at once. `run_once` is the loop's function that waits for at most so
 * many milliseconds, handles what is due, and returns 0: tq_loop_run_once() of tq_loop.h, or your platform's.
 *
 *     if (plx_wait_for_nodes(context->master, 2, 10000, tq_loop_run_once) < 2)
 *         fprintf(stderr, "only %d of 2 service nodes are alive\n", (int)g_fp_service.count);
 *
 * Callbacks run from the loop as ever. An application that lives on a loop of its own watches g_fp_service.count there
 * instead. */
static inline int32_t plx_wait_for_nodes(struct tq_thread_master *master, int32_t wanted, int32_t bound_ms,
                                         int (*run_once)(struct tq_thread_master *master, int timeout_ms))
{
    struct timeval now;
    uint64_t begin, passed;
    if (bound_ms < 0 || tq_monotime(&now) != 0)
        return g_fp_service.count;
    begin = tq_timeval_to_ms(&now);
    for (passed = 0; g_fp_service.count < wanted && passed < (uint64_t)bound_ms;) {
        if (run_once(master, bound_ms - (int)passed) != 0 || tq_monotime(&now) != 0)
            break;
        passed = tq_timeval_to_ms(&now) - begin;
    }
    return g_fp_service.count;
}

#ifdef __cplusplus
}
#endif

#endif
