// What sentinels say by themselves: that they have made another server the master.
//
// 1. One connection to each sentinel of the address, made from the loop, which does not wait for it. One that fails is
//    made again two seconds later, one that may not listen after a minute.
// 2. The link is told at once, and then whoever has the watch. It is a hint: who is the master is asked as ever.
// 3. Without a loop that runs nothing is heard, and nothing missed: the link asks at its own pace.
#ifndef TQ_MOM_SENTINEL_WATCH_HPP
#define TQ_MOM_SENTINEL_WATCH_HPP

#include "loop_timer.hpp"
#include "redis_link.hpp"

#include <functional>

namespace mom {

class sentinel_watch {
  public:
    /// `heard` is called from the loop, after the link was told.
    sentinel_watch(redis_link &link, tq_thread_master *master, std::function<void()> heard);
    ~sentinel_watch();
    sentinel_watch(const sentinel_watch &) = delete;
    sentinel_watch &operator=(const sentinel_watch &) = delete;

  private:
    struct line {
        sentinel_watch &of;
        endpoint sentinel;
        std::unique_ptr<redis_connection> connection{};
        tq_loop_watch *watch = nullptr;
        bool established = false;
        steady_time next_attempt{};
    };

    static void on_event(tq_loop_watch *watch, int fd, int events, void *arg);
    static int on_timer(tq_thread *timer);
    void attempt_next();
    void attempt(line &of);
    void step(line &of);
    [[nodiscard]] bool establish(line &of);
    [[nodiscard]] bool listen(line &of);
    void take_words(line &of);
    void take_word(const line &of, reply_view reply);
    void give_up(line &of, std::chrono::milliseconds pause);

    redis_link &link_;
    tq_thread_master *master_;
    std::function<void()> heard_;
    loop_timer timer_;
    name_lookup names_;
    std::vector<std::unique_ptr<line>> lines_;
};

} // namespace mom

#endif
