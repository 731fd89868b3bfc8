// The way to a server: where it is, who we are there, and when to try again.
//
// 1. ensure() makes the connection that calls use, where there is none, or none any more; it logs in, and warns once of
//    what an operator should know. generation() tells connections apart: what was read on one may not hold on the next.
// 2. Calls are exchanges, or sent and received separately. A failed one drops the connection.
// 3. While the server is away, attempts are paced (50 ms doubling to 2 s, at least nine times what one took) and
//    everything in between fails at once with the reason of the last attempt. Where connecting went well before, a step
//    of an attempt stands still for four times what the whole took then, or a tenth of `timeout`, and for longer after
//    a few in vain.
// 4. With sentinels, a replica's refusal drops the connection, and the next attempt asks them for the master: first the
//    one that answered last. So does a sentinel's word that there is another one.
// 5. Where the address asks for replicas, a write has succeeded when so many have it (await_replicas). After one that
//    had not, writes of the same connection fail at once for nine times what was waited: the server gets them, and is
//    not asked.
//
// The connection for changes is opened here, too, and belongs to its reader.
#ifndef TQ_MOM_REDIS_LINK_HPP
#define TQ_MOM_REDIS_LINK_HPP

#include "name_lookup.hpp"
#include "redis_connection.hpp"

#include <tq_mom.h>

namespace mom {

/// What leaves together with a call that is waited for: a question on another connection to the same server, which
/// takes the call along in front of it. The server, which wakes up for every send, wakes up once.
struct ride {
    redis_connection *on = nullptr; ///< null: the call goes alone
    std::string_view question;
};

class redis_link {
  public:
    redis_link(store_url url, tq_mom_counters &counters) : url_(std::move(url)), counters_(counters) {}

    /// Connects when there is no connection and an attempt is due.
    [[nodiscard]] int ensure();
    /// One exchange on the connection, which is dropped when that fails. Does not reconnect.
    [[nodiscard]] int exchange(const command_buffer &commands);
    /// Sends commands whose answers receive() takes later, before any exchange and also when sending failed. What rides
    /// along with them does so when they are the first, and receive() is the next call.
    [[nodiscard]] int send(std::string_view commands, size_t answers, const ride &along = {});
    /// The answers to all that was sent so; those that came before the connection failed are among them. The answer to
    /// the question that rode along is left on its connection.
    [[nodiscard]] int receive(reply_tape &into, size_t &complete, const ride &along = {}, size_t limit = SIZE_MAX);
    /// The answers of the last exchange, of which there are some.
    reply_view replies() const { return connection_->replies(); }
    /// Takes the answers out, for a caller whose callbacks make calls of their own.
    void take_replies(reply_tape &into) { std::swap(into, connection_->tape()); }
    /// Whether writes are to be confirmed by replicas, and whether enough have all that was sent on the connection.
    bool wants_replicas() const { return url_.wait_replicas > 0; }
    [[nodiscard]] int await_replicas();
    /// An answer's result; a replica's refusal makes a link that asks sentinels look for the master again.
    [[nodiscard]] int judge(reply_view reply);

    bool up() const { return connection_ != nullptr; }
    /// The same, after a look whether the server is still there.
    bool connected() const { return connection_ != nullptr && (outstanding_ > 0 || connection_->quiet()); }
    uint64_t generation() const { return generation_; }
    void drop()
    {
        elsewhere_ = false;
        connection_.reset();
        outstanding_ = 0;
    }

    /// One more connection to the same server; null, with `result` telling why, when that fails.
    std::unique_ptr<redis_connection> open(int &result);
    const store_url &url() const { return url_; }
    /// What logs in at a sentinel, where there is anything.
    [[nodiscard]] int greet_sentinel(command_buffer &commands) const;
    /// A sentinel says where the master is: unless that is known, the next attempt is due, and asks that sentinel.
    void told_of_master(const endpoint &master, const endpoint &sentinel);
    /// Whether the connection is given up for that at its next use, or is to another server than that one.
    bool elsewhere(const redis_connection &than) const
    {
        return elsewhere_ || (connection_ != nullptr && connection_->server() != than.server());
    }
    /// How long until the next attempt is due.
    std::chrono::milliseconds pause() const;

  private:
    std::unique_ptr<redis_connection> connect(const endpoint &where, const store_url &how, trouble &why);
    std::unique_ptr<redis_connection> open(const store_url &how, int &result);
    std::unique_ptr<redis_connection> open_at(const endpoint &where, const store_url &how, int &result);
    [[nodiscard]] int ask_sentinels(const store_url &how, endpoint &master);
    [[nodiscard]] int ask_sentinel(const endpoint &sentinel, const store_url &how, const command_buffer &question,
                                   endpoint &master);
    store_url patient() const;
    void ask_first(const endpoint &sentinel);
    [[nodiscard]] int log_in(redis_connection &connection);
    [[nodiscard]] bool serves_strangers();
    void note(int result, std::chrono::milliseconds took);
    void warn_about_server();
    [[nodiscard]] int explain(const endpoint &where, const trouble &why);
    [[nodiscard]] int try_other_way(const endpoint &where, int result);

    store_url url_;
    tq_mom_counters &counters_;
    std::unique_ptr<redis_connection> connection_;
    size_t outstanding_ = 0; ///< answers that receive() is to take
    std::string with_question_;
    uint64_t generation_ = 0;
    steady_time last_use_{};
    name_lookup names_;
    bool elsewhere_ = false; ///< the master is another server
    bool warned_ = false;
    bool replicas_lag_ = false; ///< too few had what was asked about last
    steady_time next_wait_{};   ///< nobody is asked before
    std::string told_;          ///< the trouble that was told last, until a connection succeeds
    std::chrono::milliseconds back_off_{0};
    std::chrono::milliseconds usual_{0}; ///< what the last attempt took that went well
    unsigned in_vain_ = 0;               ///< attempts since then
    steady_time next_attempt_{};
    int last_failure_ = 0;
};

} // namespace mom

#endif
