// A platform that answers at once: a store that accepts every write and keeps nothing, a debug shell and topics that
// agree, timers that never fire, and a log that only counts. The clock is the time library's own.
#pragma once

#include <cstdint>
#include <plx/libplx.h>

namespace bench {

extern uint64_t store_writes; // records that the store was asked to write

inline constexpr char app_type[] = "security_app"; // its ACEs are tracked without an apply

// The library, registered with a callback table that hears of ACEs; the first call registers.
fp_udp_mgr &library();

// The application's context.
void *context();

} // namespace bench
