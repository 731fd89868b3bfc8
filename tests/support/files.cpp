// The files that the library sees. Its file calls are defined here, before the C library's, and go on to those. Fixed
// paths are led elsewhere for open(), access() and fopen() as led_elsewhere says; calls whose return address lies in
// libplx.so are counted, and fail when failing_file_call says so. Nothing happens until a case says so.
#undef _FORTIFY_SOURCE // its inline versions would stand in the way of these
#include "fakes.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
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

lines commands;
size_t open_files()
{
    size_t count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (directory && readdir(directory))
        count++;
    if (directory)
        closedir(directory);
    return count;
}

static bool failing, from_there_on;
static int turn, seen_so_far, failure;
static std::string failed_name;

failing_file_call::failing_file_call(int n, int error, lasts how_long)
{
    turn = n;
    failure = error;
    from_there_on = how_long == from_then_on;
    seen_so_far = 0;
    failed_name.clear();
    failing = true;
}

failing_file_call::~failing_file_call()
{
    failing = false;
}

int failing_file_call::seen()
{
    return seen_so_far;
}

std::string failing_file_call::failed()
{
    return failed_name;
}

// The error of a call whose turn has come, else 0.
static int refused(const char *name, const void *caller)
{
    if (!failing || !in_library(caller))
        return 0;
    ++seen_so_far;
    if (turn == 0 || (from_there_on ? seen_so_far < turn : seen_so_far != turn))
        return 0;
    if (failure == failing_file_call::short_count && strcmp(name, "read") != 0 && strcmp(name, "write") != 0)
        return 0;
    failed_name = name;
    if (failure > 0)
        errno = failure;
    return failure;
}

} // namespace fake

// Where file offsets have 64 bits on a machine of 32, or may have, the calls have other names.
#ifdef __USE_FILE_OFFSET64
#define SIZED(name) #name "64"
#else
#define SIZED(name) #name
#endif
#define REAL(function, symbol) reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, symbol))
// Leaves the function with `result` when the call's turn to fail has come. A short call is none of a failure's.
#define REFUSE(name, result)                                                                                           \
    if (fake::refused(name, __builtin_return_address(0)) > 0)                                                          \
        return result;

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>(flags & O_CREAT ? va_arg(arguments, int) : 0);
    va_end(arguments);
    REFUSE("open", -1)
    static const auto real = REAL(openat, SIZED(openat));
    return real(AT_FDCWD, fake::active ? fake::actual(path).c_str() : path, flags, mode);
}

int openat(int directory, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>(flags & O_CREAT ? va_arg(arguments, int) : 0);
    va_end(arguments);
    REFUSE("openat", -1)
    static const auto real = REAL(openat, SIZED(openat));
    return real(directory, path, flags, mode);
}

int access(const char *path, int type)
{
    REFUSE("access", -1)
    return faccessat(AT_FDCWD, fake::active ? fake::actual(path).c_str() : path, type, 0);
}

FILE *fopen(const char *path, const char *mode)
{
    REFUSE("fopen", nullptr)
    static const auto real = REAL(fopen, SIZED(fopen));
    return real(fake::active ? fake::actual(path).c_str() : path, mode);
}

char *fgets(char *text, int size, FILE *file)
{
    REFUSE("fgets", nullptr)
    static const auto real = REAL(fgets, "fgets");
    return real(text, size, file);
}

// The file is closed all the same, as Linux does.
int close(int file)
{
    static const auto real = REAL(close, "close");
    const int result = real(file);
    REFUSE("close", -1)
    return result;
}

int fstat(int file, struct stat *found)
{
    REFUSE("fstat", -1)
    static const auto real = REAL(fstat, SIZED(fstat));
    return real(file, found);
}

int fstatat(int directory, const char *path, struct stat *found, int flags)
{
    REFUSE("fstatat", -1)
    static const auto real = REAL(fstatat, SIZED(fstatat));
    return real(directory, path, found, flags);
}

int ftruncate(int file, off_t size)
{
    REFUSE("ftruncate", -1)
    static const auto real = REAL(ftruncate, SIZED(ftruncate));
    return real(file, size);
}

ssize_t read(int file, void *bytes, size_t size)
{
    static const auto real = REAL(read, "read");
    const int refused = fake::refused("read", __builtin_return_address(0));
    return refused > 0 ? -1 : real(file, bytes, refused ? 1 : size);
}

ssize_t write(int file, const void *bytes, size_t size)
{
    static const auto real = REAL(write, "write");
    const int refused = fake::refused("write", __builtin_return_address(0));
    return refused > 0 ? -1 : real(file, bytes, refused ? 1 : size);
}

int system(const char *command)
{
    fake::commands.push_back(command);
    REFUSE("system", 256)
    return 0;
}

} // extern "C"
