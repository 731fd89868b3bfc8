// Writes one log line: category, level, text; with a number, repeated ones; without a word, what becomes of odd calls.
// A line that goes to syslog is printed instead.
#include "tq_zlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

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

// The clock goes on as the program says.
static long now;

extern "C" int clock_gettime(clockid_t, timespec *time)
{
    *time = {now / 1000, now % 1000 * 1000000};
    return 0;
}

// `times` messages and another text, 20 ms apart; then silence, another message, and the same again before the end.
static int repeat(char **argv)
{
    void *category = tq_zlog_init(argv[1]);
    const auto say = [&](const char *text) {
        tqdf_zlog(category, "app/file.cpp", 12, "function", 8, 42, atoi(argv[2]), "%s", text);
    };
    for (int i = 0; i < atoi(argv[4]); ++i, now += 20)
        say(argv[3]);
    say("of another text");
    now += 1000;
    say("later");
    for (int i = 0; i < atoi(argv[4]); ++i)
        say(argv[3]);
    printf("held back %llu", static_cast<unsigned long long>(tq_zlog_held_back()));
    return 0;
}

static int odd_calls()
{
    char buffer[4];
    const int length = at_snprintf(buffer, sizeof buffer, "%d", 123456);
    tqdf_zlog(nullptr, "f", 1, "f", 1, 1, TQ_ZLOG_ERROR, "%s", "x");
    printf("%s of %d, %s\n", buffer, length, tq_zlog_init(nullptr) == nullptr ? "no category" : "a category");
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 1)
        return odd_calls();
    if (argc == 5)
        return repeat(argv);
    if (argc != 4)
        return 2;
    void *category = tq_zlog_init(argv[1]);
    if (category != tq_zlog_init(argv[1]))
        return 3;
    tqdf_zlog(category, "app/file.cppXX", 12, "functionXX", 8, 42, atoi(argv[2]), "%s", argv[3]);
    return 0;
}
