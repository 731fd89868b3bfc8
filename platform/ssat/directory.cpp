#include "directory.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>

namespace ssat {

namespace {

constexpr char lock_name[] = ".lock"; // no module's: a leading dot is escaped

bool is_plain(char c)
{
    return c > ' ' && c < 0x7f && c != '/' && c != '%';
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool is_own_directory(const char *path)
{
    struct stat status;
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid();
}

std::optional<sockaddr_un> address_of(int directory, const std::string &file_name)
{
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + '/' + file_name;
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// Held while a socket is examined and replaced, so that two processes that start together do not remove each other's.
// A stopped process must not hold up the others: they give up after half a second.
owned_fd lock(int directory)
{
    owned_fd file(openat(directory, lock_name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    constexpr timespec pause{0, 10000000};
    for (int attempt = 0; file && flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK || attempt == 50)
            return owned_fd();
        nanosleep(&pause, nullptr);
    }
    return file;
}

// True when the name is free, a dead process's socket having been removed.
bool make_room(int directory, const std::string &file_name)
{
    struct stat status;
    if (fstatat(directory, file_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (!S_ISSOCK(status.st_mode) || connect_to(directory, file_name, SOCK_NONBLOCK) || errno != ECONNREFUSED)
        return false;
    return unlinkat(directory, file_name.c_str(), 0) == 0;
}

owned_fd listen_at(int directory, const std::string &file_name)
{
    constexpr int backlog = 16;
    owned_fd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto address = address_of(directory, file_name);
    if (!socket_fd || !address)
        return owned_fd();
    // The mode set before bind() is the mode that the name gets: there is no moment in which others could connect.
    if (fchmod(socket_fd.get(), 0600) != 0 ||
        bind(socket_fd.get(), reinterpret_cast<const sockaddr *>(&*address), sizeof *address) != 0 ||
        listen(socket_fd.get(), backlog) != 0)
        return owned_fd();
    return socket_fd;
}

} // namespace

std::string escape(std::string_view module)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string name;
    for (const char c : module) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_plain(c) && !(c == '.' && name.empty()))
            name += c;
        else
            name += {'%', digits[byte >> 4], digits[byte & 15]};
    }
    return name;
}

std::string unescape(std::string_view file_name)
{
    std::string module;
    for (size_t i = 0; i < file_name.size(); ++i) {
        const bool escaped = file_name[i] == '%' && i + 2 < file_name.size() && hex_digit(file_name[i + 1]) >= 0 &&
                             hex_digit(file_name[i + 2]) >= 0;
        module +=
            escaped ? static_cast<char>(hex_digit(file_name[i + 1]) * 16 + hex_digit(file_name[i + 2])) : file_name[i];
        i += escaped ? 2 : 0;
    }
    return module;
}

std::string directory_path()
{
    if (const char *chosen = secure_getenv("PLX_SHELL_DIR"); chosen && *chosen)
        return chosen;
    if (geteuid() == 0)
        return "/run/plx";
    if (const char *runtime = secure_getenv("XDG_RUNTIME_DIR"); runtime && is_own_directory(runtime))
        return std::string(runtime) + "/plx";
    return "/tmp/plx-" + std::to_string(geteuid());
}

owned_fd open_directory(bool create)
{
    const std::string path = directory_path();
    if (create && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return owned_fd();
    owned_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!directory || fstat(directory.get(), &status) != 0)
        return owned_fd();
    const bool ours = status.st_uid == geteuid() || (!create && geteuid() == 0);
    if (ours && (status.st_mode & 077) == 0)
        return directory;
    errno = EPERM;
    return owned_fd();
}

owned_fd connect_to(int directory, const std::string &file_name, int flags)
{
    owned_fd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    const auto address = address_of(directory, file_name);
    if (!socket_fd || !address)
        return owned_fd();
    if (connect(socket_fd.get(), reinterpret_cast<const sockaddr *>(&*address), sizeof *address) != 0)
        return owned_fd();
    return socket_fd;
}

owned_fd listen_as(int directory, std::string_view module, std::string &file_name)
{
    const std::string name = escape(module);
    const owned_fd held = lock(directory);
    if (!held || !address_of(directory, name))
        return owned_fd();
    for (const std::string &candidate : {name, name + '@' + std::to_string(getpid())}) {
        if (!make_room(directory, candidate))
            continue;
        file_name = candidate;
        return listen_at(directory, candidate);
    }
    errno = EADDRINUSE;
    return owned_fd();
}

} // namespace ssat
