// A feed's verdicts: what it takes in, and which of the histories that a server may come back with it goes on from.
#include "mom/redis_feed.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace {

using mom::redis_feed;
using history = redis_feed::history;
using step = redis_feed::step;
using entries = std::vector<redis_feed::shown>; // newest first, as a log is read backwards

constexpr uint64_t seen = 20;
constexpr size_t others = 1000; // what somebody else wrote under a number

// Entries `from` down to `to`, those behind `common` being another's.
entries log_of(uint64_t from, uint64_t to, uint64_t common = seen)
{
    entries log;
    for (uint64_t number = from; number >= to; --number)
        log.push_back({number, number + (number > common ? others : 0)});
    return log;
}

history meet(redis_feed &feed, const mom::log_position &now, const entries &log)
{
    auto verdict = feed.compare(now);
    while (verdict == history::unclear) {
        const auto wanted = feed.wanted();
        entries held;
        for (const auto &each : log)
            if (each.number <= wanted.from && each.number >= wanted.to && held.size() < wanted.count)
                held.push_back(each);
        verdict = feed.compare(held);
    }
    return verdict;
}

TEST(a_feed, goes_on_from_the_highest_number_that_both_histories_have)
{
    const struct {
        const char *what;
        uint64_t began; // subscribed at this number
        const char *epoch;
        uint64_t last;
        entries log;
        history verdict;
        uint64_t common;
    } cases[] = {
        {"nothing happened", 1, "e", 20, log_of(20, 1), history::same, 20},
        {"more was written", 1, "e", 30, log_of(30, 1), history::same, 20},
        {"it was trimmed behind what was seen", 1, "e", 30, log_of(30, 25), history::same, 20},
        {"it was trimmed to one entry that was seen", 1, "e", 20, log_of(20, 20), history::same, 20},
        {"older data came back", 1, "e", 3, log_of(3, 1), history::parted, 3},
        {"older data came back and was written on", 1, "e", 30, log_of(30, 1, 7), history::parted, 7},
        {"data from before the subscription came back", 15, "e", 30, log_of(30, 1, 7), history::parted, 0},
        {"the only change seen is another's", 20, "e", 30, log_of(30, 1, 7), history::parted, 0},
        {"all that was seen and is left is another's", 1, "e", 30, log_of(30, 20, 7), history::parted, 0},
        {"the log is gone", 1, "e", 0, {}, history::parted, 0},
        {"another table", 1, "f", 20, log_of(20, 1), history::parted, 0},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.what);
        redis_feed feed({"e", each.began, static_cast<size_t>(each.began)});
        for (uint64_t number = each.began + 1; number <= seen; ++number)
            EXPECT_EQ(step::next, feed.take(number, static_cast<size_t>(number)));
        EXPECT_EQ(each.verdict, meet(feed, {each.epoch, each.last, 0}, each.log));
        EXPECT_EQ(each.common, feed.common());
    }
}

TEST(a_feed, tells_changes_that_are_missing_and_numbers_that_are_not_ours)
{
    redis_feed feed({"", 0, 0});
    EXPECT_EQ(history::same, feed.compare({"e", 2, 2})) << "subscribed before the first write";
    EXPECT_EQ(step::next, feed.take(1, 1));
    EXPECT_EQ(step::seen, feed.take(1, 1));
    EXPECT_EQ(step::gap, feed.take(3, 3));
    EXPECT_EQ(1u, feed.cursor());
    feed.restart({"e", 3, 3});
    EXPECT_EQ(step::next, feed.take(4, 4));
    ASSERT_EQ(history::unclear, feed.compare({"e", 4, 4}));
    EXPECT_EQ(history::damaged, feed.compare(entries{{9, 9}}));
    EXPECT_EQ(history::parted, feed.compare({"f", 4, 4}));
}

} // namespace
