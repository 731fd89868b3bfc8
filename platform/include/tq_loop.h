/* tq_loop.h: living on the event loop behind the timers.
 *
 * One loop belongs to one thread. Everything that it calls runs from inside tq_loop_run() or tq_loop_run_once().
 */
#ifndef TQ_LOOP_H
#define TQ_LOOP_H

#include "tq_time.h"

#ifdef __cplusplus
extern "C" {
#endif

/* NULL, with errno set, when the loop cannot be made; it takes six descriptors. Freeing drops pending timers and
 * watches without calling them. */
tq_thread_master *tq_loop_new(void);
void tq_loop_free(tq_thread_master *master);

/* Runs until tq_loop_stop(). 0; ENOENT when there is nothing left to wait for. When a callback lets an exception out,
 * this call and the next return there: ENOMEM, or the number of a system error, or EIO. Running again goes on. */
int tq_loop_run(tq_thread_master *master);

/* Waits at most `timeout_ms` (0 does not wait, -1 waits without bound) for something to happen, and handles all that is
 * due. 0 on success. */
int tq_loop_run_once(tq_thread_master *master, int timeout_ms);

/* What a loop has counted since it was made. */
typedef struct tq_loop_counters {
    /* Timers that fired. */
    uint64_t timers;
    /* Of these, how many did a tenth of a second or more after they were due: something kept the loop, or the process,
     * from running. */
    uint64_t late;
    /* The worst lateness, in microseconds. */
    uint64_t worst_us;
    /* Exceptions that callbacks let out. */
    uint64_t exceptions;
} tq_loop_counters;
void tq_loop_counters_get(const tq_thread_master *master, tq_loop_counters *counters);

/* Makes tq_loop_run() return once the callback that calls this has returned. */
void tq_loop_stop(tq_thread_master *master);

/* Drops a pending timer, whose function is not called then; NULL is accepted. Not for a timer that has fired: its
 * handle is NULL by then. */
void tq_thread_cancel(tq_thread *thread);

/* What a watch waits for, and is told of. DISCONNECTED, the other side's end, is told when it was asked for. */
enum tq_loop_event { TQ_LOOP_READABLE = 1, TQ_LOOP_WRITABLE = 2, TQ_LOOP_DISCONNECTED = 4 };
typedef struct tq_loop_watch tq_loop_watch;
typedef void (*tq_loop_func)(tq_loop_watch *watch, int fd, int events, void *arg);

/* Watches a descriptor, which stays the caller's, until tq_loop_unwatch(); `events` is a set of enum tq_loop_event.
 * NULL on failure. A watch may be dropped or changed from inside its own callback. tq_loop_watch_events() replaces the
 * set, and returns 0 on success. */
tq_loop_watch *tq_loop_watch_fd(tq_thread_master *master, int fd, int events, tq_loop_func func, void *arg);
int tq_loop_watch_events(tq_loop_watch *watch, int events);
void tq_loop_unwatch(tq_loop_watch *watch);

/* Nesting in another loop: wait for `tq_loop_fd` to become readable, at most `tq_loop_timeout` milliseconds (-1: no
 * bound), then tq_loop_run_once(master, 0). */
int tq_loop_fd(const tq_thread_master *master);
int tq_loop_timeout(const tq_thread_master *master);

#ifdef __cplusplus
}
#endif

#endif
