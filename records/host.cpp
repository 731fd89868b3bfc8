// See host.hpp.
#include "records/host.hpp"

#include <sys/time.h>

namespace plx {

uint64_t now_us()
{
    timeval time{};
    tq_monotime(&time);
    return tq_timeval_to_us(&time);
}

milliseconds now()
{
    return milliseconds(now_us() / 1000);
}

uint64_t wall_clock_ms()
{
    timeval time{};
    gettimeofday(&time, nullptr);
    return tq_timeval_to_ms(&time);
}

bool Timer::start(milliseconds interval)
{
    cancel();
    const timeval time{static_cast<time_t>(interval.count() / 1000),
                       static_cast<suseconds_t>(interval.count() % 1000 * 1000)};
    return tq_thread_insert_timer_timeval(master_, &thread_, &Timer::fire, this, &time, "plx_host") == 0;
}

void Timer::cancel()
{
    tq_thread_cancel(thread_);
    thread_ = nullptr;
}

int Timer::fire(tq_thread *thread) noexcept
{
    static_cast<Timer *>(tq_thread_arg(thread))->func_();
    return 0;
}

} // namespace plx
