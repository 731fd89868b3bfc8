// What the files of this area share: the source path that they report under, and times and ages on the monotonic clock.
#pragma once

#include "../fp_udp_dbg/channel/channel.hpp"

#include <tq_time.h>

namespace plx::req {

inline constexpr char source[] = "app/fp_udp_req_mng.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

// The time now; zero, which is no time, when the clock cannot be read. What is stamped with no time gets one from the
// next pass that can read it: an age is never counted from a time that nobody read.
timeval time_now();

inline bool known(const timeval &time)
{
    return time.tv_sec != 0 || time.tv_usec != 0;
}

// Whole seconds from `since` to `now`. A clock that went back, by a microsecond even, gives a huge age.
uint64_t age_seconds(const timeval &now, const timeval &since);

// Asked once at each expiry: whether a service node that was not heard of is silent. While the store itself cannot be
// heard it may not be, nor until one expiry has passed since, by when those that live have been heard of.
bool silence_counts();

} // namespace plx::req
