// The reader of change logs, on a connection of its own, on which the server holds a blocking XREAD.
//
// The life of that connection:
// 1. off: there is none. A timer makes the next attempt, at the pace of the link.
// 2. idle: all histories were compared (redis_follower), and nothing is asked. Who only listens asks a millisecond
//    after the last question, so that a stream of writes is not slowed down by waking a reader for each. Who made a
//    call since then is answering what it hears: it asks in the loop's next turn, or lets the question ride along with
//    a call that is made before. As long as enough waits for delivery nothing is asked.
// 3. asked: the server holds the question. Its answer is taken in, one round is delivered (redis_delivery), and the
//    reader is idle again.
// 4. stale: the same, and the question lacks a table: one that was added since, or was left out for a moment that is
//    over, which a server without other work may notice a tenth of a second later. The server is made to answer at
//    once; it may not have read the question yet, then again in a moment.
// Whatever goes wrong, memory included, leads to 1, and from there on from the feeds' cursors.
//
// One timer serves the life above: what it does when it fires depends on where that stands. Another looks again at
// tables that were set aside.
//
// Entry points are the loop and the engine; nothing here calls upwards but change sinks, in rounds from the loop.
#ifndef TQ_MOM_REDIS_READER_HPP
#define TQ_MOM_REDIS_READER_HPP

#include "loop_bell.hpp"
#include "loop_timer.hpp"
#include "redis_follower.hpp"
#include "sentinel_watch.hpp"

namespace mom {

class redis_reader {
  public:
    /// `look` is called on each new connection, to look for what was written on those before.
    redis_reader(redis_calls &calls, tq_thread_master *master, std::function<void()> look);
    ~redis_reader();
    redis_reader(const redis_reader &) = delete;
    redis_reader &operator=(const redis_reader &) = delete;

    [[nodiscard]] int subscribe(redis_table &table, const key_range &range, change_sink &sink);
    /// What a call may take along now: nothing, or the question that is due. rode() tells whether it arrived.
    ride offer();
    void rode(const ride &along, bool arrived);
    /// Takes in what has come while the application makes calls and the loop does not run; calls no sink.
    void meanwhile();
    /// The server has lost what we wrote to this table. Who counts on answers is told: a new history.
    void lost_own(const redis_table &table);
    /// False while changes of what was subscribed to cannot be heard.
    bool hears() const { return (life_ != life::off && !refused_) || !follower_.follows(); }

  private:
    enum class life : uint8_t { off, idle, asked, stale };
    struct line {
        std::unique_ptr<redis_connection> connection;
        std::string id; ///< by which the server knows it
        tq_loop_watch *watch = nullptr;
    };
    struct pace {
        unsigned entries = 128; ///< of each log; fewer while the server drops us over its answers
        uint64_t calls = 0;     ///< how many there had been when it was last decided when to ask
        steady_time asked{};
        steady_time asked_all{};
        bool busy = false;   ///< the latest question left tables out
        steady_time taken{}; ///< meanwhile
        steady_time said{};
        steady_time compared{};
        unsigned dropped = 0; ///< connections in turn, over the answer to a question for one entry
    };

    template <void (redis_reader::*Step)()> static void on_event(tq_loop_watch *watch, int fd, int events, void *arg);
    template <void (redis_reader::*Step)()> static int on_timer(tq_thread *timer);
    void guard(void (redis_reader::*step)());

    void follow();
    void become(life next);
    void attempt();
    [[nodiscard]] int connect();
    [[nodiscard]] int prepare(line &next);
    void disconnect();
    void reconnect_in(std::chrono::milliseconds pause);
    void on_time();
    void take_in();
    void take_answer();
    void await_answer();
    bool accept_answer();
    void take_meanwhile();
    void dropped();
    [[nodiscard]] int step_over();
    bool question();
    void ask();
    void ask_in_time();
    void remind();
    void turn();
    void hear_bell();
    void look();
    bool compare();
    void move();
    void tell_own();
    void say_where(steady_time now);

    redis_calls &calls_;
    std::function<void()> look_for_own_;
    bool refused_ = false;  ///< the latest question was, and none was answered since
    bool lost_own_ = false; ///< and nobody was told so far
    tq_thread_master *master_;
    redis_delivery delivery_{calls_};
    redis_follower follower_{calls_, delivery_};
    line line_;
    life life_ = life::off;
    loop_timer timer_;
    loop_timer look_timer_;
    pace pace_;
    std::unique_ptr<sentinel_watch> sentinels_;
    std::unique_ptr<loop_bell> bell_; ///< rung while there is something to deliver
    command_buffer commands_;
};

} // namespace mom

#endif
