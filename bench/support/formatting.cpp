// The printf family as the library reaches it, counted and passed on. Fortified builds call the names that end in _chk.
#include "counting.hpp"

#include <cstdarg>
#include <cstdio>

#define COUNT_AND_PASS_ON(call)                                                                                        \
    ++bench::formatting_calls;                                                                                         \
    va_list arguments;                                                                                                 \
    va_start(arguments, format);                                                                                       \
    const int length = call;                                                                                           \
    va_end(arguments);                                                                                                 \
    return length

// These take the place of functions that the headers may define inline.
#undef printf
#undef snprintf

extern "C" {

int __printf_chk(int, const char *format, ...)
{
    COUNT_AND_PASS_ON(std::vprintf(format, arguments));
}

int __fprintf_chk(FILE *file, int, const char *format, ...)
{
    COUNT_AND_PASS_ON(std::vfprintf(file, format, arguments));
}

int __snprintf_chk(char *buffer, size_t size, int, size_t, const char *format, ...)
{
    COUNT_AND_PASS_ON(std::vsnprintf(buffer, size, format, arguments));
}

int printf(const char *format, ...)
{
    COUNT_AND_PASS_ON(std::vprintf(format, arguments));
}

int snprintf(char *buffer, size_t size, const char *format, ...)
{
    COUNT_AND_PASS_ON(std::vsnprintf(buffer, size, format, arguments));
}

} // extern "C"
