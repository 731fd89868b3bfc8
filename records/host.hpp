// What a program on the platform stands on, each with an owner that gives it back: the event loop, the store context,
// one timer; and the loop's clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>
#include <tq_time.h>

namespace plx {

struct HostDeleter {
    void operator()(tq_thread_master *loop) const { tq_loop_free(loop); }
    void operator()(tq_context *context) const { tq_context_free(context); }
    void operator()(tq_loop_watch *watch) const { tq_loop_unwatch(watch); }
    void operator()(tq_mom_hash_res *found) const { tq_mom_hash_res_free(found); }
};
using Loop = std::unique_ptr<tq_thread_master, HostDeleter>; // outlives the contexts and timers on it
using Context = std::unique_ptr<tq_context, HostDeleter>;
using Watch = std::unique_ptr<tq_loop_watch, HostDeleter>;   // the descriptor stays the caller's
using Found = std::unique_ptr<tq_mom_hash_res, HostDeleter>; // the answer to tq_mom_hgetall_sync()

using milliseconds = std::chrono::milliseconds;

// Monotonic time since an arbitrary start.
uint64_t now_us();
milliseconds now();

// Since 1970, by this machine's clock.
uint64_t wall_clock_ms();

// Cancelled with its owner, so that it never fires on a dead one. Exceptions end in the function given, which must not
// throw.
class Timer {
  public:
    Timer(tq_thread_master *master, std::function<void()> func) : master_(master), func_(std::move(func)) {}
    ~Timer() { cancel(); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    // Fires once after `interval`; a timer that is pending already is moved. False when the loop refuses it.
    bool start(milliseconds interval);
    // The same, but a pending one is left as it is.
    bool start_unless_pending(milliseconds interval) { return pending() || start(interval); }
    void cancel();
    bool pending() const { return thread_ != nullptr; }

  private:
    static int fire(tq_thread *thread) noexcept;

    tq_thread_master *master_;
    std::function<void()> func_;
    tq_thread *thread_ = nullptr; // the loop clears it before it fires
};

} // namespace plx
