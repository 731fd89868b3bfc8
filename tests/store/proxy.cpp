// See proxy.hpp.
#include "proxy.hpp"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

} // namespace

proxy::proxy(std::string server, std::string socket)
    : server_(std::move(server)), socket_(std::move(socket)),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const auto address = address_of(socket_);
    bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    listen(listener_, 16);
    thread_ = std::thread([this] { run(); });
}

proxy::~proxy()
{
    ending_ = true;
    thread_.join();
    cut();
    close(listener_);
}

void proxy::run()
{
    while (!ending_) {
        std::vector<pollfd> watched{{listener_, POLLIN, 0}};
        for (const auto &each : pairs_) {
            watched.push_back({each.client, POLLIN, 0});
            watched.push_back({each.server, POLLIN, 0});
        }
        if (poll(watched.data(), watched.size(), 5) <= 0)
            continue;
        bool whole = true;
        for (size_t i = 0; i < pairs_.size() && whole; ++i) {
            whole = watched[1 + 2 * i].revents == 0 || pass(pairs_[i].client, pairs_[i].server, false);
            whole = whole && (watched[2 + 2 * i].revents == 0 || pass(pairs_[i].server, pairs_[i].client, true));
        }
        if (!whole)
            cut();
        if (watched[0].revents != 0)
            admit();
    }
}

void proxy::admit()
{
    const pair added{accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC),
                     ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const auto address = address_of(server_);
    connect(added.server, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    pairs_.push_back(added);
}

// False when the connection has ended or is to be cut.
bool proxy::pass(int from, int to, bool answer)
{
    char bytes[4096];
    const ssize_t size = read(from, bytes, sizeof bytes);
    if (size <= 0)
        return false;
    const size_t allowed = answer ? std::min(static_cast<size_t>(size), left_.load()) : static_cast<size_t>(size);
    if (answer && left_ != SIZE_MAX)
        left_ -= allowed;
    return write(to, bytes, allowed) == size;
}

void proxy::cut()
{
    for (const auto &each : pairs_) {
        close(each.client);
        close(each.server);
    }
    pairs_.clear();
    left_ = SIZE_MAX;
}
