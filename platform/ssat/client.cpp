// The client's end of the debug shell: who is alive, and one line and its answer at a time.
//
// An answer comes from another process and is not trusted: its header must have the documented shape, and no more is
// taken than the header announced. A module that stays silent is given up after a bounded time.
#include "ssat_client.h"

#include "directory.hpp"
#include "platform/guard.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::chrono::milliseconds longest_silence{10000};
constexpr size_t longest_header = 64;

struct header {
    int status;
    uint64_t length;
    bool cut;
};

std::optional<int> status_of(std::string_view word)
{
    constexpr std::string_view names[] = {"ok", "failed", "usage", "unknown", "denied"};
    const auto found = std::ranges::find(names, word);
    if (found == std::end(names))
        return std::nullopt;
    return static_cast<int>(found - std::begin(names));
}

std::optional<header> parse_header(std::string_view line)
{
    const size_t blank = std::min(line.find(' '), line.size());
    const std::optional<int> status = status_of(line.substr(0, blank));
    if (!status || blank == line.size())
        return std::nullopt;
    header header{*status, 0, false};
    const char *const end = line.data() + line.size();
    const auto [rest, error] = std::from_chars(line.data() + blank + 1, end, header.length);
    header.cut = std::string_view(rest, static_cast<size_t>(end - rest)) == " cut";
    if (error != std::errc() || (rest != end && !header.cut))
        return std::nullopt;
    return header;
}

// A signal makes the wait no longer.
bool wait_for(int fd, short events)
{
    using namespace std::chrono;
    pollfd waited{fd, events, 0};
    const auto end = steady_clock::now() + longest_silence;
    int ready = -1;
    for (auto left = longest_silence; ready < 0; left = ceil<milliseconds>(end - steady_clock::now())) {
        ready = poll(&waited, 1, static_cast<int>(std::max(left, 0ms).count()));
        if (ready < 0 && errno != EINTR)
            return false;
    }
    if (ready == 0)
        errno = ETIMEDOUT;
    return ready > 0;
}

bool try_again()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

bool send_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        if (!wait_for(fd, POLLOUT))
            return false;
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && !try_again())
            return false;
        text.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
    }
    return true;
}

// Reads up to `size` bytes; 0 on failure, an ended connection being one.
size_t receive(int fd, char *buffer, size_t size)
{
    while (wait_for(fd, POLLIN)) {
        const ssize_t got = recv(fd, buffer, size, MSG_DONTWAIT);
        if (got > 0)
            return static_cast<size_t>(got);
        if (got == 0)
            errno = ECONNRESET;
        if (got == 0 || !try_again())
            break;
    }
    return 0;
}

std::optional<header> receive_header(int fd)
{
    char line[longest_header];
    for (size_t size = 0; size < sizeof line; ++size) {
        if (receive(fd, line + size, 1) == 0)
            return std::nullopt;
        if (line[size] != '\n')
            continue;
        errno = EPROTO;
        return parse_header({line, size});
    }
    errno = EPROTO;
    return std::nullopt;
}

bool alive(int directory, const char *file_name)
{
    return ssat::connect_to(directory, file_name, SOCK_NONBLOCK) || errno == EAGAIN;
}

bool valid_line(std::string_view line)
{
    return line.find('\n') == line.npos && line.find_first_not_of(" \t\r") != line.npos;
}

} // namespace

int ssat_client_modules(void (*func)(const char *module, void *arg), void *arg)
try {
    ssat::owned_fd directory = ssat::open_directory(false);
    if (!directory)
        return errno == ENOENT ? 0 : errno;
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(fdopendir(directory.get()), closedir);
    if (!entries)
        return errno;
    const int fd = directory.release(); // the listing's from here on
    while (const dirent *entry = readdir(entries.get()))
        if (entry->d_name[0] != '.' && alive(fd, entry->d_name))
            func(ssat::unescape(entry->d_name).c_str(), arg);
    return 0;
} catch (...) {
    return platform::thrown_error();
}

int ssat_client_connect(const char *module)
try {
    if (!module || !*module) {
        errno = EINVAL;
        return -1;
    }
    const ssat::owned_fd directory = ssat::open_directory(false);
    if (!directory)
        return -1;
    return ssat::connect_to(directory.get(), ssat::escape(module), SOCK_NONBLOCK).release();
} catch (...) {
    return platform::thrown_errno(-1);
}

int ssat_client_run(int fd, const char *line, void (*func)(const char *text, size_t size, void *arg), void *arg,
                    int *cut)
try {
    if (!line || !valid_line(line)) {
        errno = EINVAL;
        return -1;
    }
    // A module that refuses this user has answered and closed before the line is sent.
    if (!send_all(fd, std::string(line) + '\n') && errno != EPIPE)
        return -1;
    const std::optional<header> header = receive_header(fd);
    if (!header)
        return -1;
    char buffer[16384];
    for (uint64_t left = header->length; left > 0;) {
        const size_t got = receive(fd, buffer, static_cast<size_t>(std::min<uint64_t>(left, sizeof buffer)));
        if (got == 0)
            return -1;
        if (func)
            func(buffer, got, arg);
        left -= got;
    }
    if (cut)
        *cut = header->cut;
    return header->status;
} catch (...) {
    return platform::thrown_errno(-1);
}
