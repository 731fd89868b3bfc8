// Clock and timers, log, debug shell, topics.
#include "fakes.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

struct tq_thread {
    void *arg;
};

namespace fake {

clock_double clock;
log_double log;
shell_double shell;
topics_double topics;

void clock_double::advance(uint64_t us)
{
    const uint64_t until = now_us + us;
    for (;;) {
        auto next = std::min_element(timers.begin(), timers.end(),
                                     [](const timer &a, const timer &b) { return a.due_us < b.due_us; });
        if (next == timers.end() || next->due_us > until)
            break;
        timer fired = std::move(*next);
        timers.erase(next);
        now_us = std::max(now_us, fired.due_us);
        if (fired.handle && !keeps_handles)
            *fired.handle = nullptr;
        fired.func(fired.thread.get());
    }
    now_us = until;
}

lines log_double::take(const std::string &levels)
{
    lines texts;
    for (const log_line &line : std::exchange(kept, {})) {
        char letter = line.level == TQ_ZLOG_ERROR    ? 'E'
                      : line.level == TQ_ZLOG_WARN   ? 'I'
                      : line.level == TQ_ZLOG_NOTICE ? 'N'
                      : line.level == TQ_ZLOG_DEBUG  ? 'D'
                                                     : '?';
        if (levels.find(letter) != std::string::npos)
            texts.push_back(std::string(1, letter) + " " + line.text);
    }
    return texts;
}

int shell_double::run(const std::string &name, std::vector<ssat_value> arguments)
{
    for (const shell_command &command : commands)
        if (command.name == name)
            return command.handler(static_cast<int>(arguments.size()), arguments.data());
    return -1000;
}

} // namespace fake

using namespace fake;

extern "C" {

int tq_monotime(struct timeval *now)
{
    now->tv_sec = fake::clock.works ? static_cast<time_t>(fake::clock.now_us / 1'000'000) : 0x77777777;
    now->tv_usec = static_cast<suseconds_t>(fake::clock.now_us % 1'000'000);
    return fake::clock.works ? 0 : 5;
}

uint64_t tq_timeval_to_us(const struct timeval *tv)
{
    return static_cast<uint64_t>(tv->tv_sec) * 1'000'000 + static_cast<uint64_t>(tv->tv_usec);
}

uint64_t tq_timeval_to_ms(const struct timeval *tv)
{
    return static_cast<uint64_t>(tv->tv_sec) * 1'000 + static_cast<uint64_t>(tv->tv_usec) / 1'000;
}

uint64_t tq_timeval_to_sec(const struct timeval *tv)
{
    return static_cast<uint64_t>(tv->tv_sec) + static_cast<uint64_t>(tv->tv_usec) / 1'000'000;
}

int tq_time_2_string(char *buffer, size_t size)
{
    if (!fake::clock.wall_clock_works || size < 30)
        return 0;
    strcpy(buffer, "NOW");
    return 1;
}

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    if (!master || !func || !interval)
        abort();
    fake::clock.inserted.push_back(format("%s %llds %lldus", name, static_cast<long long>(interval->tv_sec),
                                          static_cast<long long>(interval->tv_usec)));
    if (fake::clock.keeps_handles && *handle)
        return EEXIST;
    if (int result = fake::clock.insertions.next())
        return result;
    auto thread = std::make_unique<tq_thread>(tq_thread{arg});
    if (handle)
        *handle = thread.get();
    fake::clock.timers.push_back(
        {master, handle, func, fake::clock.now_us + tq_timeval_to_us(interval), std::move(thread)});
    return 0;
}

void *tq_thread_arg(const tq_thread *thread)
{
    return thread->arg;
}

void *tq_zlog_init(const char *category)
{
    fake::log.category = category;
    return fake::log.opens ? &fake::log : nullptr;
}

void tqdf_zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *form, ...)
{
    if (!category || line <= 0 || strlen(file) != file_len || strlen(func) != func_len)
        abort();
    char text[4096];
    va_list arguments;
    va_start(arguments, form);
    vsnprintf(text, sizeof text, form, arguments);
    va_end(arguments);
    fake::log.kept.push_back({file, func, text, level});
}

int at_snprintf(char *buffer, size_t size, const char *form, ...)
{
    fake::log.formatted++;
    va_list arguments;
    va_start(arguments, form);
    int length = vsnprintf(buffer, size, form, arguments);
    va_end(arguments);
    return length;
}

int ssat_lib_init(void *context, const char *module)
{
    shell.context = context;
    shell.opened = module;
    return shell.openings.next();
}

int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler)
{
    if (reserved != 0 || !handler)
        return 1;
    shell.commands.push_back({module, command, description, handler});
    return 0;
}

int libcgstctrl_gen_init(void *context, uint32_t value, const char *name)
{
    topics.calls.push_back(format("init %p %u %s", context, value, name));
    return topics.script.next();
}

int libcgstctrl_gen_topic_reg(void *context, uint32_t value, const char *name, const ProtobufCMessage *record,
                              int reserved)
{
    topics.calls.push_back(format("topic %p %u %s %s %d", context, value, name, address(*record).c_str(), reserved));
    return topics.script.next();
}

} // extern "C"
