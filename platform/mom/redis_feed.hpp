// One table's history of changes, as far as a reader has seen it: numbers in, verdicts out. No connection, no clock.
//
// 1. It begins where the table's log stands, with the log's epoch, its last number and that entry's identity.
// 2. Entries come one by one. Numbers have no gaps, so a gap means that the log was trimmed past the feed.
// 3. The server may have come back with an older history, or another one: after each reconnection where the log stands
//    now is compared with what was seen, and, as long as that is not clear, the entries that the feed asks for.
// 4. What parted, or has a gap, begins again at 1.
#ifndef TQ_MOM_REDIS_FEED_HPP
#define TQ_MOM_REDIS_FEED_HPP

#include <cstdint>
#include <deque>
#include <span>
#include <string>

namespace mom {

/// Where a table's change log stands.
struct log_position {
    std::string epoch;   ///< random name of the log's history; empty before the first write
    uint64_t last = 0;   ///< number of the latest change
    size_t identity = 0; ///< of the latest change, 0 when it is gone
};

class redis_feed {
  public:
    enum class step : uint8_t {
        next, ///< the change behind the latest one: taken in
        seen, ///< taken in before
        gap,  ///< changes between are lost
    };
    enum class history : uint8_t {
        same,    ///< go on from the cursor
        parted,  ///< what is behind common() is lost
        unclear, ///< compare what the log has of wanted()
        damaged, ///< the log is not numbered as ours are
    };
    struct shown {
        uint64_t number;
        size_t identity;
    };
    struct stretch {
        uint64_t from; ///< downwards
        uint64_t to;
        unsigned count; ///< at most so many entries
    };

    explicit redis_feed(const log_position &now) { restart(now); }
    void restart(const log_position &now);

    /// Number of the latest change that was taken in.
    uint64_t cursor() const { return cursor_; }
    step take(uint64_t number, size_t identity);

    /// Begins to compare, with where the log stands now, and goes on, with entries in the order of the stretch.
    history compare(const log_position &now);
    history compare(std::span<const shown> entries);
    stretch wanted() const { return {from_, oldest(), count_}; }
    /// The highest number up to which both histories are the same.
    uint64_t common() const { return common_; }

  private:
    uint64_t oldest() const { return cursor_ - identities_.size() + 1; }
    history agree_up_to(uint64_t common);
    void remember(size_t identity);

    std::string epoch_;
    uint64_t cursor_ = 0;
    std::deque<size_t> identities_; ///< of the latest changes, up to the cursor
    // The comparison.
    uint64_t last_ = 0; ///< number of the server's latest change
    uint64_t from_ = 0; ///< all behind it that the log had was another's
    unsigned count_ = 0;
    uint64_t common_ = 0;
};

} // namespace mom

#endif
