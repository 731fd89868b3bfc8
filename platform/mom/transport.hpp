// What carries a connection's bytes: the socket itself, or TLS on it.
//
// 1. Nothing here waits. What cannot go on now says for which of the descriptor's events it waits (`needs`, of poll):
//    with TLS reading may have to write, and writing to read.
// 2. Bytes may have come off the descriptor without having been received: as long as pending() says so, nobody may wait
//    for the descriptor.
// 3. No signal comes of a peer that went away.
// 4. A transport that ended is of no more use. The descriptor is its owner's.
#ifndef TQ_MOM_TRANSPORT_HPP
#define TQ_MOM_TRANSPORT_HPP

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <tq_mom.h>
#include <utility>

namespace mom {

constexpr ssize_t transport_ended = -1;

/// Of a call on the socket that failed: it may go well the next time.
inline bool later()
{
    return errno == EAGAIN || errno == EINTR;
}

/// Why there is no connection, or none any more.
struct trouble {
    int result = TQ_MOM_DISCONNECTED;
    std::string text{}; ///< for the system log, where there is more to say than the result does
};

class transport {
  public:
    virtual ~transport() = default;
    /// How many bytes were moved; 0 when none can be now, or transport_ended.
    [[nodiscard]] virtual ssize_t send(std::string_view bytes, short &needs) = 0;
    /// Fills as much of the buffer as there is: less than all of it means that nothing more is there.
    [[nodiscard]] virtual ssize_t receive(char *into, size_t room, short &needs) = 0;
    virtual bool pending() const = 0;
    /// True when the peer is still there and has not said anything unasked.
    virtual bool quiet() = 0;
    /// Why it ended.
    const mom::trouble &trouble() const { return trouble_; }

  protected:
    ssize_t end(int result, std::string text)
    {
        trouble_ = {result, std::move(text)};
        return transport_ended;
    }

  private:
    mom::trouble trouble_;
};

/// The socket itself.
std::unique_ptr<transport> make_plain_transport(int fd);

} // namespace mom

#endif
