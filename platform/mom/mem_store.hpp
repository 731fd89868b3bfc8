// The embedded store: tables of records in key order, each with its change log.
//
// A mem_store is shared by name between the engines of one thread and lives as long as one of them. Records are
// immutable images that the log shares. A table's changes are numbered from 1 without gaps; the log keeps those that a
// subscription has yet to see: as many as the limits' count or bytes allow, whichever are more. A record's stamp is the
// number of its last write.
#ifndef TQ_MOM_MEM_STORE_HPP
#define TQ_MOM_MEM_STORE_HPP

#include "engine.hpp"

#include <deque>
#include <map>
#include <vector>

namespace mom {

/// The value fields of one record in one block, ordered by number.
class field_image {
  public:
    explicit field_image(field_values fields);
    /// Replaces `out`; the views live as long as the image.
    void list(std::vector<field_value> &out) const;
    size_t bytes() const { return block_.size(); }

  private:
    std::string block_;
};
using image_ptr = std::shared_ptr<const field_image>;

struct mem_change {
    std::string key;
    image_ptr image; ///< null: deleted
    uint64_t writer;

    /// What keeping it costs, about.
    uint64_t bytes() const { return 160 + key.size() + (image == nullptr ? 0 : image->bytes()); }
};

struct mem_record {
    image_ptr image;
    uint64_t stamp;
};

/// Reads a table's log; told when there is something to read.
class mem_reader {
  public:
    virtual uint64_t seen() const = 0;
    virtual void wake() = 0;

  protected:
    ~mem_reader() = default;
};

/// What a log keeps for subscriptions that have yet to see it.
struct mem_limits {
    uint64_t changes = usual_log_limit;
    uint64_t bytes = usual_log_memory;
};

class mem_table {
  public:
    using record_map = std::map<std::string, mem_record, std::less<>>;

    explicit mem_table(const mem_limits &limits) : limits_(limits) {}
    void write(std::string_view key, field_values fields, write_mode mode, uint64_t writer);
    void remove(std::string_view key, uint64_t writer);
    const record_map &records() const { return records_; }

    uint64_t last() const { return last_; }
    /// The change with this number; null when the log no longer reaches back.
    std::shared_ptr<const mem_change> change_at(uint64_t number) const;

    void add_reader(mem_reader &reader) { readers_.push_back(&reader); }
    void remove_reader(mem_reader &reader);
    /// Drops what every reader has seen.
    void trim();

  private:
    void log(std::string_view key, image_ptr image, uint64_t writer);
    void drop_oldest();
    uint64_t first() const { return last_ - log_.size() + 1; }

    const mem_limits &limits_;
    record_map records_;
    std::deque<std::shared_ptr<const mem_change>> log_;
    uint64_t last_ = 0;
    uint64_t log_bytes_ = 0;
    std::vector<mem_reader *> readers_;
    std::vector<field_value> merged_;
};

class mem_store {
  public:
    /// The store of this name, made if nobody has it.
    static std::shared_ptr<mem_store> open(const store_url &url);
    mem_table &table(const table_ref &table);
    uint64_t next_writer() { return ++writers_; }

  private:
    mem_limits limits_;
    uint64_t writers_ = 0;
    std::map<std::pair<uint32_t, std::string>, mem_table> tables_;
};

} // namespace mom

#endif
