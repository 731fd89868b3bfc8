// The marks of begun rewrites: per selection, the change number that the table had reached.
//
// Owned by an engine: a rewrite is ended through the handle that began it.
#ifndef TQ_MOM_MARKS_HPP
#define TQ_MOM_MARKS_HPP

#include "engine.hpp"

#include <map>
#include <optional>
#include <tuple>

namespace mom {

/// The monotonic clock, in milliseconds.
inline uint64_t now_ms()
{
    timeval now{};
    tq_monotime(&now);
    return tq_timeval_to_ms(&now);
}

template <typename Number> class mark_book {
  public:
    void set(table_ref table, const key_range &range, Number number, uint64_t seconds)
    {
        constexpr uint64_t longest = UINT64_MAX / 4000;
        marks_[key(table, range)] = {number, now_ms() + 1000 * (seconds < longest ? seconds : longest)};
    }

    /// Nothing when there is none or its time ran out.
    std::optional<Number> find(table_ref table, const key_range &range)
    {
        const auto mark = marks_.find(key(table, range));
        if (mark == marks_.end())
            return std::nullopt;
        if (now_ms() < mark->second.expiry_ms)
            return mark->second.number;
        marks_.erase(mark);
        return std::nullopt;
    }

    void erase(table_ref table, const key_range &range) { marks_.erase(key(table, range)); }

  private:
    struct entry {
        Number number;
        uint64_t expiry_ms;
    };
    using mark_key = std::tuple<uint32_t, std::string, key_range>;
    static mark_key key(table_ref table, const key_range &range) { return {table.db, table.type->table, range}; }

    std::map<mark_key, entry> marks_;
};

} // namespace mom

#endif
