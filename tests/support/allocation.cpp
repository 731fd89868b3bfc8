// Failing allocations, and the count of live ones. malloc, calloc, realloc and free are defined here, before the C
// library's (and before a sanitizer's, which stays behind them): a call whose return address lies in libplx.so, or in
// the libraries that a program names instead, is counted and, when its turn has come, refused. All others pass. Built
// without instrumentation, since the first calls come before a sanitizer is ready.
#include "fakes.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <link.h>

extern "C" {
#ifdef PLX_UNDER_SANITIZER
void *__interceptor_malloc(size_t size);
void *__interceptor_calloc(size_t count, size_t size);
void *__interceptor_realloc(void *block, size_t size);
void __interceptor_free(void *block);
#define REAL(name) __interceptor_##name
#else
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
#define REAL(name) __libc_##name
#endif
}

namespace {

const char *const *watched;
struct range {
    uintptr_t begin, end;
} libraries[8];
size_t found;
bool counting, from_there_on;
int turn, seen_so_far;
long live;

int find_library(dl_phdr_info *info, size_t, void *)
{
    const char *const *name = watched;
    while (*name && !strstr(info->dlpi_name, *name))
        ++name;
    if (!*name)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const auto &part = info->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || !(part.p_flags & PF_X))
            continue;
        const uintptr_t begin = info->dlpi_addr + part.p_vaddr;
        libraries[found++] = {begin, begin + part.p_memsz};
    }
    return 0;
}

bool refused(void *caller)
{
    if (!counting || !fake::in_library(caller))
        return false;
    ++seen_so_far;
    return turn != 0 && (from_there_on ? seen_so_far >= turn : seen_so_far == turn);
}

void *counted(void *block)
{
    live += block != nullptr;
    return block;
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return refused(__builtin_return_address(0)) ? nullptr : counted(REAL(malloc)(size));
}

void *calloc(size_t count, size_t size)
{
    return refused(__builtin_return_address(0)) ? nullptr : counted(REAL(calloc)(count, size));
}

void *realloc(void *block, size_t size)
{
    if (refused(__builtin_return_address(0)))
        return nullptr;
    return block ? REAL(realloc)(block, size) : counted(REAL(realloc)(nullptr, size));
}

void free(void *block)
{
    live -= block != nullptr;
    REAL(free)(block);
}

} // extern "C"

namespace fake {

void watch(const char *const *names)
{
    watched = names;
    found = 0;
    dl_iterate_phdr(find_library, nullptr);
}

bool in_library(const void *caller)
{
    static constexpr const char *library[] = {"libplx.so", nullptr};
    if (!watched)
        watch(library);
    const auto at = reinterpret_cast<uintptr_t>(caller);
    const auto holds = [at](const range &each) { return at >= each.begin && at < each.end; };
    return std::any_of(libraries, libraries + found, holds);
}

long live_blocks()
{
    return live;
}

failing_allocation::failing_allocation(int n, lasts how_long)
{
    turn = n;
    from_there_on = how_long == from_then_on;
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
