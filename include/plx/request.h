/* plx/request.h: requests that the forwarding plane has yet to answer, and the service nodes that answer them. */
#ifndef PLX_REQUEST_H
#define PLX_REQUEST_H

#include <plx/cache.h>
#include <plx/manager.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tq_thread;

enum fp_udp_req_type { FP_UDP_REQ_ACE = 1, FP_UDP_REQ_APPLY = 2 };

/* One pending ACE or apply. Node and request always point at each other. */
typedef struct fp_udp_req_node {
    fp_udp_list links;   /* in g_req_para.pending, oldest submission first */
    struct timeval time; /* monotonic time of the last add */
    void *node;          /* fp_udp_ace_node or fp_udp_apply_node */
    uint8_t type;        /* enum fp_udp_req_type */
} fp_udp_req_node;

typedef struct fp_udp_req_para {
    void *g_ssd_fp_global;
    const fp_udp_acl_handler *handler;
    fp_udp_list pending;
} fp_udp_req_para;

extern fp_udp_req_para g_req_para;
extern struct tq_thread *g_req_check_thread;      /* the ageing pass, every 10 s */
extern struct tq_thread *g_service_expire_thread; /* the service-node expiry, every 15 s */

/* Empties the pending list and the service-node list and starts both timers. Returns the request-check timer's result.
 */
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

/* Insert the one-shot timers, which insert themselves again. 0, or the timer library's code. */
int32_t fp_udp_expire(void);
int32_t fp_udp_req_check(void);

typedef struct fp_udp_service_node_key {
    uint32_t dev;
    uint32_t slot;
    uint32_t id;
} fp_udp_service_node_key;
FP_UDP_LAYOUT(sizeof(fp_udp_service_node_key) == 12);

typedef struct fp_udp_service_node {
    fp_udp_list links; /* in g_fp_service.nodes, first heard of first */
    uint32_t dev;
    uint32_t slot;
    uint32_t id;
    struct timeval up_time; /* monotonic time of its last record */
} fp_udp_service_node;

typedef struct fp_udp_service {
    fp_udp_list nodes;
    int32_t count; /* elements of nodes: the answers that a request needs */
} fp_udp_service;

extern fp_udp_service g_fp_service;

/* Subscribes to all service-node records of a database. The store client's result. */
int32_t fp_udp_service_node_subscribe(void *g_ssd_fp_global, uint32_t db);

/* The known node, or NULL. */
fp_udp_service_node *fp_udp_fp_service_node_search(const fp_udp_service_node_key *key);
/* Notes that a node is alive. 0 or -2. */
int32_t fp_udp_fp_service_node_add(const fp_udp_service_node_key *key);
/* Drops the nodes silent for 20 s or more and judges all pending requests again when there was one. */
void fp_udp_fp_service_node_expire(void);

#ifdef __cplusplus
}
#endif

#endif
