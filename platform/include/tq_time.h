/* tq_time.h: clocks and one-shot timers.
 *
 * The library ages requests and names writes by the monotonic clock, in microseconds; the wall clock is for people. A
 * timer belongs to an event loop and fires from inside its run, on that loop's thread; a periodic one inserts itself
 * again from its own function.
 */
#ifndef TQ_TIME_H
#define TQ_TIME_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the monotonic clock, which no change of the date moves. 0 on success; `now` is left alone otherwise. */
int tq_monotime(struct timeval *now);

/* The whole of `tv`, which need not be normalised, in the unit named; fractions are dropped. A negative time wraps. */
uint64_t tq_timeval_to_us(const struct timeval *tv);
uint64_t tq_timeval_to_ms(const struct timeval *tv);
uint64_t tq_timeval_to_sec(const struct timeval *tv);

/* For records that people read, such as the operation log's: writes the local wall-clock time as "YYYY-MM-DD
 * HH:MM:SS.mmm". Non-zero on success; 0, with an empty text, when `size` does not hold it. */
int tq_time_2_string(char *buffer, size_t size);

/* An event loop (tq_loop.h). */
typedef struct tq_thread_master tq_thread_master;
/* One pending timer. */
typedef struct tq_thread tq_thread;
/* What a timer calls; its result is ignored. */
typedef int (*tq_thread_func)(tq_thread *thread);

/* Inserts a timer that fires once. `interval` need not be normalised; `handle`, when not NULL, receives the timer and
 * is set to NULL before `func` runs. The timer is freed after `func` returned, whose result is ignored. 0 on success.
 * In a loop that stood still for half a second or more, timers of ten seconds and more come after what the descriptors
 * have to tell of that time, by at most two seconds: they mostly judge who was silent. */
int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name);

/* The argument given at insertion. */
void *tq_thread_arg(const tq_thread *thread);

#ifdef __cplusplus
}
#endif

#endif
