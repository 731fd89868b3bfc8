// One timer on an event loop, for code that owns state: it is cancelled with its owner, so it never fires on a dead
// one. Exceptions end in the function given, which must not throw.
#pragma once

#include <chrono>
#include <functional>
#include <tq_loop.h>
#include <tq_time.h>

namespace plx::plane {

using milliseconds = std::chrono::milliseconds;

// Monotonic time since an arbitrary start.
milliseconds now();

class Timer {
  public:
    Timer(tq_thread_master *master, std::function<void()> func) : master_(master), func_(std::move(func)) {}
    ~Timer() { cancel(); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    // Fires once after `interval`; a timer that is pending already is moved. False when the loop refuses it.
    bool start(milliseconds interval);
    void cancel();
    bool pending() const { return thread_ != nullptr; }

  private:
    static int fire(tq_thread *thread) noexcept;

    tq_thread_master *master_;
    std::function<void()> func_;
    tq_thread *thread_ = nullptr; // the loop clears it before it fires
};

} // namespace plx::plane
