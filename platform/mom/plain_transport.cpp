// See transport.hpp.
#include "transport.hpp"

#include <poll.h>
#include <sys/socket.h>

namespace mom {
namespace {

class plain_transport : public transport {
  public:
    explicit plain_transport(int fd) : fd_(fd) {}

    ssize_t send(std::string_view bytes, short &needs) override
    {
        needs = POLLOUT;
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0)
            return later() ? 0 : ended();
        return sent;
    }

    ssize_t receive(char *into, size_t room, short &needs) override
    {
        needs = POLLIN;
        const ssize_t size = recv(fd_, into, room, MSG_DONTWAIT);
        if (size < 0)
            return later() ? 0 : ended();
        return size == 0 ? ended() : heard(*into, size);
    }

    bool pending() const override { return false; }

    bool quiet() override
    {
        char byte = 0;
        return recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && later();
    }

  private:
    ssize_t ended()
    {
        return first_ ? end(TQ_MOM_DISCONNECTED, "it ends the connection instead of answering") : transport_ended;
    }

    // No answer begins like an alert of TLS.
    ssize_t heard(char first, ssize_t size)
    {
        constexpr char alert = 0x15;
        if (first_ && first == alert)
            return end(TQ_MOM_TLS_EXPECTED, {});
        first_ = false;
        return size;
    }

    const int fd_;
    bool first_ = true;
};

} // namespace

std::unique_ptr<transport> make_plain_transport(int fd)
{
    return std::make_unique<plain_transport>(fd);
}

} // namespace mom
