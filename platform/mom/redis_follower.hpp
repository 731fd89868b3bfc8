// The tables that a reader follows: what to ask for, and what the answers are worth.
//
// 1. A table is followed from where its log stands when it is first subscribed to: it gets a feed (redis_feed) and an
//    audience (redis_delivery).
// 2. A question names the logs and asks for what is behind each feed's cursor. An answer's entries go to their feeds,
//    and what is new from there to delivery.
// 3. After each reconnection every feed's history is compared with the server's.
// 4. What a feed cannot have (a gap, another history) is told to delivery as lost, and the feed goes on from where the
//    log stands.
// 5. A table that cannot be read is set aside, and looked at again until it can.
// 6. How far each table was read is told to the store now and then, so that its log is kept from there on; no longer
//    than a while without being told again.
//
// Asks its own questions on the connection for calls. Knows neither the connection that waits for changes nor a clock.
#ifndef TQ_MOM_REDIS_FOLLOWER_HPP
#define TQ_MOM_REDIS_FOLLOWER_HPP

#include "redis_delivery.hpp"
#include "redis_feed.hpp"

#include <chrono>

namespace mom {

/// The server answers a question after so long, whether there is a change or not.
constexpr std::chrono::milliseconds longest_wait{4000};

class redis_follower {
  public:
    redis_follower(redis_calls &calls, redis_delivery &delivery) : calls_(calls), delivery_(delivery) {}

    bool follows() const { return !tables_.empty(); }
    /// `added`: the table was not followed so far.
    [[nodiscard]] int subscribe(redis_table &table, const key_range &range, change_sink &sink, bool &added);

    enum class scope : uint8_t { nothing, busy, all };
    /// Puts a question into the buffer, unless there is nothing to ask: the server holds it for as long as `wait`. With
    /// a `busy_wait` it names only the logs that have told something since all were asked, if any has, and waits for
    /// them no longer than that.
    scope question(command_buffer &into, unsigned entries, std::chrono::milliseconds wait,
                   std::chrono::milliseconds busy_wait);
    /// Takes the latest question's answer in; false when it is none.
    bool accept(reply_view reply);

    /// Compares all histories with the server's.
    [[nodiscard]] int settle();
    /// Whether a table that is set aside can be read again: settle() takes it in.
    bool any_whole_again();
    /// The same for all tables while the connection lasts; `parted`: a question that was asked is of another history.
    [[nodiscard]] int compare(bool &parted);

    /// Tells how far each table was read, those alone whose number has moved by so much.
    void say_where(uint64_t moved);
    /// Takes that back.
    void leave();
    /// Tells those who follow answers that they are of another history: what these are to was lost.
    [[nodiscard]] int lose_answers();
    /// Gives up what cannot be taken in: all that was not read yet is lost.
    [[nodiscard]] int step_over();

  private:
    struct followed {
        redis_audience &audience;
        redis_feed feed;
        uint64_t heard = 0;             ///< number of the question that was told its latest change
        std::optional<uint64_t> said{}; ///< up to here it was read, as the store knows
        redis_table &table() const { return audience.table; }
    };

    followed *find(std::string_view log);
    bool goes_first(const followed &of) const;
    [[nodiscard]] int position(const redis_table &table, log_position &out);
    struct facts {
        bool latest; ///< change of the log
        bool state;
    };
    [[nodiscard]] int ask_position(const redis_table &table, facts what);
    [[nodiscard]] int stands(facts what, log_position &out);
    bool accept_stream(reply_view stream);
    bool accept_entry(followed &of, const log_entry &entry, bool ours);
    [[nodiscard]] int settle(followed &of);
    [[nodiscard]] int compare_more(followed &of, redis_feed::history &found);
    void lose(followed &of, uint64_t base, const log_position &now, int reason = TQ_MOM_OK);
    void refuse_in_silence();

    redis_calls &calls_;
    redis_delivery &delivery_;
    std::vector<std::unique_ptr<followed>> tables_; ///< in the order of their first subscriptions
    unsigned entries_ = 0;                          ///< of each log that were asked for
    uint64_t questions_ = 0;
    std::optional<uint64_t> refused_; ///< the connection on which this reader may not tell where it is
    uint64_t whole_question_ = 0;     ///< number of the latest that asked for all logs
};

} // namespace mom

#endif
