// What the files of this area share: the source path that they report under, and ages on the monotonic clock.
#pragma once

#include "../fp_udp_dbg/channel.hpp"

#include <tq_time.h>

namespace plx::req {

inline constexpr char source[] = "app/fp_udp_req_mng.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

// Whole seconds from `since` to `now`. A clock that went back, by a microsecond even, gives a huge age.
uint64_t age_seconds(const timeval &now, const timeval &since);

} // namespace plx::req
