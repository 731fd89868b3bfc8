// See redis_feed.hpp.
#include "redis_feed.hpp"

namespace mom {
namespace {

constexpr size_t identities_kept = 512;
constexpr unsigned entries_per_look = 8;

} // namespace

void redis_feed::restart(const log_position &now)
{
    epoch_ = now.epoch;
    cursor_ = now.last;
    identities_.clear();
    if (now.identity != 0)
        remember(now.identity);
}

void redis_feed::remember(size_t identity)
{
    identities_.push_back(identity);
    if (identities_.size() > identities_kept)
        identities_.pop_front();
}

redis_feed::step redis_feed::take(uint64_t number, size_t identity)
{
    if (number <= cursor_)
        return step::seen;
    if (number - cursor_ > 1)
        return step::gap;
    remember(identity);
    cursor_ = number;
    return step::next;
}

redis_feed::history redis_feed::compare(const log_position &now)
{
    if (epoch_.empty()) // begun before the table's first write: the entries tell whether it is that history
        epoch_ = now.epoch;
    last_ = now.last;
    from_ = cursor_;
    count_ = 1; // mostly the last one seen is there; otherwise it is looked for downwards in small steps
    if (epoch_ != now.epoch) {
        common_ = 0;
        return history::parted;
    }
    return identities_.empty() ? agree_up_to(cursor_) : history::unclear;
}

// What is no longer in the log is taken as the same: if changes behind it are missing, their numbers tell. Where the
// log had something else, nothing is.
redis_feed::history redis_feed::compare(std::span<const shown> entries)
{
    for (const auto &[number, identity] : entries) {
        if (number < oldest() || number > from_)
            return history::damaged;
        if (identity == identities_[static_cast<size_t>(number - oldest())])
            return agree_up_to(number);
        from_ = number - 1;
    }
    count_ = entries_per_look;
    if (!entries.empty() && from_ >= oldest())
        return history::unclear;
    return agree_up_to(from_ == cursor_ && last_ > cursor_ ? cursor_ : 0);
}

redis_feed::history redis_feed::agree_up_to(uint64_t common)
{
    common_ = common;
    return common == cursor_ && last_ >= cursor_ ? history::same : history::parted;
}

} // namespace mom
