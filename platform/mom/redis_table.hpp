// How a table lies in a server, and what a client knows of it. docs/store.md describes the layout.
//
// 1. A table's keys follow from its name and the database.
// 2. Its metadata is read before the first write of an era, and taken over again when a write found it changed.
// 3. Along with its writes the client keeps how many of them the log was not trimmed after, and the number that the
//    next change is likely to get.
// 4. What is read from it is checked here: numbers of log entries, records' fields, the order of the index.
#ifndef TQ_MOM_REDIS_TABLE_HPP
#define TQ_MOM_REDIS_TABLE_HPP

#include "engine.hpp"
#include "redis_reply.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace mom {

/// After how many of one's own changes a log is trimmed again: it may be longer than its limit by so much.
constexpr uint64_t changes_per_trim(uint64_t limit)
{
    return std::clamp<uint64_t>(limit / 64, 64, 1024);
}
/// What writers of this release may put into a table's log, and readers understand: 1 (or none named), one change an
/// entry; 2, groups.
constexpr unsigned table_format = 2;
constexpr unsigned enough_in_a_row = 512; // changes of one's own, to count as the only writer of a table
/// TQ_MOM_OK, or TQ_MOM_NEWER_FORMAT for what the metadata's field says.
[[nodiscard]] int check_format(std::string_view field);

struct redis_table {
    explicit redis_table(table_ref of) : ref(of)
    {
        const std::string tag = "plx{" + std::to_string(of.db) + ":" + of.type->table + "}";
        prefix = tag + ":";
        index = tag + "/index";
        log = tag + "/log";
        meta = tag + "/meta";
        readers = tag + "/readers";
    }
    std::string record(std::string_view key) const { return prefix + std::string(key); }
    bool requested() const { return ref.type->kind == record_kind::requested; }
    /// What tells when a record was last written: the generation of the rewrite, or the number of the change.
    const char *stamp_kind() const { return requested() ? "generation" : "number"; }

    table_ref ref;
    std::string prefix; ///< of the records' keys
    std::string index;
    std::string log;
    std::string meta;
    std::string readers;

    /// Counts changes of one's own that are about to be made, in so many entries; true when the log is to be
    /// trimmed first.
    bool trim_due(size_t changes, size_t entries, uint64_t limit)
    {
        untrimmed += changes;
        untrimmed_entries += entries;
        if (untrimmed < changes_per_trim(limit))
            return false;
        latest_changes = std::exchange(untrimmed, 0);
        latest_entries = std::exchange(untrimmed_entries, 0);
        return true;
    }
    /// Whether nobody else writes to it, by what came of late. Of several each has its luck now and then.
    bool alone() const { return in_a_row >= enough_in_a_row; }
    /// Takes over an answer of the metadata's fields `gen` and `fields`.
    void take_meta(reply_view answer);
    /// Whether the metadata lists all these fields.
    bool covers(field_values values) const;

    // What the table's metadata said when it was last read; a write finds out whether it still does.
    uint64_t known = 0;                                ///< the era of calls in which; 0: never
    std::string generation;                            ///< stamp of the records being written
    std::string field_list;                            ///< all fields that were ever written,
    std::vector<uint32_t> fields;                      ///< and their numbers, ascending
    uint64_t latest = 0;                               ///< number that one's own latest change has, or is likely to get
    uint64_t own = 0;                                  ///< number of one's own latest change that was acknowledged,
    uint64_t own_found = 0;                            ///< which was looked for in this era of calls
    unsigned in_a_row = enough_in_a_row;               ///< of one's own changes, nobody else's being between
    uint64_t untrimmed = changes_per_trim(UINT64_MAX); ///< changes of one's own since the log was trimmed,
    uint64_t untrimmed_entries = untrimmed;            ///< and in how many entries; and in the stretch before
    size_t latest_changes = 1;
    size_t latest_entries = 1;
};

/// One entry of a log, as views of a reply: a change, or several that were made in one step, in their order.
struct log_entry {
    struct change {
        std::string_view key;
        std::string_view body;
        bool deleted;
    };
    uint64_t number = 0;
    std::string_view writer;
    std::vector<change> changes;

    /// False when the reply is no entry of ours; its number is 0 unless it has a place in the numbering all the same.
    bool parse(reply_view reply);
    /// Tells entries with the same number apart.
    size_t identity() const;

  private:
    bool parse_single(reply_view content);
    bool parse_group(reply_view content);
};

/// The number of an identifier "0-N"; false for any other.
bool parse_log_id(std::string_view id, uint64_t &number);

/// The fields of an HGETALL answer; false when one of them has no business there. `stamp` may be null.
bool parse_record(reply_view reply, std::vector<field_value> &fields, std::string_view *stamp = nullptr);

/// Appends the keys of a page of the index. Stops where one does not lie behind the one before, of which `after` is the
/// first (null: none): a walk over such an index might never end.
[[nodiscard]] int take_page(const redis_table &table, reply_view page, const std::string *after,
                            std::vector<std::string> &keys);
/// Reports that, and is its result.
[[nodiscard]] int out_of_order(const redis_table &table);

/// The bounds of a range for ZRANGEBYLEX, from behind `after` when that is not empty.
std::string lex_from(const key_range &range, std::string_view after, bool continued);
std::string lex_to(const key_range &range);

} // namespace mom

#endif
