/* A time library in front of the real one, for LD_PRELOAD: PLX_SPEED seconds of its clock pass in each second, and its
 * timers are due that much sooner. What takes minutes is seen to happen at once, in the order in which it would. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <tq_time.h>

enum { US_PER_S = 1000000 };

int64_t fast_clock_ahead_us; /* what a program that links this has added to the clock */

typedef int (*monotime_func)(struct timeval *now);
typedef int (*insert_func)(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                           const struct timeval *interval, const char *name);

static void find_real(const char *name, void *func)
{
    void *found = dlsym(RTLD_NEXT, name);
    memcpy(func, &found, sizeof found);
}

static int64_t speed(void)
{
    const char *given = getenv("PLX_SPEED");
    return given ? atoi(given) : 1;
}

static struct timeval normalised(int64_t us)
{
    return (struct timeval){us / US_PER_S, us % US_PER_S};
}

int tq_monotime(struct timeval *now)
{
    static int64_t start;
    monotime_func real;
    int result;
    find_real("tq_monotime", &real);
    result = real(now);
    const int64_t us = (int64_t)now->tv_sec * US_PER_S + now->tv_usec;
    if (start == 0)
        start = us;
    *now = normalised(start + (us - start) * speed() + fast_clock_ahead_us);
    return result;
}

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    const struct timeval time = normalised(((int64_t)interval->tv_sec * US_PER_S + interval->tv_usec) / speed());
    insert_func real;
    find_real("tq_thread_insert_timer_timeval", &real);
    return real(master, handle, func, arg, &time, name);
}
