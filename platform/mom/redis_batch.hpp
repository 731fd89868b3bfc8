// Writes and removals that go to the server together and are answered together; a single one is a batch of one.
//
// 1. Records are collected in a group (redis_group), which becomes one command when it is full, when another table or
//    kind of write comes, or when the batch is sent: a transaction where that will do, else a call of a script.
// 2. send() sends what there is and does not wait. finish() sends the rest, where nothing went before along with a
//    question that rides behind it, and takes all answers.
// 3. A transaction reads the table's metadata along with what it does. If that is not what its records were built by,
//    they may carry an old stamp, or their entries lack a field; and so where its entry of the log has a smaller number
//    than they were stamped with: the script writes them again, and after them, for the order, whatever came later.
//    Commands whose script the server has forgotten are sent again in the same way.
// 4. A transaction cannot stop at a record in whose place something foreign lies: it was listed and told all the same,
//    which is taken back.
// 5. Each record has its result, and the batch is empty again.
//
// Owned by the engine's calls. A batch does not outlive its connection: who is told that sending failed finishes it
// before the next command is built.
#ifndef TQ_MOM_REDIS_BATCH_HPP
#define TQ_MOM_REDIS_BATCH_HPP

#include "redis_group.hpp"

namespace mom {

class command_batch {
  public:
    command_batch(redis_scripts &scripts, const writer_identity &writer) : scripts_(scripts), writer_(writer) {}

    void write(redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields);
    void remove(redis_table &table, std::string_view key);
    bool full() const { return size() >= 256; }
    bool empty() const { return size() == 0; }
    /// Sends what was not sent yet. False: the batch is to be finished, which tells why.
    [[nodiscard]] bool send(redis_link &link, const ride &along = {});
    /// Nothing was sent yet: what goes may take a ride along.
    bool all_unsent() const { return sent_ == 0; }
    /// Sends the rest, waits for the answers, appends the result of each, and is empty again. False: something failed,
    /// or the metadata is not what it was.
    [[nodiscard]] bool finish(redis_link &link, std::vector<int> &results, const ride &along);
    /// Empty again, whatever became of what was collected.
    void forget();

  private:
    enum class verdict : uint8_t { done, partly, again };
    struct item {
        redis_table &table;
        size_t answers; ///< how many the server gives
        size_t results; ///< how many these make, none of trimming a log, from
        size_t first;   ///< this one on
        size_t steps;   ///< of a transaction, for each record; 0: a call
        size_t start;   ///< of the call, in bytes; a transaction's stands apart
        size_t size;
        uint64_t number; ///< that its entry of the log is likely to get
        verdict is = verdict::again;
    };

    size_t size() const { return results_ + (closed_ ? 0 : open_.records()); }
    void close();
    void make_room();
    void trim_in_time(redis_table &table, size_t changes);
    item &add_item(redis_table &table, size_t results);
    std::string_view call(const item &each) const;
    void judge(redis_link &link, const reply_tape &answers, size_t complete, int *results);
    verdict judge_call(redis_link &link, const item &each, reply_view reply, std::span<int> results) const;
    verdict judge_transaction(redis_link &link, const item &each, reply_view reply, std::span<int> results) const;
    static bool take_number(const item &each, reply_view entry);
    void undo(redis_link &link, const int *results) const;
    void build_undo(command_buffer &commands, const item &each, std::span<const int> results) const;
    void repeat(redis_link &link, std::span<const item> items, int *results) const;

    redis_scripts &scripts_;
    const writer_identity &writer_;
    write_group open_;
    bool closed_ = false; ///< what is in `open_` is the last item
    command_buffer commands_;
    command_buffer calls_; ///< that do what the transactions do
    std::vector<item> items_;
    size_t results_ = 0; ///< that the items make
    size_t sent_ = 0;    ///< commands
    size_t sent_bytes_ = 0;
    int failure_ = 0; ///< of sending
};

} // namespace mom

#endif
