// malloc and its family, counted and passed on. operator new comes here too.
#include "counting.hpp"

#include <malloc.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace bench {

constinit allocation_count allocations;

namespace {

void *counted(void *block)
{
    ++allocations.calls;
    allocations.live_bytes += static_cast<int64_t>(malloc_usable_size(block));
    return block;
}

void uncount(void *block)
{
    allocations.live_bytes -= static_cast<int64_t>(malloc_usable_size(block));
}

} // namespace
} // namespace bench

extern "C" {

void *malloc(size_t size)
{
    return bench::counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return bench::counted(__libc_calloc(count, size));
}

void *realloc(void *block, size_t size)
{
    bench::uncount(block);
    return bench::counted(__libc_realloc(block, size));
}

void free(void *block)
{
    bench::uncount(block);
    __libc_free(block);
}

} // extern "C"
