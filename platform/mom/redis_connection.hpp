// One connection to a server: bytes out, replies in, each bounded by a deadline.
//
// 1. It is opened, and with TLS made secure (transport.hpp), within the URL's time, for a redis_link (calls) or, by
//    way of one, for the reader of changes.
// 2. What is sent is gone when send() returns. Replies are put on a tape in the order in which they come; who sent
//    knows what each of them answers.
// 3. Who waits for a reply polls for a moment, yielding the CPU, before it sleeps: the answer is mostly there sooner
//    than a wake-up would take. Who does not wait takes in what has arrived, and parses it reply by reply.
// 4. A connection on which anything went wrong, a missed deadline included, is of no more use: an answer that comes
//    late must not be taken for the next call's. Its owner drops it, which closes it.
#ifndef TQ_MOM_REDIS_CONNECTION_HPP
#define TQ_MOM_REDIS_CONNECTION_HPP

#include "redis_command.hpp"
#include "redis_reply.hpp"
#include "tls_transport.hpp"
#include "url.hpp"

#include <chrono>

namespace mom {

using steady_time = std::chrono::steady_clock::time_point;

struct context_closer {
    void operator()(redisContext *context) const { redisFree(context); }
};

class redis_connection {
  public:
    /// Connects to a socket path (no port) or numeric address within the URL's time; null, and why, when that fails.
    /// With TLS the server's certificate must be for `name`.
    static std::unique_ptr<redis_connection> open(const endpoint &where, const std::string &name, const store_url &url,
                                                  trouble &why);
    /// The same in steps, for who does not wait: begins, null when that fails at once; then, whenever the descriptor is
    /// ready for what it needs, which is to write at first, goes on: 1 established, 0 not yet, or transport_ended.
    static std::unique_ptr<redis_connection> begin(const endpoint &where, const store_url &url);
    [[nodiscard]] int establish(const std::string &name, const store_url &url, short &needs, trouble &why);
    /// Logged in at that server; from now on an exchange may take so long.
    void use(const endpoint &server, uint32_t timeout_ms)
    {
        server_ = server;
        timeout_ = std::chrono::milliseconds(timeout_ms);
    }
    const endpoint &server() const { return server_; }

    int fd() const { return context_->fd; }
    /// TQ_MOM_OK, or what ended the connection.
    [[nodiscard]] int send(std::string_view bytes, steady_time deadline);
    /// Takes in replies until `count` more are on the tape; `complete` counts them, also when it fails on the way.
    [[nodiscard]] int receive(size_t count, steady_time deadline, size_t &complete, size_t limit = SIZE_MAX);
    /// Sends, clears the tape and receives the answers.
    [[nodiscard]] int exchange(const command_buffer &commands);

    /// Takes in what has arrived without waiting; false when the connection ended, or sends more than will be taken.
    bool take_in();
    /// True when there is more of what was taken in than was parsed.
    bool has_input() const { return reader_->pos < reader_->len || transport_->pending(); }
    /// Parses one reply of what was taken in: 1 it is on the tape, 0 not yet complete, -1 not understood.
    [[nodiscard]] int parse();
    /// True when the peer is still there and has not said anything unasked.
    bool quiet() const { return transport_->quiet(); }
    /// Why it ended, once a call has said that it did.
    const trouble &ended() const { return transport_->trouble(); }
    /// Whether what is sent leaves this machine.
    bool leaves_host() const;

    reply_tape &tape() { return tape_; }
    reply_view replies() const { return {tape_, 0}; }

  private:
    redis_connection(redisContext *context, const store_url &url);
    bool connects() const;
    bool wait(short events, steady_time deadline) const;
    [[nodiscard]] int await_input(steady_time deadline);
    ssize_t read_once(short &needs);

    std::unique_ptr<redisContext, context_closer> context_;
    std::unique_ptr<transport> transport_;
    std::unique_ptr<tls_transport> rising_; ///< until its handshake is done
    reply_tape tape_;
    reader_ptr reader_;
    endpoint server_{};
    std::chrono::milliseconds timeout_;
    std::chrono::microseconds spin_;
    bool early_ = true; ///< the last answer that was looked for before waiting was there
    unsigned waits_ = 0;
};

} // namespace mom

#endif
