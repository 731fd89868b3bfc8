// The reader of change logs: one connection of its own, on which a blocking XREAD over all followed logs is
// outstanding.
//
// A feed follows one table's log by number, for all subscriptions to that table. Numbers have no gaps, so a gap means
// that the log was trimmed past the feed; after every reconnection the log's epoch, its last number and the entries
// seen last are compared, so a server that came back with an older or another history is noticed, too. Then requested
// state is told to scan again, and of other tables the records whose stamp is beyond what was seen are delivered, in
// the order of their writing. A feed whose table is damaged or not ours to read is set aside, so that the others go on,
// and looked at again every second.
//
// While some logs tell changes, the others are asked for every 2 milliseconds.
//
// Who answers what it hears asks for more in the loop's next turn, or along with a call that is made before: see
// redis_link.hpp. Who only listens asks at most once in a millisecond while changes keep coming, so that a stream of
// writes is not slowed down by waking a reader for each of them.
//
// Entries go from the connection to a queue, and from there to callbacks in rounds of bounded size. Subscriptions and
// feeds are only ever added, and walked by position: a callback may subscribe.
#ifndef TQ_MOM_REDIS_CHANGES_HPP
#define TQ_MOM_REDIS_CHANGES_HPP

#include "loop_bell.hpp"
#include "redis_calls.hpp"

#include <deque>
#include <optional>

namespace mom {

class redis_changes {
  public:
    redis_changes(redis_calls &calls, tq_thread_master *master);
    ~redis_changes();
    redis_changes(const redis_changes &) = delete;
    redis_changes &operator=(const redis_changes &) = delete;

    int subscribe(redis_table &table, const key_range &range, change_sink &sink);
    /// What a call may take along now: nothing, or a question, of which rode() tells whether it arrived.
    ride offer();
    void rode(const ride &along, bool arrived);

  private:
    struct subscriber {
        key_range range;
        change_sink &sink;
        uint64_t start; ///< changes up to this number came before the subscription
    };
    /// The records to deliver in place of changes that the log lost: those stamped above `base`, up to `last`.
    struct recovery {
        uint64_t base;
        uint64_t last;
        std::string after;
        bool listed = false;
        std::deque<std::pair<uint64_t, std::string>> found; ///< in the order of writing once all are listed
    };
    struct feed {
        redis_table &table;
        std::string epoch;
        uint64_t cursor = 0;           ///< number of the latest change taken in
        std::deque<size_t> identities; ///< of the latest changes taken in, up to `cursor`
        std::vector<subscriber> subscribers;
        std::optional<recovery> lost;
        steady_time heard{}; ///< when what told its latest change was asked
        bool aside = false;  ///< not read: the table is damaged
    };
    struct queued {
        feed &of;
        change_kind kind;
        uint64_t number;
        std::string key;
        std::string body;
        bool echo;
    };

    // The connection.
    int connect();
    void disconnect();
    void reconnect_in(std::chrono::milliseconds pause);
    bool build_request();
    void request();
    void request_in_time();
    void request_after(std::chrono::milliseconds pause);
    void nudge();
    static void on_readable(tq_loop_watch *watch, int fd, int events, void *arg);
    template <void (redis_changes::*Step)(), void (redis_changes::*Failed)()> static int on_timer(tq_thread *timer);
    void reconnect();
    void reconnect_later();
    void nudge_again();
    void leave_it() {} ///< the next answer brings the feed in
    void take_in();
    void take_answer();
    bool goes_first(const feed &of) const;
    bool accept(reply_view reply);
    bool accept_stream(reply_view stream);
    bool accept_entry(feed &of, const log_entry &entry, bool ours);

    // Histories.
    feed *find_feed(std::string_view log);
    int add_subscriber(redis_table &table, const key_range &range, change_sink &sink);
    void remember(feed &of, size_t identity);
    int settle(feed &of);
    int settle_or_set_aside(feed &of);
    bool set_aside(feed &of, int result);
    void look_again();
    void look_again_later();
    int position(const redis_table &table, log_position &out);
    int common_history(feed &of, uint64_t last, uint64_t &common);
    void lose(feed &of, uint64_t base, const log_position &now);

    // Delivery.
    static void on_bell(tq_loop_watch *watch, int fd, int events, void *arg);
    void round();
    bool deliver_next();
    void deliver(feed &of, uint64_t number, const change &change);
    bool recover(feed &of);
    int list_lost(feed &of);
    int deliver_lost(feed &of);

    redis_calls &calls_;
    tq_thread_master *master_;
    std::unique_ptr<redis_connection> connection_;
    tq_loop_watch *watch_ = nullptr;
    std::string client_id_;
    unsigned entries_asked_ = 128; ///< of each log; fewer while the server drops us over its answers
    bool outstanding_ = false;     ///< an XREAD is waiting in the server
    bool stale_ = false;           ///< and lacks a feed that was added since
    tq_thread *reconnect_timer_ = nullptr;
    tq_thread *nudge_timer_ = nullptr;
    tq_thread *request_timer_ = nullptr; ///< something is to be asked when it fires, or with a call before
    tq_thread *rest_timer_ = nullptr;
    tq_thread *look_timer_ = nullptr;
    steady_time last_request_{};
    steady_time last_whole_request_{}; ///< that asked for every log
    uint64_t calls_seen_ = 0;          ///< how many calls there had been when it was last decided when to ask
    std::unique_ptr<loop_bell> bell_;
    command_buffer commands_;
    std::vector<std::unique_ptr<feed>> feeds_;
    std::deque<queued> queue_;
    bool delivering_ = false;
    uint64_t losses_ = 0;
};

} // namespace mom

#endif
