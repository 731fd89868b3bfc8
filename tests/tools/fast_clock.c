/* A time library in front of the real one, for LD_PRELOAD: the library looks at its pending requests after a second
 * instead of ten, and each time it does so, 200 seconds have passed. What ages after minutes is seen to age at once,
 * while everything else takes the time it takes. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>
#include <tq_time.h>

enum { STEP_S = 200, SOONER = 10, US_PER_S = 1000000, REQUEST_CHECK_US = 10 * US_PER_S };

typedef int (*monotime_func)(struct timeval *now);
typedef int (*insert_func)(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                           const struct timeval *interval, const char *name);

static long passed_s;
static tq_thread_func request_check;

static void find_real(const char *name, void *func)
{
    void *found = dlsym(RTLD_NEXT, name);
    memcpy(func, &found, sizeof found);
}

static int later_request_check(tq_thread *thread)
{
    passed_s += STEP_S;
    return request_check(thread);
}

int tq_monotime(struct timeval *now)
{
    monotime_func real;
    int result;
    find_real("tq_monotime", &real);
    result = real(now);
    now->tv_sec += passed_s;
    return result;
}

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    struct timeval time = *interval;
    insert_func real;
    find_real("tq_thread_insert_timer_timeval", &real);
    if (strcmp(name, "fp_udp_api") == 0 && time.tv_sec == 0 && time.tv_usec == REQUEST_CHECK_US) {
        request_check = func;
        func = later_request_check;
        time.tv_usec /= SOONER;
    }
    return real(master, handle, func, arg, &time, name);
}
