// Ends an event loop when the process is asked to: SIGINT and SIGTERM, taken from the loop instead of by a handler.
// SIGHUP and SIGUSR1 too, for those who do something on them.
#pragma once

#include <functional>
#include <tq_loop.h>

namespace plx::tool {

class StopOnSignal {
  public:
    // From here on the two signals only stop the loop, which outlives this object; SIGHUP and SIGUSR1 call `other` with
    // their number, if there is one.
    explicit StopOnSignal(tq_thread_master *master, std::function<void(int signal)> other = nullptr);
    ~StopOnSignal();
    StopOnSignal(const StopOnSignal &) = delete;
    StopOnSignal &operator=(const StopOnSignal &) = delete;

    bool asked() const { return signal_ != 0; }
    int signal() const { return signal_; } // the first that asked; 0: none

  private:
    static void on_signal(tq_loop_watch *watch, int fd, int events, void *arg);

    tq_thread_master *master_;
    std::function<void(int)> other_;
    int fd_;
    tq_loop_watch *watch_;
    int signal_ = 0;
};

} // namespace plx::tool
