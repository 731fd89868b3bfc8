// Script calls that go to the server together and are answered together.
//
// Owned by the engine. Writes to one table in a row become one call. Each command's place is remembered, so that those
// which met a server that had forgotten the script are sent again once it has it. A batch does not outlive its
// connection: who is told that sending failed finishes it before the next command is built.
#ifndef TQ_MOM_REDIS_BATCH_HPP
#define TQ_MOM_REDIS_BATCH_HPP

#include "redis_scripts.hpp"
#include "redis_table.hpp"

#include <span>
#include <vector>

namespace mom {

/// Who writes: in every call.
struct writer_identity {
    std::string name;      ///< this handle's name in the log
    std::string log_limit; ///< changes kept per table
};

/// Writes of records of one table, on their way to becoming one call of the script.
class write_call {
  public:
    size_t records() const { return records_; }
    bool takes(const redis_table &table, write_mode mode) const;
    void add(const redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields);
    /// Builds the call and is empty again.
    void build(command_buffer &into, const redis_script &script, const writer_identity &writer);

  private:
    const redis_table *table_ = nullptr;
    write_mode mode_{};
    size_t records_ = 0;
    command_buffer keys_;
    command_buffer arguments_;
    size_t argument_count_ = 0;
};

class command_batch {
  public:
    command_batch(redis_scripts &scripts, const writer_identity &writer) : scripts_(scripts), writer_(writer) {}

    void write(const redis_table &table, write_mode mode, std::string_view key, const encoded_fields &fields);
    /// Where to build another command.
    command_buffer &next();
    bool full() const { return size() >= 256; }
    bool empty() const { return size() == 0; }
    /// Sends what was not sent yet. False: the batch is to be finished, which tells why.
    bool send(redis_link &link);
    /// Sends the rest, waits for the answers, appends the result of each, and is empty again. Whether all succeeded.
    bool finish(redis_link &link, std::vector<int> &results);

  private:
    struct item {
        size_t start;   ///< of the command, in bytes
        size_t results; ///< how many it brings, from
        size_t first;   ///< this one on
    };
    size_t size() const { return results_ + open_.records(); }
    void close();
    void add_item(size_t results);
    std::string_view command(const item &each) const;
    std::vector<item> judge(redis_link &link, const reply_tape &answers, std::span<const item> items,
                            int *results) const;
    void repeat(redis_link &link, const std::vector<item> &items, int *results) const;

    redis_scripts &scripts_;
    const writer_identity &writer_;
    write_call open_;
    command_buffer commands_;
    std::vector<item> items_;
    size_t results_ = 0; ///< that the items bring
    size_t sent_ = 0;    ///< items
    size_t sent_bytes_ = 0;
    int failure_ = 0; ///< of sending
};

} // namespace mom

#endif
