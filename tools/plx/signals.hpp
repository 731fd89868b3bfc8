// Ends an event loop when the process is asked to: SIGINT and SIGTERM, taken from the loop instead of by a handler.
// SIGHUP too, for those who do something on it.
#pragma once

#include <functional>
#include <tq_loop.h>

namespace plx::tool {

class StopOnSignal {
  public:
    // From here on the two signals only stop the loop, which outlives this object; SIGHUP calls `again`, if there is
    // one.
    explicit StopOnSignal(tq_thread_master *master, std::function<void()> again = nullptr);
    ~StopOnSignal();
    StopOnSignal(const StopOnSignal &) = delete;
    StopOnSignal &operator=(const StopOnSignal &) = delete;

    bool asked() const { return signal_ != 0; }
    int signal() const { return signal_; } // the first that asked; 0: none

  private:
    static void on_signal(tq_loop_watch *watch, int fd, int events, void *arg);

    tq_thread_master *master_;
    std::function<void()> again_;
    int fd_;
    tq_loop_watch *watch_;
    int signal_ = 0;
};

} // namespace plx::tool
