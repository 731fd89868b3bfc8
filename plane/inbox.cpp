// See inbox.hpp.
#include "plane/inbox.hpp"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace plx::plane {

namespace {

struct SameKey {
    bool operator()(const Key *a, const Key *b) const { return *a == *b; }
    size_t operator()(const Key *key) const { return KeyHash()(*key); }
};

// Of several changes of one key only the last counts.
std::vector<Change> last_of_each(std::vector<Change> changes)
{
    std::unordered_set<const Key *, SameKey, SameKey> later(changes.size());
    std::vector<bool> last(changes.size());
    for (size_t at = changes.size(); at-- > 0;)
        last[at] = later.insert(&changes[at].key).second;
    later.clear();
    size_t at = 0;
    std::erase_if(changes, [&](const Change &) { return !last[at++]; });
    return changes;
}

} // namespace

Inbox::Inbox(tq_context *context, Make make) : make_(std::move(make)), timer_(context->master, [this] { hand_on(); }) {}

void Inbox::hear(Key key, std::optional<Requested> wanted)
{
    changes_.push_back({std::move(key), std::move(wanted), now_us()});
    timer_.start_unless_pending(std::max(gather_until_ - now(), milliseconds(0)));
}

void Inbox::plane_called(milliseconds took)
{
    constexpr milliseconds longest_gathering{50};
    gather_until_ = now() + std::min(took, longest_gathering);
}

void Inbox::hand_on()
{
    make_(last_of_each(std::exchange(changes_, {})));
}

} // namespace plx::plane
