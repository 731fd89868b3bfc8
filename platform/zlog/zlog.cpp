// The system log behind tq_zlog.h: zlog where that library is on the machine, syslog(3) otherwise.
//
// zlog is looked for once, when the first category is opened. Each category is judged when it is opened: one that zlog
// would lose (no library, a configuration that does not load, no rule that takes any of its lines) goes to syslog,
// which is told when it was for want of a rule. A zlog so old that it cannot be asked for its rules is trusted.
// zlog reads its configuration from the file that ZLOG_CONF_PATH names; an application that has initialised zlog itself
// keeps its own. Categories are never freed. Any thread may log: one lock keeps the categories and the bound on
// repeated messages, and nothing is written under it. Whatever the text contains, it reaches either log as data.
#include "tq_zlog.h"

#include "platform/guard.hpp"
#include "repeats.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <syslog.h>
#include <time.h>

namespace {

struct zlog_library {
    int (*init)(const char *configuration);
    void *(*get_category)(const char *name);
    int (*level_enabled)(void *category, int level); // may be missing
    void (*log)(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
                int level, const char *format, ...);
};

struct category {
    std::string name;
    void *zlog; // NULL: syslog
};

template <typename function> bool resolve(void *library, const char *name, function *&entry)
{
    entry = reinterpret_cast<function *>(dlsym(library, name));
    return entry;
}

bool open_library(const char *file_name, zlog_library &zlog)
{
    void *library = dlopen(file_name, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return false;
    resolve(library, "zlog_level_enabled", zlog.level_enabled);
    if (resolve(library, "zlog_init", zlog.init) && resolve(library, "zlog_get_category", zlog.get_category) &&
        resolve(library, "zlog", zlog.log))
        return true;
    dlclose(library);
    zlog = {};
    return false;
}

const zlog_library &zlog()
{
    static const zlog_library library = [] {
        zlog_library found{};
        for (const char *file_name : {"libzlog.so.1.2", "libzlog.so.1", "libzlog.so"})
            if (open_library(file_name, found))
                break;
        return found;
    }();
    return library;
}

void *get_zlog_category(const char *name)
{
    if (!zlog().get_category)
        return nullptr;
    if (void *open = zlog().get_category(name))
        return open;
    zlog().init(getenv("ZLOG_CONF_PATH"));
    return zlog().get_category(name);
}

bool has_rule(void *category)
{
    for (const int level : {TQ_ZLOG_FATAL, TQ_ZLOG_ERROR, TQ_ZLOG_WARN, TQ_ZLOG_NOTICE, TQ_ZLOG_INFO, TQ_ZLOG_DEBUG})
        if (!zlog().level_enabled || zlog().level_enabled(category, level))
            return true;
    return false;
}

// zlog opens a category that no rule names, and then drops each of its lines without a word.
void *open_zlog_category(const char *name)
{
    void *category = get_zlog_category(name);
    if (!category || has_rule(category))
        return category;
    syslog(LOG_WARNING, "%s: zlog has no rule for this category: its lines go to the system log", name);
    return nullptr;
}

int syslog_priority(int level)
{
    if (level >= TQ_ZLOG_FATAL)
        return LOG_CRIT;
    if (level >= TQ_ZLOG_ERROR)
        return LOG_ERR;
    if (level >= TQ_ZLOG_WARN)
        return LOG_WARNING;
    if (level >= TQ_ZLOG_NOTICE)
        return LOG_NOTICE;
    return level >= TQ_ZLOG_INFO ? LOG_INFO : LOG_DEBUG;
}

void write_syslog(const category &to, const char *func, size_t func_len, long line, int level, const char *text)
{
    const int func_length = func ? static_cast<int>(func_len) : 0;
    syslog(syslog_priority(level), "%s: %.*s[%ld]: %s", to.name.c_str(), func_length, func ? func : "", line, text);
}

// The formatted line, in `buffer` where it fits. Without memory for a longer one the line is cut.
char *format_line(char *buffer, size_t size, std::unique_ptr<char[]> &longer, const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(buffer, size, format, args);
    if (length < 0)
        buffer[0] = '\0';
    if (length >= 0 && static_cast<size_t>(length) >= size)
        longer.reset(new (std::nothrow) char[static_cast<size_t>(length) + 1]);
    if (longer)
        vsnprintf(longer.get(), static_cast<size_t>(length) + 1, format, again);
    va_end(again);
    return longer ? longer.get() : buffer;
}

bool is_control(unsigned char byte, unsigned char before)
{
    const bool of_utf8 = before == 0xC2 && byte >= 0x80 && byte < 0xA0;
    return byte < 0x20 || byte == 0x7F || of_utf8;
}

// Both logs end their lines themselves. A name from a store or an application must neither forge a line nor reach a
// terminal as commands.
void make_one_line(char *text)
{
    size_t length = strlen(text);
    while (length > 0 && text[length - 1] == '\n')
        text[--length] = '\0';
    for (size_t i = 0; i < length; ++i)
        if (text[i] != '\t' &&
            is_control(static_cast<unsigned char>(text[i]), i ? static_cast<unsigned char>(text[i - 1]) : 0))
            text[i] = '?';
}

using zlog_limit::held_message, zlog_limit::message;

std::mutex guard;
zlog_limit::repeats repeats; // used under the guard

uint64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// `text` is the message's, or one about it; it is terminated.
void write(const message &of, const char *text)
{
    const auto &to = *static_cast<const category *>(of.category);
    if (to.zlog)
        zlog().log(to.zlog, of.file.data(), of.file.size(), of.func.data(), of.func.size(), of.line, of.level, "%s",
                   text);
    else
        write_syslog(to, of.func.data(), of.func.size(), of.line, of.level, text);
}

void write(const held_message &held)
{
    char text[256];
    const message of = held.get();
    snprintf(text, sizeof text, "%llu more of these: %.*s", static_cast<unsigned long long>(held.times),
             static_cast<int>(of.text.size()), of.text.data());
    write(of, text);
}

void tell_what_is_over(uint64_t now)
{
    const auto next = [now] {
        const std::lock_guard lock(guard);
        return repeats.over(now);
    };
    while (const auto held = next())
        write(*held);
}

struct at_exit {
    ~at_exit() { tell_what_is_over(UINT64_MAX); }
};

} // namespace

void *tq_zlog_init(const char *name)
try {
    if (!name)
        return nullptr;
    const std::lock_guard lock(guard);
    static auto &categories = *new std::map<std::string, category, std::less<>>; // outlives whoever logs at exit
    auto known = categories.find(std::string_view(name));
    if (known == categories.end()) {
        known = categories.try_emplace(name, category{name, nullptr}).first;
        known->second.zlog = open_zlog_category(name);
    }
    static const at_exit tells; // made after zlog was opened, it ends before that does
    return &known->second;
} catch (...) {
    return platform::thrown_errno<void *>(nullptr);
}

void tqdf_zlog(void *opened, const char *file, size_t file_len, const char *func, size_t func_len, long line, int level,
               const char *format, ...)
{
    if (!opened)
        return;
    char buffer[1024];
    std::unique_ptr<char[]> longer;
    va_list args;
    va_start(args, format);
    char *text = format_line(buffer, sizeof buffer, longer, format, args);
    va_end(args);
    make_one_line(text);

    const message said{opened, {file, file ? file_len : 0}, {func, func ? func_len : 0}, line, level, text};
    const uint64_t now = now_ms();
    tell_what_is_over(now);
    std::optional<held_message> told;
    bool admitted;
    {
        const std::lock_guard lock(guard);
        admitted = repeats.admit(said, now, told);
    }
    if (told)
        write(*told);
    if (admitted)
        write(said, text);
}

uint64_t tq_zlog_held_back(void)
{
    const std::lock_guard lock(guard);
    return repeats.held_back();
}

int at_snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(buffer, size, format, args);
    va_end(args);
    return length;
}
