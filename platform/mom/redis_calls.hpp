// Calls to the server, each asked and answered before it returns: questions, scripts, and writes, which may be
// collected.
//
// 1. A call makes sure of a connection (redis_link). A new one begins an era: what was read of tables' metadata before
//    is to be read again.
// 2. A write joins the batch (redis_batch); a single one is a batch of one. flush() sends what is left of the batch and
//    takes the results of all of it; a write that found the metadata changed begins an era, too.
// 3. Whatever is asked next, what was collected goes first.
//
// Owned by the engine. The reader of changes asks its questions here as well.
#ifndef TQ_MOM_REDIS_CALLS_HPP
#define TQ_MOM_REDIS_CALLS_HPP

#include "redis_batch.hpp"

#include <functional>
#include <span>
#include <utility>

namespace mom {

/// A question whose answers are taken later, whatever is asked in between: that takes them off the connection first.
struct question_ahead {
    reply_tape answers{};
    int result = 0;
    size_t limit = SIZE_MAX; ///< of bytes
};

class redis_calls {
  public:
    using builder = std::function<void(command_buffer &)>;

    redis_calls(const store_url &url, tq_mom_counters &counters);

    redis_link &link() { return link_; }
    tq_mom_counters &counters() { return counters_; }
    redis_scripts &scripts() { return scripts_; }
    const writer_identity &writer() const { return writer_; }
    /// Goes up with each call.
    uint64_t count() const { return count_; }
    uint64_t era() const { return era_; }

    /// Sends what `build` puts into the buffer, after connecting if need be. The answers are link().replies().
    [[nodiscard]] int ask(const builder &build);
    /// The same, not waiting for the answers. One at a time is on its way.
    [[nodiscard]] int ask_ahead(question_ahead &question, const builder &build);
    /// Waits for them. The question's result.
    [[nodiscard]] int take_ahead(question_ahead &question);
    /// Nobody waits for them any more.
    void forget_ahead(const question_ahead &question);
    /// Asks for a script, whose text the server gets when it lacks it.
    [[nodiscard]] int run(redis_script &script, const builder &build);

    /// Gives the server a script's text.
    [[nodiscard]] int load(redis_script &script);

    /// Before something joins the batch, which is of one connection, whose server has the scripts.
    [[nodiscard]] int ready_to_collect();
    const command_batch &batch() const { return batch_; }
    /// Adds to the batch. Short of memory halfway, all that was collected is given up, and the connection with it.
    template <typename Step> void collect(Step step)
    {
        try {
            step(batch_);
        } catch (...) {
            give_up();
            throw;
        }
    }
    /// Whether that happened since this was asked last.
    bool spoilt() { return std::exchange(spoilt_, false); }
    /// Sends what was collected, and does not wait for the answers.
    void send();
    void flush(const ride &along = {});
    /// Of what was flushed and not taken from here yet.
    std::vector<int> &results() { return results_; }

  private:
    [[nodiscard]] int ready();
    void confirm(std::span<int> results);
    void give_up();

    tq_mom_counters &counters_; ///< the engine's
    redis_link link_;
    redis_scripts scripts_;
    writer_identity writer_;
    command_buffer commands_;
    command_batch batch_{scripts_, writer_};
    std::vector<int> results_;
    bool spoilt_ = false;
    question_ahead *ahead_ = nullptr; ///< on its way
    uint64_t count_ = 0;
    uint64_t generation_ = 0; ///< of the connection of the latest call
    uint64_t era_ = 0;
};

} // namespace mom

#endif
