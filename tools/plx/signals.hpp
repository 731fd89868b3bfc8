// Ends an event loop when the process is asked to: SIGINT and SIGTERM, taken from the loop instead of by a handler.
#pragma once

#include <tq_loop.h>

namespace plx::tool {

class StopOnSignal {
  public:
    // From here on the two signals only stop the loop, which outlives this object.
    explicit StopOnSignal(tq_thread_master *master);
    ~StopOnSignal();
    StopOnSignal(const StopOnSignal &) = delete;
    StopOnSignal &operator=(const StopOnSignal &) = delete;

    bool asked() const { return asked_; }

  private:
    static void on_signal(tq_loop_watch *watch, int fd, int events, void *arg);

    tq_thread_master *master_;
    int fd_;
    tq_loop_watch *watch_;
    bool asked_ = false;
};

} // namespace plx::tool
