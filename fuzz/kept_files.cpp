// Files that the library reads at start-up, with any content: the log level, the saved debug switch, the process's
// status. Their paths are the machine's, so open(), access() and fopen() are defined here and hand out the run's own
// content, or a failure, in their place; every other path is passed on to the system.
#include "library.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

enum class state : uint8_t { absent, present, unreadable };

struct kept_file {
    state is = state::absent;
    std::string content;
};

struct {
    bool on = false;
    kept_file level, saved, status;
} files;

kept_file *file_at(const char *path)
{
    if (!files.on)
        return nullptr;
    if (strncmp(path, "/etc/plx_dbg/", 13) == 0)
        return &files.level;
    if (strcmp(path, lib_plx_debug_path) == 0)
        return &files.saved;
    return strncmp(path, "/proc/", 6) == 0 && strstr(path, "/status") != nullptr ? &files.status : nullptr;
}

int refuse(int reason)
{
    errno = reason;
    return -1;
}

// A directory opens for reading and then refuses to be read.
int open_kept(const kept_file &file)
{
    if (file.is == state::absent)
        return refuse(ENOENT);
    if (file.is == state::unreadable)
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/", O_RDONLY | O_DIRECTORY));
    const int fd = memfd_create("kept", 0);
    fuzz::require(fd >= 0 && write(fd, file.content.data(), file.content.size()) >= 0, "a file can be made");
    lseek(fd, 0, SEEK_SET);
    return fd;
}

int flags_of(const char *mode)
{
    const int access = strchr(mode, '+') != nullptr ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
    const int making = mode[0] == 'r' ? 0 : mode[0] == 'w' ? O_CREAT | O_TRUNC : O_CREAT | O_APPEND;
    return access | making | O_CLOEXEC;
}

} // namespace

extern "C" {

// What a caller asks to create is the system's file in every case.
int open(const char *path, int flags, ...)
{
    const kept_file *kept = file_at(path);
    return kept != nullptr ? open_kept(*kept) : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0666));
}

int access(const char *path, int mode) noexcept
{
    const kept_file *kept = file_at(path);
    if (kept == nullptr)
        return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
    return kept->is == state::absent ? refuse(ENOENT) : 0;
}

FILE *fopen(const char *path, const char *mode)
{
    kept_file *kept = file_at(path);
    if (kept != nullptr && mode[0] == 'w')
        kept->content.clear();
    const int fd = kept != nullptr ? open_kept(*kept)
                                   : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags_of(mode), 0666));
    return fd < 0 ? nullptr : fdopen(fd, mode[0] == 'r' ? "r" : "w");
}

} // extern "C"

namespace {

kept_file any_file(fuzz::input &in)
{
    const state states[] = {state::present, state::present, state::present, state::absent, state::unreadable};
    const state is = in.pick(states);
    return {is, in.text()};
}

bool readable(const kept_file &file)
{
    return file.is == state::present && !file.content.empty();
}

void start_log()
{
    constexpr uint32_t before = 4;
    g_policy_plx_zlog_level = before;
    const int32_t result = plx_initial();
    if (files.status.is == state::unreadable || (files.status.is == state::present && files.status.content.empty())) {
        fuzz::require(result == -1, "a process without a name does not start its log");
        return;
    }
    fuzz::require(result == 0, "the log starts");
    const uint32_t level = g_policy_plx_zlog_level;
    if (!readable(files.level))
        fuzz::require(level == before, "no level file changes nothing");
    else
        fuzz::require(level >= 1 && level <= 5, "a level file gives a level");
    const std::string &text = files.level.content;
    if (readable(files.level) && text.size() == 1 && text[0] >= '1' && text[0] <= '5')
        fuzz::require(level == static_cast<uint32_t>(text[0] - '0'), "and gives the one that it names");
}

void start_shell()
{
    fake::shell = {};
    fp_udp_debug_sw = 0x77;
    fp_udp_at_reg_init(&fuzz::context);
    fuzz::require(fake::shell.commands.size() == 9, "the shell has its commands");
    fuzz::require(fake::shell.opened.size() <= 99 + 3, "a module's name is bounded");
    fuzz::require(readable(files.saved) || fp_udp_debug_sw == 0, "no saved switch is a switch turned off");
}

void read_name()
{
    char name[100];
    memset(name, 'x', sizeof name);
    name[0] = '\0';
    fp_udp_dbg_get_proc_name(name);
    fuzz::require(strnlen(name, sizeof name) < sizeof name, "a process's name is terminated");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::fresh_library({});
    fuzz::input in(data, size);
    files.level = any_file(in);
    files.saved = any_file(in);
    files.status = any_file(in);
    files.on = true;
    start_log();
    start_shell();
    read_name();
    files.on = false;
    return 0;
}
