// Failing allocations. malloc, calloc and realloc are defined here, before the C library's (and before a sanitizer's,
// which stays behind them): a call whose return address lies in libplx.so is counted and, when its turn has come,
// refused. All others pass. Built without instrumentation, since the first calls come before a sanitizer is ready.
#include "fakes.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <link.h>

extern "C" {
#ifdef PLX_UNDER_SANITIZER
void *__interceptor_malloc(size_t size);
void *__interceptor_calloc(size_t count, size_t size);
void *__interceptor_realloc(void *block, size_t size);
#define REAL(name) __interceptor_##name
#else
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
#define REAL(name) __libc_##name
#endif
}

namespace {

uintptr_t library_begin, library_end;
bool counting;
int turn, seen_so_far;

int find_library(dl_phdr_info *info, size_t, void *)
{
    if (!strstr(info->dlpi_name, "libplx.so"))
        return 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || !(part.p_flags & PF_X))
            continue;
        library_begin = info->dlpi_addr + part.p_vaddr;
        library_end = library_begin + part.p_memsz;
    }
    return 1;
}

bool refused(void *caller)
{
    auto at = reinterpret_cast<uintptr_t>(caller);
    return counting && at >= library_begin && at < library_end && ++seen_so_far == turn;
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return refused(__builtin_return_address(0)) ? nullptr : REAL(malloc)(size);
}

void *calloc(size_t count, size_t size)
{
    return refused(__builtin_return_address(0)) ? nullptr : REAL(calloc)(count, size);
}

void *realloc(void *block, size_t size)
{
    return refused(__builtin_return_address(0)) ? nullptr : REAL(realloc)(block, size);
}

} // extern "C"

namespace fake {

failing_allocation::failing_allocation(int n)
{
    if (!library_end)
        dl_iterate_phdr(find_library, nullptr);
    turn = n;
    seen_so_far = 0;
    counting = true;
}

failing_allocation::~failing_allocation()
{
    counting = false;
}

failing_allocation::pause::pause() : was(std::exchange(counting, false)) {}

failing_allocation::pause::~pause()
{
    counting = was;
}

int failing_allocation::seen()
{
    return seen_so_far;
}

} // namespace fake
