// Counts of what the whole process asks of the C library, taken by standing in front of its functions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

struct allocation_count {
    uint64_t calls = 0;     // of malloc, calloc and realloc
    int64_t live_bytes = 0; // usable bytes of the blocks that are allocated
};
extern allocation_count allocations;

// Calls that format or write text: the printf family, the platform's at_snprintf and its log.
extern uint64_t formatting_calls;

} // namespace bench
