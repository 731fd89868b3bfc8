// The marks of begun rewrites: per selection, where the table stood, and how far the sweep at the end has come.
//
// Owned by an engine: a rewrite is ended through the handle that began it.
#ifndef TQ_MOM_MARKS_HPP
#define TQ_MOM_MARKS_HPP

#include "engine.hpp"

#include <map>
#include <tuple>

namespace mom {

/// The monotonic clock, in milliseconds.
inline uint64_t now_ms()
{
    timeval now{};
    tq_monotime(&now);
    return tq_timeval_to_ms(&now);
}

template <typename Mark> class mark_book {
  public:
    void set(table_ref table, const key_range &range, Mark mark, uint64_t seconds)
    {
        constexpr uint64_t longest = UINT64_MAX / 4000;
        marks_[key(table, range)] = {std::move(mark), now_ms() + 1000 * (seconds < longest ? seconds : longest)};
    }

    /// Null when there is none or its time ran out.
    Mark *find(table_ref table, const key_range &range)
    {
        const auto mark = marks_.find(key(table, range));
        if (mark == marks_.end())
            return nullptr;
        if (now_ms() < mark->second.expiry_ms)
            return &mark->second.mark;
        marks_.erase(mark);
        return nullptr;
    }

    void erase(table_ref table, const key_range &range) { marks_.erase(key(table, range)); }

  private:
    struct entry {
        Mark mark;
        uint64_t expiry_ms;
    };
    using mark_key = std::tuple<uint32_t, std::string, key_range>;
    static mark_key key(table_ref table, const key_range &range) { return {table.db, table.type->table, range}; }

    std::map<mark_key, entry> marks_;
};

} // namespace mom

#endif
