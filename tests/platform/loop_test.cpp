// The event loop: what timers and watches may do to it and to each other from inside their callbacks.
#include "tq_loop.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// The machine has other things to do between the start of libuv's timer and the wait that it bounds.
bool machine_is_busy = false;
uint64_t clock_ahead_ms = 0; // for the loop's own clock, which so passes over times in which the process was stopped

uint64_t clock_ms()
{
    timeval time;
    tq_monotime(&time);
    return tq_timeval_to_ms(&time);
}

} // namespace

// These stand before libuv's own.
extern "C" uint64_t uv_hrtime(void)
{
    static const auto real = reinterpret_cast<uint64_t (*)()>(dlsym(RTLD_NEXT, "uv_hrtime"));
    return real() + clock_ahead_ms * 1000000;
}

extern "C" int uv_timer_start(void *timer, void *func, uint64_t timeout_ms, uint64_t repeat_ms)
{
    using start_func = int (*)(void *, void *, uint64_t, uint64_t);
    static const auto start = reinterpret_cast<start_func>(dlsym(RTLD_NEXT, "uv_timer_start"));
    const uint64_t begin = clock_ms();
    const int result = start(timer, func, timeout_ms, repeat_ms);
    while (machine_is_busy && clock_ms() <= begin + timeout_ms) {
    }
    return result;
}

namespace {

constexpr timeval now{0, 0};
constexpr timeval in_an_hour{3600, 0};

struct loop_test : testing::Test {
    tq_thread_master *master = tq_loop_new();
    std::string calls;

    ~loop_test() override { tq_loop_free(master); }

    static int call(tq_thread *thread)
    {
        (*static_cast<std::function<void()> *>(tq_thread_arg(thread)))();
        return 0;
    }
    int insert(tq_thread **handle, const timeval &interval, std::function<void()> &func) const
    {
        return tq_thread_insert_timer_timeval(master, handle, call, &func, &interval, "test");
    }
};

struct socket_pair {
    int fd[2] = {-1, -1};
    socket_pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
    ~socket_pair()
    {
        close(fd[0]);
        close(fd[1]);
    }
    void wake() const { EXPECT_EQ(write(fd[1], "x", 1), 1); }
};

struct watcher {
    std::function<void(tq_loop_watch *, int)> func;
    static void call(tq_loop_watch *watch, int, int events, void *arg)
    {
        static_cast<watcher *>(arg)->func(watch, events);
    }
};

TEST_F(loop_test, timers_fire_in_the_order_in_which_they_are_due)
{
    std::function<void()> a = [&] { calls += 'a'; }, b = [&] { calls += 'b'; };
    std::function<void()> c = [&] { calls += 'c', tq_loop_stop(master); };
    ASSERT_EQ(insert(nullptr, {0, 20000}, c), 0);
    ASSERT_EQ(insert(nullptr, {0, 10000}, b), 0);
    ASSERT_EQ(insert(nullptr, {-5, 0}, a), 0);
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "abc");
}

TEST_F(loop_test, a_wait_that_is_over_before_it_begins_ends)
{
    const socket_pair silent;
    watcher nobody{[](tq_loop_watch *, int) { FAIL() << "nothing was written"; }};
    tq_loop_watch *watch = tq_loop_watch_fd(master, silent.fd[0], TQ_LOOP_READABLE, watcher::call, &nobody);
    std::function<void()> fired = [&] { calls += 'f'; };
    ASSERT_EQ(insert(nullptr, {0, 2000}, fired), 0);
    alarm(60); // without a bound this never ends
    machine_is_busy = true;
    tq_loop_run_once(master, -1);
    machine_is_busy = false;
    alarm(0);
    EXPECT_EQ(calls, "f");
    tq_loop_unwatch(watch);
}

// Every answer that is read is followed by the next a moment after it was asked for, by a short timer.
TEST_F(loop_test, after_standing_still_a_timer_of_many_seconds_waits_until_what_came_meanwhile_is_heard)
{
    const struct {
        uint64_t late_ms;
        unsigned answers;
        uint64_t each_takes_ms; // by the loop's clock
        size_t heard, most;     // before the timer fires
    } cases[] = {{100, 30, 0, 0, 0}, {20000, 30, 0, 30, 30}, {20000, 1000, 100, 10, 25}, {20000, 1000, 700, 2, 4}};
    for (const auto &[late_ms, answers, each_takes_ms, heard, most] : cases) {
        socket_pair sockets;
        unsigned left = answers;
        calls.clear();
        std::function<void()> expire = [&] { tq_loop_stop(master); };
        std::function<void()> ask = [&] {
            if (left-- > 0)
                sockets.wake();
        };
        watcher answer{[&](tq_loop_watch *, int) {
            char byte;
            EXPECT_EQ(read(sockets.fd[0], &byte, 1), 1);
            calls += 'a';
            clock_ahead_ms += each_takes_ms;
            insert(nullptr, {0, 1000}, ask);
        }};
        auto *watch = tq_loop_watch_fd(master, sockets.fd[0], TQ_LOOP_READABLE, watcher::call, &answer);
        insert(nullptr, {0, 15000000}, expire);
        clock_ahead_ms += 10000;
        insert(nullptr, {5, 0}, ask);
        clock_ahead_ms += 5000 + late_ms;
        EXPECT_EQ(tq_loop_run(master), 0);
        EXPECT_GE(calls.size(), heard) << late_ms << ' ' << each_takes_ms;
        EXPECT_LE(calls.size(), most) << late_ms << ' ' << each_takes_ms;
        tq_loop_unwatch(watch);
        tq_loop_free(std::exchange(master, tq_loop_new())); // with what is still pending
    }
}

TEST_F(loop_test, the_whole_interval_may_stand_in_the_microseconds)
{
    timeval before, after;
    std::function<void()> stop = [&] { tq_loop_stop(master); };
    tq_monotime(&before);
    insert(nullptr, {-1, 1030000}, stop);
    ASSERT_EQ(tq_loop_run(master), 0);
    tq_monotime(&after);
    EXPECT_GE(tq_timeval_to_us(&after) - tq_timeval_to_us(&before), 30000u);
}

TEST_F(loop_test, an_interval_beyond_the_clock_is_a_timer_far_away)
{
    std::function<void()> never = [&] { calls += 'n'; };
    ASSERT_EQ(insert(nullptr, {INT32_MAX, 999999}, never), 0);
    ASSERT_EQ(insert(nullptr, {std::numeric_limits<time_t>::max(), 0}, never), 0);
    EXPECT_EQ(tq_loop_run_once(master, 0), 0);
    EXPECT_EQ(calls, "");
    EXPECT_EQ(tq_loop_timeout(master), INT32_MAX);
}

TEST_F(loop_test, a_handle_is_cleared_before_its_function_runs_and_may_be_used_again_there)
{
    tq_thread *handle = nullptr;
    std::function<void()> tick = [&] {
        EXPECT_EQ(handle, nullptr);
        calls += 't';
        if (calls.size() == 3)
            tq_loop_stop(master);
        insert(&handle, now, tick);
        EXPECT_NE(handle, nullptr);
    };
    insert(&handle, now, tick);
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "ttt");
    EXPECT_NE(handle, nullptr) << "the last insertion is still pending";
    tq_thread_cancel(handle); // which is gone before the loop is
}

TEST_F(loop_test, a_timer_that_fires_leaves_another_one_in_its_handle_alone)
{
    tq_thread *handle = nullptr;
    std::function<void()> first = [&] { tq_loop_stop(master); }, second = [&] { calls += 's'; };
    insert(&handle, now, first);
    insert(&handle, in_an_hour, second);
    tq_thread *const pending = handle;
    tq_loop_run(master);
    EXPECT_EQ(handle, pending);
    tq_thread_cancel(pending);
}

TEST_F(loop_test, a_timer_may_cancel_one_that_is_due_with_it_and_itself)
{
    tq_thread *self = nullptr, *other = nullptr;
    std::function<void()> cancelled = [&] { calls += 'x'; };
    int (*cancel_all)(tq_thread *) = [](tq_thread *thread) {
        auto **victim = static_cast<tq_thread **>(tq_thread_arg(thread));
        tq_thread_cancel(*victim);
        tq_thread_cancel(thread);
        return 0;
    };
    ASSERT_EQ(tq_thread_insert_timer_timeval(master, &self, cancel_all, &other, &now, "test"), 0);
    insert(&other, now, cancelled);
    EXPECT_NE(tq_loop_run(master), 0) << "nothing is left to wait for";
    EXPECT_EQ(calls, "");
    EXPECT_EQ(other, nullptr);
    tq_thread_cancel(nullptr);
}

TEST_F(loop_test, a_timer_that_keeps_inserting_itself_does_not_starve_descriptors)
{
    socket_pair sockets;
    std::function<void()> again = [&] { insert(nullptr, now, again); };
    watcher readable{[&](tq_loop_watch *, int) { tq_loop_stop(master); }};
    insert(nullptr, now, again);
    ASSERT_NE(tq_loop_watch_fd(master, sockets.fd[0], TQ_LOOP_READABLE, watcher::call, &readable), nullptr);
    sockets.wake();
    EXPECT_EQ(tq_loop_run(master), 0);
}

TEST_F(loop_test, stop_lets_nothing_else_run_and_loses_nothing)
{
    socket_pair one, two;
    watcher stop{[&](tq_loop_watch *watch, int) {
        calls += 'w';
        tq_loop_unwatch(watch);
        tq_loop_stop(master);
    }};
    for (const socket_pair *sockets : {&one, &two}) {
        ASSERT_NE(tq_loop_watch_fd(master, sockets->fd[0], TQ_LOOP_READABLE, watcher::call, &stop), nullptr);
        sockets->wake();
    }
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "w");
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "ww");
}

TEST_F(loop_test, stop_before_run_is_remembered_once)
{
    tq_loop_stop(master);
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_NE(tq_loop_run(master), 0) << "nothing to wait for";
}

TEST_F(loop_test, a_watch_may_drop_itself_and_a_neighbour_that_is_ready_too)
{
    socket_pair one, two;
    std::vector<tq_loop_watch *> watches(2);
    watcher drop_all{[&](tq_loop_watch *, int) {
        calls += 'd';
        for (tq_loop_watch *&watch : watches)
            tq_loop_unwatch(watch);
    }};
    watches[0] = tq_loop_watch_fd(master, one.fd[0], TQ_LOOP_READABLE, watcher::call, &drop_all);
    watches[1] = tq_loop_watch_fd(master, two.fd[0], TQ_LOOP_READABLE, watcher::call, &drop_all);
    one.wake();
    two.wake();
    EXPECT_NE(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "d");
    EXPECT_NE(tq_loop_watch_fd(master, one.fd[0], TQ_LOOP_READABLE, watcher::call, &drop_all), nullptr)
        << "the descriptor may be watched again";
}

TEST_F(loop_test, the_events_of_a_watch_may_be_changed_from_inside)
{
    socket_pair sockets;
    watcher change{[&](tq_loop_watch *watch, int events) {
        calls += events == TQ_LOOP_WRITABLE ? 'w' : events == TQ_LOOP_READABLE ? 'r' : '?';
        EXPECT_EQ(tq_loop_watch_events(watch, TQ_LOOP_READABLE), 0);
        calls.size() == 1 ? sockets.wake() : tq_loop_stop(master);
    }};
    tq_loop_watch_fd(master, sockets.fd[0], TQ_LOOP_WRITABLE, watcher::call, &change);
    EXPECT_EQ(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "wr");
}

TEST_F(loop_test, a_watch_without_events_is_silent_and_leaves_the_descriptor_as_it_was)
{
    socket_pair sockets;
    const int flags = fcntl(sockets.fd[0], F_GETFL);
    watcher never{[&](tq_loop_watch *, int) { calls += 'n'; }};
    tq_loop_watch *watch = tq_loop_watch_fd(master, sockets.fd[0], TQ_LOOP_READABLE, watcher::call, &never);
    sockets.wake();
    EXPECT_EQ(tq_loop_watch_events(watch, 0), 0);
    EXPECT_EQ(tq_loop_run_once(master, 0), 0);
    EXPECT_EQ(calls, "");
    EXPECT_EQ(fcntl(sockets.fd[0], F_GETFL), flags);
}

TEST_F(loop_test, a_broken_connection_is_told_to_its_watch_until_it_is_dropped)
{
    int pipe_fd[2];
    ASSERT_EQ(pipe2(pipe_fd, O_CLOEXEC), 0);
    close(pipe_fd[0]); // the writing end is in error from now on
    watcher broken{[&](tq_loop_watch *watch, int events) {
        calls += events & TQ_LOOP_WRITABLE ? 'b' : '?';
        if (calls.size() == 2)
            tq_loop_unwatch(watch);
    }};
    ASSERT_NE(tq_loop_watch_fd(master, pipe_fd[1], TQ_LOOP_WRITABLE, watcher::call, &broken), nullptr);
    EXPECT_NE(tq_loop_run(master), 0);
    EXPECT_EQ(calls, "bb");
    close(pipe_fd[1]);
}

TEST_F(loop_test, what_cannot_be_done_is_refused)
{
    std::function<void()> none;
    EXPECT_NE(tq_thread_insert_timer_timeval(nullptr, nullptr, call, &none, &now, "test"), 0);
    EXPECT_NE(tq_thread_insert_timer_timeval(master, nullptr, nullptr, &none, &now, "test"), 0);
    EXPECT_NE(tq_thread_insert_timer_timeval(master, nullptr, call, &none, nullptr, "test"), 0);
    watcher never{[](tq_loop_watch *, int) {}};
    EXPECT_EQ(tq_loop_watch_fd(master, -1, TQ_LOOP_READABLE, watcher::call, &never), nullptr);
    EXPECT_EQ(tq_loop_watch_fd(master, 0x7ffffff0, TQ_LOOP_READABLE, watcher::call, &never), nullptr);
    EXPECT_NE(tq_loop_run_once(master, -1), 0) << "nothing would ever end this wait";
}

TEST_F(loop_test, freeing_the_loop_drops_timers_and_watches_without_a_call)
{
    socket_pair sockets;
    tq_thread_master *doomed = tq_loop_new();
    tq_thread *handle = nullptr;
    std::function<void()> timer = [&] { calls += 't'; };
    watcher watch{[&](tq_loop_watch *, int) { calls += 'w'; }};
    tq_thread_insert_timer_timeval(doomed, &handle, call, &timer, &now, "test");
    tq_loop_watch_fd(doomed, sockets.fd[0], TQ_LOOP_READABLE, watcher::call, &watch);
    sockets.wake();
    tq_loop_free(doomed);
    EXPECT_EQ(calls, "");
    EXPECT_EQ(handle, nullptr);
}

// What an application with a loop of its own does, poll(2) standing for that loop.
TEST_F(loop_test, the_loop_nests_in_another_by_its_descriptor_and_timeout)
{
    socket_pair sockets;
    EXPECT_EQ(tq_loop_timeout(master), -1) << "nothing to wait for";
    std::function<void()> timer = [&] {
        calls += 't';
        sockets.wake();
    };
    watcher watch{[&](tq_loop_watch *, int) { calls += 'w'; }};
    insert(nullptr, {0, 5000}, timer);
    EXPECT_LE(tq_loop_timeout(master), 5);
    tq_loop_watch_fd(master, sockets.fd[0], TQ_LOOP_READABLE, watcher::call, &watch);
    EXPECT_EQ(tq_loop_timeout(master), 0) << "the watch is not with the kernel yet";

    for (int round = 0; calls.size() < 2 && round < 100; ++round) {
        pollfd outer{tq_loop_fd(master), POLLIN, 0};
        ASSERT_GE(poll(&outer, 1, tq_loop_timeout(master)), 0);
        ASSERT_EQ(tq_loop_run_once(master, 0), 0);
    }
    EXPECT_EQ(calls, "tw");
}

} // namespace
