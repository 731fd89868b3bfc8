// The event loop: one-shot timers of our own over libuv's polling.
//
// Timers stand in a queue ordered by due time, and libuv is asked to wait no longer than the first one allows. Keeping
// them here makes the promises of tq_time.h simple: a pass fires what was due when the pass began, so a timer that
// inserts itself again with no interval cannot keep descriptors from being served; equal times fire in the order of
// insertion; a fired timer has left the queue before its function runs, so the function may do anything to the loop.
//
// A loop that stood still (its process was stopped, a callback took long) finds timers late and descriptors with much
// to tell. A timer of seconds judges silence: it would take for silent whom the process has only not heard. So when a
// timer is late by more than a hiccup, such patient timers wait until no descriptor has told anything for a moment, and
// fire then, or after two seconds even so. One quiet poll would prove nothing, as what is heard is asked for piece by
// piece; the timers by which that is asked are short, and go on. A timer is held back once in its life, so that a loop
// which is always late and never quiet still fires it, and no timer is held back in a loop that is on time.
//
// The loop owns its timers and watches. A timer's handle is cleared only while it still points at that timer: the
// application may have put another one there.
#include "tq_loop.h"

#include "platform/guard.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>
#include <uv.h>

using timer_queue = std::multimap<uint64_t, std::unique_ptr<tq_thread>>;

struct tq_thread {
    tq_thread_master *master;
    tq_thread **handle;
    tq_thread_func func;
    void *arg;
    uint64_t due;
    timer_queue::iterator place; // end() while the function runs
    bool patient = false;        // not to fire before what is waiting was heard,
    uint64_t latest = 0;         // but not later than now; 0: not held back so far
};

struct tq_loop_watch {
    uv_poll_t poll;
    tq_thread_master *master;
    tq_loop_func func;
    void *arg;
    int fd;
    int events;
};

struct tq_thread_master {
    uv_loop_t loop;
    tq_loop_counters counters{};
    uv_timer_t bound; // active while a wait is bounded, never otherwise
    timer_queue timers;
    uint64_t pass_time = 0; // nanoseconds; what is inserted from now on is due later than the current pass
    uint64_t quiet_at = 0;  // when what came while the loop stood still is heard, if no more comes; 0: it is heard
    uint64_t hold_end = 0;  // by when it counts as heard even so
    bool stopped = false;
    bool progress = false; // a callback ran in this step
    bool served = false;   // a descriptor's callback ran since the timers were last looked at
    int thrown = 0;        // by a callback: what the run ends with
};

namespace {

constexpr uint64_t ns_per_us = 1000;
constexpr uint64_t ns_per_ms = 1000000;
constexpr uint64_t lateness = 100 * ns_per_ms;
constexpr uint64_t hiccup = 500 * ns_per_ms;
constexpr uint64_t quiet_time = 200 * ns_per_ms; // longer than a slow store's answer takes
constexpr uint64_t longest_hold = 2000 * ns_per_ms;
constexpr uint64_t patient_us = 10000000; // shorter ones drive something
constexpr uint64_t longest_seconds = uint64_t{INT64_MAX} / 4 / 1000000000;

// Microseconds; an interval that is negative is over already, and one beyond the clock is cut.
uint64_t wait_of(const timeval &interval)
{
    const uint64_t seconds = tq_timeval_to_sec(&interval);
    if (seconds > uint64_t{INT64_MAX})
        return 0;
    return seconds < longest_seconds ? tq_timeval_to_us(&interval) : longest_seconds * 1000000;
}

uint64_t due_after(const tq_thread_master &master, const timeval &interval)
{
    const uint64_t due = uv_hrtime() + wait_of(interval) * ns_per_us;
    return due > master.pass_time ? due : master.pass_time + 1;
}

void clear_handle(const tq_thread &timer)
{
    if (timer.handle && *timer.handle == &timer)
        *timer.handle = nullptr;
}

// A callback that throws ends the run. Nothing passes through libuv.
template <typename Callback> void call(tq_thread_master &master, Callback callback) noexcept
try {
    callback();
} catch (...) {
    master.thrown = platform::thrown_error();
    ++master.counters.exceptions;
    master.stopped = true;
}

void count_timer(tq_loop_counters &counters, uint64_t late)
{
    ++counters.timers;
    counters.late += late >= lateness;
    counters.worst_us = std::max(counters.worst_us, late / ns_per_us);
}

void fire(tq_thread_master &master)
{
    auto first = master.timers.begin();
    const std::unique_ptr<tq_thread> timer = std::move(first->second);
    master.timers.erase(first);
    timer->place = master.timers.end();
    clear_handle(*timer);
    count_timer(master.counters, master.pass_time - timer->due);
    master.progress = true;
    call(master, [&] { timer->func(timer.get()); });
}

// Notices that the loop stood still, and whether it has heard something since. A moment at whose end it stood still
// again was not quiet.
void note_pass(tq_thread_master &master, uint64_t now)
{
    const bool served = std::exchange(master.served, false);
    if (master.quiet_at != 0 && (served || now > master.quiet_at + quiet_time / 4))
        master.quiet_at = std::min(now + quiet_time, master.hold_end);
    if (now < master.quiet_at)
        return;
    const bool late = !master.timers.empty() && master.timers.begin()->first + hiccup < now;
    master.quiet_at = late ? now + quiet_time : 0;
    master.hold_end = now + longest_hold;
}

// Puts the first timer off where it has to wait for what is to be heard.
bool hold_back(tq_thread_master &master, uint64_t now)
{
    tq_thread &timer = *master.timers.begin()->second;
    if (!timer.patient || master.quiet_at == 0)
        return false;
    if (timer.latest == 0)
        timer.latest = now + longest_hold;
    if (now >= timer.latest)
        return false;
    auto held = master.timers.extract(master.timers.begin());
    held.key() = std::min(master.quiet_at, timer.latest);
    timer.place = master.timers.insert(std::move(held));
    return true;
}

void fire_due(tq_thread_master &master)
{
    const uint64_t now = uv_hrtime();
    master.pass_time = now;
    note_pass(master, now);
    while (!master.stopped && !master.timers.empty() && master.timers.begin()->first <= now)
        if (!hold_back(master, now))
            fire(master);
}

// Milliseconds until the first timer, rounded up; -1 without one.
int next_timer(const tq_thread_master &master)
{
    if (master.timers.empty())
        return -1;
    const uint64_t now = uv_hrtime();
    const uint64_t due = master.timers.begin()->first;
    if (due <= now)
        return 0;
    const uint64_t ms = (due - now + ns_per_ms - 1) / ns_per_ms;
    return ms < INT_MAX ? static_cast<int>(ms) : INT_MAX;
}

void do_nothing(uv_timer_t *) {}

// Serves descriptors, waiting at most `timeout_ms` for the first of them. The bound repeats: libuv fires timers before
// it waits, and one that had run out by then, because something kept this thread from running, would leave no bound.
void poll_once(tq_thread_master &master, int timeout_ms)
{
    if (timeout_ms > 0) {
        uv_update_time(&master.loop);
        uv_timer_start(&master.bound, do_nothing, static_cast<uint64_t>(timeout_ms), 1);
    }
    uv_run(&master.loop, timeout_ms == 0 ? UV_RUN_NOWAIT : UV_RUN_ONCE);
    uv_timer_stop(&master.bound);
}

int shorter(int a, int b)
{
    if (a < 0 || b < 0)
        return a < 0 ? b : a;
    return a < b ? a : b;
}

// `timeout_ms` bounds the wait of a step in which no timer fired, `timeout_after_ms` that of another.
void step(tq_thread_master &master, int timeout_ms, int timeout_after_ms)
{
    master.progress = false;
    fire_due(master);
    if (master.stopped)
        return;
    poll_once(master, shorter(master.progress ? timeout_after_ms : timeout_ms, next_timer(master)));
    if (!master.progress)
        fire_due(master);
}

bool alive(const tq_thread_master &master)
{
    return !master.timers.empty() || uv_loop_alive(&master.loop);
}

// The first loop of a process has libuv open so many descriptors. It aborts without the first ones, and leaves some of
// them open where others are missing.
bool enough_descriptors()
{
    int spare[6];
    for (int &fd : spare)
        fd = epoll_create1(EPOLL_CLOEXEC);
    const int error = errno;
    for (const int fd : spare)
        close(fd);
    errno = error;
    return spare[5] >= 0;
}

int milliseconds_since(uint64_t start)
{
    const uint64_t passed = (uv_hrtime() - start) / ns_per_ms;
    return passed < INT_MAX ? static_cast<int>(passed) : INT_MAX;
}

void delete_watch(uv_handle_t *handle)
{
    delete static_cast<tq_loop_watch *>(handle->data);
}

void close_watch(uv_handle_t *handle, void *)
{
    if (!uv_is_closing(handle))
        uv_close(handle, handle->type == UV_POLL ? delete_watch : nullptr);
}

void on_poll(uv_poll_t *poll, int status, int events)
{
    auto *watch = static_cast<tq_loop_watch *>(poll->data);
    if (watch->master->stopped)
        return; // level-triggered: the next run sees it again
    if (status < 0) {
        // libuv ended the watch at an error condition. The owner finds the error by reading or writing, and decides.
        events = watch->events;
        uv_poll_start(poll, watch->events, on_poll);
    }
    watch->master->progress = true;
    watch->master->served = true;
    call(*watch->master, [&] { watch->func(watch, watch->fd, events, watch->arg); });
}

constexpr int known_events = TQ_LOOP_READABLE | TQ_LOOP_WRITABLE | TQ_LOOP_DISCONNECTED;
static_assert(TQ_LOOP_READABLE == int{UV_READABLE} && TQ_LOOP_WRITABLE == int{UV_WRITABLE} &&
              TQ_LOOP_DISCONNECTED == int{UV_DISCONNECT});

// libuv makes a watched descriptor non-blocking; whether it blocks is the business of its owner.
int init_poll(tq_thread_master &master, uv_poll_t &poll, int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        return -1;
    const int result = uv_poll_init(&master.loop, &poll, fd);
    if (!(flags & O_NONBLOCK))
        fcntl(fd, F_SETFL, flags);
    return result;
}

} // namespace

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const timeval *interval, const char *)
try {
    if (!master || !func || !interval)
        return EINVAL;
    const uint64_t due = due_after(*master, *interval);
    const auto place = master->timers.emplace(due, nullptr);
    auto *timer = new (std::nothrow) tq_thread{master, handle, func, arg, due, place};
    if (!timer) {
        master->timers.erase(place);
        return ENOMEM;
    }
    timer->patient = wait_of(*interval) >= patient_us;
    place->second.reset(timer);
    if (handle)
        *handle = timer;
    return 0;
} catch (...) {
    return platform::thrown_error();
}

void *tq_thread_arg(const tq_thread *thread)
{
    return thread->arg;
}

void tq_thread_cancel(tq_thread *thread)
{
    if (!thread || thread->place == thread->master->timers.end())
        return;
    clear_handle(*thread);
    thread->master->timers.erase(thread->place);
}

tq_thread_master *tq_loop_new(void)
{
    std::unique_ptr<tq_thread_master> master(new (std::nothrow) tq_thread_master);
    if (!master)
        errno = ENOMEM;
    if (!master || !enough_descriptors())
        return nullptr;
    if (const int error = uv_loop_init(&master->loop); error != 0) {
        errno = -error;
        return nullptr;
    }
    uv_timer_init(&master->loop, &master->bound);
    return master.release();
}

void tq_loop_free(tq_thread_master *master)
{
    if (!master)
        return;
    for (const auto &[due, timer] : master->timers)
        clear_handle(*timer);
    uv_walk(&master->loop, close_watch, nullptr);
    uv_run(&master->loop, UV_RUN_DEFAULT);
    uv_loop_close(&master->loop);
    delete master;
}

int tq_loop_run(tq_thread_master *master)
{
    if (!master)
        return EINVAL;
    while (!master->stopped) {
        if (!alive(*master))
            return ENOENT;
        step(*master, -1, -1);
    }
    master->stopped = false;
    return std::exchange(master->thrown, 0);
}

int tq_loop_run_once(tq_thread_master *master, int timeout_ms)
{
    if (!master)
        return EINVAL;
    master->stopped = false;
    const uint64_t start = uv_hrtime();
    int remaining = timeout_ms;
    do {
        if (timeout_ms < 0 && !alive(*master))
            return ENOENT;
        step(*master, remaining, 0);
        if (timeout_ms > 0)
            remaining = timeout_ms - milliseconds_since(start);
    } while (!master->progress && (timeout_ms < 0 || remaining > 0));
    master->stopped = false;
    return std::exchange(master->thrown, 0);
}

void tq_loop_counters_get(const tq_thread_master *master, tq_loop_counters *counters)
{
    if (master && counters)
        *counters = master->counters;
}

void tq_loop_stop(tq_thread_master *master)
{
    if (master)
        master->stopped = true;
}

tq_loop_watch *tq_loop_watch_fd(tq_thread_master *master, int fd, int events, tq_loop_func func, void *arg)
{
    if (!master || fd < 0 || !func)
        return nullptr;
    auto *watch = new (std::nothrow) tq_loop_watch{{}, master, func, arg, fd, events & known_events};
    if (!watch) {
        errno = ENOMEM;
        return nullptr;
    }
    if (init_poll(*master, watch->poll, fd) != 0) {
        delete watch;
        return nullptr;
    }
    watch->poll.data = watch;
    if (tq_loop_watch_events(watch, events) == 0)
        return watch;
    tq_loop_unwatch(watch);
    return nullptr;
}

int tq_loop_watch_events(tq_loop_watch *watch, int events)
{
    if (!watch)
        return EINVAL;
    watch->events = events & known_events;
    return uv_poll_start(&watch->poll, watch->events, on_poll);
}

void tq_loop_unwatch(tq_loop_watch *watch)
{
    if (watch)
        uv_close(reinterpret_cast<uv_handle_t *>(&watch->poll), delete_watch);
}

int tq_loop_fd(const tq_thread_master *master)
{
    return uv_backend_fd(&master->loop);
}

int tq_loop_timeout(const tq_thread_master *master)
{
    // Zero also while libuv has to hand a new watch to the kernel, which it does when it next runs.
    if (uv_loop_alive(&master->loop) && uv_backend_timeout(&master->loop) == 0)
        return 0;
    return next_timer(*master);
}
