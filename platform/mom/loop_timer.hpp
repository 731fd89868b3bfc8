// One timer of an object on the loop, which can be started any number of times and ends with the object.
#ifndef TQ_MOM_LOOP_TIMER_HPP
#define TQ_MOM_LOOP_TIMER_HPP

#include <chrono>
#include <tq_loop.h>

namespace mom {

class loop_timer {
  public:
    loop_timer(tq_thread_master *master, tq_thread_func func, void *arg, const char *name)
        : master_(master), func_(func), arg_(arg), name_(name)
    {
    }
    ~loop_timer() { stop(); }
    loop_timer(const loop_timer &) = delete;
    loop_timer &operator=(const loop_timer &) = delete;

    bool running() const { return timer_ != nullptr; }
    /// A running one goes on as it is. False when there was no memory.
    [[nodiscard]] bool start(std::chrono::milliseconds pause)
    {
        const timeval interval{static_cast<time_t>(pause.count() / 1000),
                               static_cast<suseconds_t>(pause.count() % 1000 * 1000)};
        return running() || tq_thread_insert_timer_timeval(master_, &timer_, func_, arg_, &interval, name_) == 0;
    }
    void stop() { tq_thread_cancel(timer_); }

  private:
    tq_thread_master *master_;
    tq_thread_func func_;
    void *arg_;
    const char *name_;
    tq_thread *timer_ = nullptr;
};

} // namespace mom

#endif
