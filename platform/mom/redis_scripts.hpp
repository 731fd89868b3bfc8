// The scripts that run inside the server: what must happen in one step and cannot be a plain transaction.
//
// 1. A script is sent as text before its first call; the server answers with its digest.
// 2. From then on it is called by that.
// 3. A server that forgot it (restart, SCRIPT FLUSH) says so and gets it again.
#ifndef TQ_MOM_REDIS_SCRIPTS_HPP
#define TQ_MOM_REDIS_SCRIPTS_HPP

#include "redis_link.hpp"
#include "redis_table.hpp"

namespace mom {

/// A name that nothing else has, short in the log.
std::string random_name();

class redis_script {
  public:
    explicit constexpr redis_script(const char *text) : text_(text) {}
    /// The digest, asking the server for it the first time.
    [[nodiscard]] int load(redis_link &link);
    std::string_view digest() const { return digest_; }
    void forget() { digest_.clear(); }

    /// Starts a call in the buffer: the keys' count is given, keys and arguments follow by add().
    void begin(command_buffer &commands, size_t keys, size_t arguments) const;

  private:
    const char *text_;
    std::string digest_;
};

/// Who writes, and how much of what is written the logs keep.
struct writer_identity {
    std::string name;       ///< this handle's name in the log
    uint64_t log_limit;     ///< changes kept of each table
    std::string log_memory; ///< bytes of those that are kept for readers that live
};

/// The scripts of one engine; their keys and arguments are listed with their texts.
struct redis_scripts {
    redis_scripts();
    /// A call that makes sure of a table's metadata, and that it lists `fields`; the answer is what take_meta() takes.
    void make_sure(command_buffer &commands, const redis_table &table, std::string_view fields) const;

    /// A call that trims the table's log.
    void trim_log(command_buffer &commands, const redis_table &table, const writer_identity &writer) const;

    redis_script meta;    ///< makes sure of a table's metadata, extends its field list
    redis_script mark;    ///< begins a rewrite
    redis_script replace; ///< writes records of one table, log entry with the whole record included
    redis_script merge;   ///< the same, and they keep what they have beside what is written
    redis_script stamp;   ///< ends a transaction whose records were stamped with a number beforehand
    redis_script remove;  ///< deletes a record
    redis_script undo;    ///< takes back the index entry of a write that met a foreign key
    redis_script trim;    ///< trims a log to what is kept, or what readers that live have not read
    redis_script here;    ///< says how far a reader has read
    redis_script sweep;   ///< deletes one page of what was not written since a mark
};

} // namespace mom

#endif
