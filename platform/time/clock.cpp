// Clocks, and what a struct timeval amounts to in one unit.
//
// Callers subtract timevals field by field and carry whole intervals in the microsecond field, so neither field is
// trusted to be normalised. A fraction is dropped towards the past: one microsecond before zero is second -1, which
// as an unsigned number is the largest age there is, and that is what an age check wants of a clock gone backwards.
#include "tq_time.h"

#include <cstdio>
#include <ctime>

namespace {

constexpr int64_t us_per_second = 1000000;

struct split_time {
    uint64_t seconds;      // wraps
    uint64_t microseconds; // 0 .. 999999
};

split_time split(const timeval &tv)
{
    int64_t carry = tv.tv_usec / us_per_second;
    int64_t rest = tv.tv_usec % us_per_second;
    if (rest < 0) {
        rest += us_per_second;
        carry -= 1;
    }
    return {static_cast<uint64_t>(tv.tv_sec) + static_cast<uint64_t>(carry), static_cast<uint64_t>(rest)};
}

} // namespace

int tq_monotime(timeval *now)
{
    timespec ts;
    if (!now || clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return -1;
    now->tv_sec = ts.tv_sec;
    now->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

uint64_t tq_timeval_to_us(const timeval *tv)
{
    const split_time time = split(*tv);
    return time.seconds * 1000000 + time.microseconds;
}

uint64_t tq_timeval_to_ms(const timeval *tv)
{
    const split_time time = split(*tv);
    return time.seconds * 1000 + time.microseconds / 1000;
}

uint64_t tq_timeval_to_sec(const timeval *tv)
{
    return split(*tv).seconds;
}

int tq_time_2_string(char *buffer, size_t size)
{
    if (!buffer || size == 0)
        return 0;
    buffer[0] = '\0';

    timespec now;
    tm local;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || !localtime_r(&now.tv_sec, &local))
        return 0;
    char text[64];
    const size_t date = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    if (date == 0)
        return 0;
    const int written = snprintf(buffer, size, "%s.%03ld", text, now.tv_nsec / 1000000);
    if (written > 0 && static_cast<size_t>(written) < size)
        return 1;
    buffer[0] = '\0';
    return 0;
}
