// Fixed paths of the library, led elsewhere: open, access and fopen are defined here, before the C library's, and look
// up each path in fake::paths. Nothing is led elsewhere until a case says so.
#include "fakes.h"

#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fake {

static bool active;

led_elsewhere::led_elsewhere(const std::string &from, const std::string &to) : from_(from)
{
    paths()[from] = to;
    active = true;
}

led_elsewhere::~led_elsewhere()
{
    paths().erase(from_);
    active = !paths().empty();
}

std::map<std::string, std::string> &led_elsewhere::paths()
{
    static std::map<std::string, std::string> known;
    return known;
}

static std::string actual(const char *path)
{
    std::string text = path;
    if (active)
        for (const auto &[from, to] : led_elsewhere::paths())
            if (text.compare(0, from.size(), from) == 0)
                return to + text.substr(from.size());
    return text;
}

} // namespace fake

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>(flags & O_CREAT ? va_arg(arguments, int) : 0);
    va_end(arguments);
    return fake::active ? openat(AT_FDCWD, fake::actual(path).c_str(), flags, mode)
                        : openat(AT_FDCWD, path, flags, mode);
}

int access(const char *path, int type)
{
    return faccessat(AT_FDCWD, fake::active ? fake::actual(path).c_str() : path, type, 0);
}

FILE *fopen(const char *path, const char *mode)
{
    static const auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen"));
    return real(fake::active ? fake::actual(path).c_str() : path, mode);
}

} // extern "C"
