// Writes of records of one table, on their way to becoming one command.
//
// 1. Empty, it takes any record; then such as belong with it: of the same table, written in the same way.
// 2. What each record adds is built at once, for both forms that the command may have: a transaction where log entry
//    and stamp are known beforehand, else a call of the script. They are of requested state with all its fields, or
//    replaced; and of many replaced records of a table that nobody else writes to: their stamp is the number that the
//    entry will get, and a script behind them sees to it that it is. Either way one entry of the log tells all of them:
//    that is most of what a record costs the server.
// 3. The batch takes the command out, or both forms, where a transaction may have to be done by a call after all.
// 4. Cleared, it keeps its buffers.
#ifndef TQ_MOM_REDIS_GROUP_HPP
#define TQ_MOM_REDIS_GROUP_HPP

#include "redis_scripts.hpp"
#include "redis_table.hpp"

#include <span>
#include <vector>

namespace mom {

constexpr size_t keys_before_records = 3; ///< in a call

class write_group {
  public:
    size_t records() const { return records_; }
    bool takes(const redis_table &table, write_mode mode, bool complete, field_values fields) const;
    void add(redis_table &table, write_mode mode, bool complete, std::string_view key, const encoded_fields &fields,
             const writer_identity &writer);
    redis_table *table() const { return table_; }
    /// Whether the records' stamps and the log's entries are: then a transaction will do.
    bool known_beforehand() const;
    /// How many steps a transaction takes for each record, before those for all: log entry and index.
    size_t steps() const { return complete_ ? 1 : 2; }
    void build_transaction(command_buffer &into, const redis_scripts &scripts, std::string_view writer) const;
    /// `alone`: nobody else has written to the table of late.
    void build_call(command_buffer &into, const redis_scripts &scripts, std::string_view writer, bool alone) const;
    void clear();

  private:
    void add_to_transaction(std::string_view key, const encoded_fields &fields, const writer_identity &writer);

    redis_table *table_ = nullptr;
    write_mode mode_{};
    bool foreseen_ = false;         ///< log entry and stamp of each
    bool complete_ = false;         ///< each record has all fields that its table ever had
    std::vector<uint32_t> numbers_; ///< of the fields, where records are replaced
    size_t records_ = 0;
    command_buffer keys_;
    command_buffer arguments_;
    size_t argument_count_ = 0;
    command_buffer steps_; ///< of the transaction
    command_buffer listed_;
    command_buffer told_; ///< in the log's entry
    command_buffer only_; ///< the entry of a single one
};

} // namespace mom

#endif
