// See listening.hpp.
#include "metrics/listening.hpp"

#include "attribute_value.hpp"
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace plx::tool {

namespace {

constexpr int waiting_guests = 64; // in the kernel

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo *)>;

int stream(int family)
{
    return socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Closes what it could not bind, with the reason.
Listening begun(Listening listening, const sockaddr *address, socklen_t size)
{
    if (listening.fd >= 0 && bind(listening.fd, address, size) == 0 && listen(listening.fd, waiting_guests) == 0)
        return listening;
    listening.error = std::strerror(errno);
    if (listening.fd >= 0)
        close(listening.fd);
    listening.fd = -1;
    return listening;
}

// A socket in the file system outlives its server.
bool is_abandoned(const sockaddr_un &address)
{
    struct stat file {};
    if (lstat(address.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode))
        return false;
    const int fd = stream(AF_UNIX);
    const bool refused =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 && errno == ECONNREFUSED;
    close(fd);
    return refused;
}

Listening at_path(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return {.error = "a socket's path has 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes"};
    path.copy(address.sun_path, path.size());
    if (is_abandoned(address))
        unlink(address.sun_path);
    const mode_t before = umask(0117);
    Listening listening = begun({.fd = stream(AF_UNIX)}, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(before);
    if (listening.fd >= 0)
        listening.path = path;
    return listening;
}

bool is_loopback(const sockaddr &address)
{
    if (address.sa_family == AF_INET)
        return ntohl(reinterpret_cast<const sockaddr_in &>(address).sin_addr.s_addr) >> 24U == IN_LOOPBACKNET;
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr) != 0;
}

bool is_port(const std::string &text)
{
    uint64_t port = 0;
    return parse_number(text, port) && port != 0 && port <= UINT16_MAX;
}

// "[::1]" and "::1" are the same host; none is the loopback.
std::string host_of(const std::string &where, size_t colon)
{
    std::string host = colon == std::string::npos ? "localhost" : where.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        return host.substr(1, host.size() - 2);
    return host == "localhost" ? "127.0.0.1" : host;
}

Listening at_port(const std::string &where)
{
    const size_t colon = where.rfind(':');
    const std::string port = where.substr(colon == std::string::npos ? 0 : colon + 1);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (!is_port(port) || getaddrinfo(host_of(where, colon).c_str(), port.c_str(), &hints, &found) != 0)
        return {.error = "it is PORT, ADDRESS:PORT or unix:/path, the address in numbers"};
    const Addresses addresses(found, freeaddrinfo);
    Listening listening{.fd = stream(found->ai_family), .beyond = !is_loopback(*found->ai_addr)};
    const int on = 1;
    setsockopt(listening.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (found->ai_family == AF_INET6)
        setsockopt(listening.fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    return begun(std::move(listening), found->ai_addr, found->ai_addrlen);
}

} // namespace

Listening listen_at(const std::string &where)
{
    constexpr std::string_view scheme = "unix:";
    return where.starts_with(scheme) ? at_path(where.substr(scheme.size())) : at_port(where);
}

} // namespace plx::tool
