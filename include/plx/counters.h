/* plx/counters.h: how many requests ended in what way in this process, and two more debug commands.
 *
 * The counters begin at 0 when the library is loaded and only grow. They cost an addition each, are always kept, and
 * ask nothing of the application: it may read them at any time, or have them shown to whoever asks the debug shell.
 *
 * The commands are an offer, unlike those that registration brings (diag.h). An application that wants them calls
 *
 *     plx_register_debug_commands(context);
 *
 * after fp_udp_register_acl_handler(), and `plx shell NAME.plx` reaches them, in a shell of their own:
 *
 *     plx_counters      the counters below, a line each, for ACEs and for applies
 *     plx_dump_pending  the requests that are waited for, oldest first: age in seconds, kind and key, and how many
 *                       service nodes have confirmed of how many are alive; at most 20, then "and N more"
 */
#ifndef PLX_COUNTERS_H
#define PLX_COUNTERS_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What became of the requests, and of the answers, of one kind. A request counts once, as it ends. One that is set
 * again while it waits goes on waiting, and one that is deleted ends without an outcome: neither counts. */
typedef struct plx_outcomes {
    /* As many service nodes confirmed as were alive, perhaps because fewer were left. */
    uint64_t ok_by_answers;
    /* 180 seconds passed without a refusal, with fewer answers than that: the nodes or the store want a look. */
    uint64_t ok_by_age;
    /* Written, and nobody had to confirm: ACEs whose ACL has no applies. */
    uint64_t ok_at_once;
    /* A service node refused. A refusal is told also after a success, and then counts beside it. */
    uint64_t failed;
    /* The cache or the store refused the write: no service node was asked. */
    uint64_t failed_at_once;

    /* Answers that changed nothing: about what is not cached, perhaps deleted since; */
    uint64_t dropped_unknown;
    /* to an earlier write than the newest; */
    uint64_t dropped_older;
    /* to a write whose outcome had been told: more nodes answered than were known, or others before had refused. */
    uint64_t dropped_late;
} plx_outcomes;

typedef struct plx_counters {
    plx_outcomes ace;
    plx_outcomes apply;
} plx_counters;

/* The process's counters: always the same structure, for reading, as long as the library is loaded. Later versions may
 * add to its end. */
const plx_counters *plx_get_counters(void);

/* Opens the debug shell "<process name>.plx" on the context's event loop and adds the commands above to it. 0, also
 * when it is called again; -4 for a null context; -1 when the shell or one of its commands was refused, which is also
 * reported at Error level: everything else works without. */
int32_t plx_register_debug_commands(void *g_ssd_fp_global);

#ifdef __cplusplus
}
#endif

#endif
