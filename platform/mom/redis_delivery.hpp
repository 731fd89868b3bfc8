// From what a reader took in to the callbacks.
//
// 1. Each followed table has an audience: who is told of which of its records. Audiences and their subscribers are only
//    ever added, and walked by position: a callback may subscribe.
// 2. Changes wait in one queue of bounded size, in the order in which the reader put them, and leave it in rounds that
//    take a bounded time.
// 3. Of lost changes an audience of requested state is told to scan again. For any other table the records whose stamp
//    is beyond what was seen are listed, page by page, and then delivered in the order of their writing. What the queue
//    had before the loss leaves it first, and the rest waits; then it is told that there may have been more.
// 4. A table that is damaged, or not ours to read, is set aside with what was lost of it, so that the others go on.
#ifndef TQ_MOM_REDIS_DELIVERY_HPP
#define TQ_MOM_REDIS_DELIVERY_HPP

#include "redis_calls.hpp"

#include <deque>
#include <list>
#include <optional>

namespace mom {

/// Whom one table's changes are for.
struct redis_audience {
    struct subscriber {
        key_range range;
        change_sink &sink;
        uint64_t start; ///< changes up to this number came before the subscription
    };
    /// The records to deliver in place of changes that the log lost: those stamped above `base`, up to `last`.
    struct recovery {
        uint64_t base;
        uint64_t last;
        int reason; ///< TQ_MOM_OK, or TQ_MOM_NEW_HISTORY
        std::string after;
        bool listed = false;
        struct record {
            uint64_t stamp;
            std::string key;
            size_t told = 0; ///< subscribers
        };
        std::list<record> found; ///< in the order of writing once all are listed
    };

    /// Tells the subscribers from number `told` on, which counts them. What leaves it by exception was not told to that
    /// one.
    void deliver(uint64_t number, const change &change, size_t &told);
    /// Whether any of them selects the record.
    bool wants(std::string_view key) const;
    /// False where `result` is no reason to; else the table is not read until `aside` is taken back.
    bool set_aside(int result);

    redis_table &table;
    std::vector<subscriber> subscribers;
    std::optional<recovery> lost;
    bool aside = false;
};

class redis_delivery {
  public:
    explicit redis_delivery(redis_calls &calls) : calls_(calls) {}

    redis_audience &add(redis_table &table);
    void put(redis_audience &to, const log_entry &entry);
    /// Changes behind `base`, up to `last`, are lost: to a log that was trimmed, or to another history.
    void lose(redis_audience &to, uint64_t base, uint64_t last, int reason);
    /// As long as so much waits, nothing more is asked for: the server keeps it.
    bool has_enough() const;

    /// A callback that runs the loop gets no second round inside its first.
    bool in_round() const { return in_round_; }
    struct outcome {
        bool more;  ///< another round is due
        int result; ///< other than 0: the store did not answer
    };
    outcome round();

  private:
    struct queued {
        redis_audience &to;
        change_kind kind;
        uint64_t number;
        std::string key;
        std::string body;
        bool echo;
        int result = TQ_MOM_OK;
        size_t told = 0; ///< subscribers
        size_t bytes() const { return sizeof(queued) + key.size() + body.size(); }
    };

    void put(queued &&change);
    void deliver_next();
    [[nodiscard]] int recover(redis_audience &of);
    void tell_loss(redis_audience &to, uint64_t last, int reason);
    [[nodiscard]] int list_lost(redis_audience &of);
    [[nodiscard]] int deliver_lost(redis_audience &of);

    redis_calls &calls_;
    std::vector<std::unique_ptr<redis_audience>> audiences_;
    std::deque<queued> queue_;
    size_t queue_bytes_ = 0;
    size_t older_ = 0; ///< changes in the queue that came before what is lost
    bool in_round_ = false;
};

} // namespace mom

#endif
