// The way to a server: where it is, who we are there, and when to try again.
//
// A link keeps the connection that calls use and opens the one for changes beside it. While the server is away,
// attempts are paced (50 ms doubling to 2 s) and everything in between fails at once with the reason of the last
// attempt. Whoever keeps what was read on a connection compares generation(), which no two connections share.
#ifndef TQ_MOM_REDIS_LINK_HPP
#define TQ_MOM_REDIS_LINK_HPP

#include "redis_connection.hpp"

namespace mom {

/// Who has another connection to the same server, and something to ask on it soon. A call that is waited for can leave
/// together with that: the server, which wakes up for every send, wakes up once.
class connection_lender {
  public:
    /// Null when there is nothing to ask; else `behind` is to follow the call, whose answers come on this connection.
    virtual redis_connection *lend(std::string_view &behind) = 0;
    /// The call was answered, or what became of the connection.
    virtual void take_back(int result) = 0;

  protected:
    ~connection_lender() = default;
};

class redis_link {
  public:
    explicit redis_link(store_url url) : url_(std::move(url)) {}
    /// The lender outlives the link's last call.
    void set_lender(connection_lender *lender) { lender_ = lender; }

    /// Connects when there is no connection and an attempt is due.
    int ensure();
    /// One exchange on the connection, which is dropped when that fails. Does not reconnect.
    int exchange(const command_buffer &commands);
    /// Sends commands whose answers receive() takes later, before any exchange and also when sending failed. `at_once`:
    /// receive() is the next call.
    int send(std::string_view commands, size_t answers, bool at_once);
    /// The answers to all that was sent so; those that came before the connection failed are among them.
    int receive(reply_tape &into, size_t &complete);
    bool has_replies() const { return connection_ != nullptr && connection_->tape().size() > 0; }
    /// The answers of the last exchange, of which there are some.
    reply_view replies() const { return connection_->replies(); }
    /// Takes the answers out, for a caller whose callbacks make calls of their own.
    void take_replies(reply_tape &into) { std::swap(into, connection_->tape()); }
    /// An answer's result; a replica's refusal makes a link that asks sentinels look for the master again.
    int judge(reply_view reply);

    bool connected() const { return connection_ != nullptr && (outstanding_ > 0 || connection_->quiet()); }
    uint64_t generation() const { return generation_; }
    void drop()
    {
        connection_.reset();
        outstanding_ = 0;
    }

    /// One more connection to the same server; null, with `result` telling why, when that fails.
    std::unique_ptr<redis_connection> open(int &result);
    /// How long until the next attempt is due.
    std::chrono::milliseconds pause() const;

  private:
    void end_loan(int result);
    std::unique_ptr<redis_connection> open_at(const endpoint &where, int &result);
    bool ask_sentinels(endpoint &master);
    int log_in(redis_connection &connection);
    bool read_password(std::string &password) const;
    void note(int result);
    void warn_about_server();

    store_url url_;
    std::unique_ptr<redis_connection> connection_;
    size_t outstanding_ = 0; ///< answers that receive() is to take
    connection_lender *lender_ = nullptr;
    redis_connection *lent_ = nullptr; ///< where these are to come
    bool last_was_lent_ = false;
    std::string with_behind_;
    uint64_t generation_ = 0;
    steady_time last_use_{};
    bool warned_ = false;
    std::chrono::milliseconds back_off_{0};
    steady_time next_attempt_{};
    int last_failure_ = 0;
};

} // namespace mom

#endif
