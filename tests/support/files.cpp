// The files that the library sees. Its file calls are defined here, before the C library's, and go on to those. Fixed
// paths are led elsewhere for open(), access() and fopen() as led_elsewhere says; calls whose return address lies in
// libplx.so are counted, and fail when failing_file_call says so. Nothing happens until a case says so.
#undef _FORTIFY_SOURCE // its inline versions would stand in the way of these
#include "fakes.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fake {

led_elsewhere::led_elsewhere(const std::string &from, const std::string &to) : from_(from)
{
    paths()[from] = to;
}

led_elsewhere::~led_elsewhere()
{
    paths().erase(from_);
}

std::map<std::string, std::string> &led_elsewhere::paths()
{
    static std::map<std::string, std::string> known;
    return known;
}

static std::string actual(const char *path)
{
    std::string text = path;
    for (const auto &[from, to] : led_elsewhere::paths())
        if (text.compare(0, from.size(), from) == 0)
            return to + text.substr(from.size());
    return text;
}

lines commands;
std::optional<uid_t> owner_of_all;
size_t open_files()
{
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(open), end(open)));
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
// A call that goes on to the C library's, unless its turn to fail has come.
#define FORWARD(type, function, symbol, parameters, arguments, failed)                                                 \
    type function parameters                                                                                           \
    {                                                                                                                  \
        if (fake::refused(#function, __builtin_return_address(0)) > 0)                                                 \
            return failed;                                                                                             \
        static const auto real = REAL(function, symbol);                                                               \
        return real arguments;                                                                                         \
    }
// One that may also move a single byte.
#define MOVE(function, pointer)                                                                                        \
    ssize_t function(int file, pointer bytes, size_t size)                                                             \
    {                                                                                                                  \
        const int refused = fake::refused(#function, __builtin_return_address(0));                                     \
        static const auto real = REAL(function, #function);                                                            \
        return refused > 0 ? -1 : real(file, bytes, refused ? 1 : size);                                               \
    }
// Where a path leads, in the calls that take a fixed one.
#define LED (fake::actual(path).c_str())

extern "C" {

// The mode is passed on whether or not there is one, as the C library reads it.
int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>(va_arg(arguments, int));
    va_end(arguments);
    static const auto real = REAL(openat, SIZED(openat));
    return fake::refused("open", __builtin_return_address(0)) > 0 ? -1 : real(AT_FDCWD, LED, flags, mode);
}

int openat(int directory, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>(va_arg(arguments, int));
    va_end(arguments);
    static const auto real = REAL(openat, SIZED(openat));
    return fake::refused("openat", __builtin_return_address(0)) > 0 ? -1 : real(directory, path, flags, mode);
}

int fstat(int file, struct stat *found)
{
    static const auto real = REAL(fstat, SIZED(fstat));
    if (fake::refused("fstat", __builtin_return_address(0)) > 0 || real(file, found) != 0)
        return -1;
    found->st_uid = fake::owner_of_all.value_or(found->st_uid);
    return 0;
}

// The file is closed all the same, as Linux does.
int close(int file)
{
    static const auto real = REAL(close, "close");
    const int result = real(file);
    return fake::refused("close", __builtin_return_address(0)) > 0 ? -1 : result;
}

FORWARD(int, access, "access", (const char *path, int type), (LED, type), -1)
FORWARD(FILE *, fopen, SIZED(fopen), (const char *path, const char *mode), (LED, mode), nullptr)
FORWARD(char *, fgets, "fgets", (char *text, int size, FILE *file), (text, size, file), nullptr)
FORWARD(int, fstatat, SIZED(fstatat), (int directory, const char *path, struct stat *found, int flags),
        (directory, path, found, flags), -1)
FORWARD(int, ftruncate, SIZED(ftruncate), (int file, off_t size), (file, size), -1)
MOVE(read, void *)
MOVE(write, const void *)

int system(const char *command)
{
    fake::commands.push_back(command);
    return fake::refused("system", __builtin_return_address(0)) > 0 ? 256 : 0;
}

} // extern "C"
