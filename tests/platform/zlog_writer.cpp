// Writes one log line for zlog_test: category, level, text. A line that goes to syslog is printed instead.
#include "tq_zlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// Both forms: a hardened build calls the checking one.
extern "C" void syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    printf("syslog %d ", priority);
    vprintf(format, args);
    va_end(args);
}

extern "C" void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    printf("syslog %d ", priority);
    vprintf(format, args);
    va_end(args);
}

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    void *category = tq_zlog_init(argv[1]);
    if (category != tq_zlog_init(argv[1]))
        return 3;
    tqdf_zlog(category, "app/file.cppXX", 12, "functionXX", 8, 42, atoi(argv[2]), "%s", argv[3]);
    return 0;
}
