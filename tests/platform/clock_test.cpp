// Clocks and timeval arithmetic, as callers with unnormalised fields see them.
#include "tq_time.h"

#include <cstring>
#include <gtest/gtest.h>
#include <regex>

namespace {

struct conversion {
    timeval time;
    uint64_t us, ms, sec;
};

constexpr uint64_t minus_one = UINT64_MAX;

TEST(clock, a_timeval_counts_whole_whether_normalised_or_not)
{
    const conversion cases[] = {
        {{0, 0}, 0, 0, 0},
        {{3, 999999}, 3999999, 3999, 3},
        {{0, 15000000}, 15000000, 15000, 15},
        {{1, -1}, 999999, 999, 0},
        {{-1, 1000000}, 0, 0, 0},
        {{-1, 999999}, minus_one, minus_one, minus_one},
        {{0, -1}, minus_one, minus_one, minus_one},
        {{-2, 0}, minus_one - 1999999, minus_one - 1999, minus_one - 1},
    };
    for (const conversion &c : cases) {
        SCOPED_TRACE(testing::Message() << c.time.tv_sec << "s " << c.time.tv_usec << "us");
        EXPECT_EQ(tq_timeval_to_us(&c.time), c.us);
        EXPECT_EQ(tq_timeval_to_ms(&c.time), c.ms);
        EXPECT_EQ(tq_timeval_to_sec(&c.time), c.sec);
    }
}

TEST(clock, the_monotonic_clock_is_normalised_and_never_goes_back)
{
    timeval before, after;
    ASSERT_EQ(tq_monotime(&before), 0);
    ASSERT_EQ(tq_monotime(&after), 0);
    EXPECT_GE(before.tv_usec, 0);
    EXPECT_LT(before.tv_usec, 1000000);
    EXPECT_GE(tq_timeval_to_us(&after), tq_timeval_to_us(&before));
    EXPECT_NE(tq_monotime(nullptr), 0);
}

TEST(clock, the_time_text_has_a_fixed_shape)
{
    char text[24];
    ASSERT_NE(tq_time_2_string(text, sizeof text), 0);
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"))) << text;
}

TEST(clock, a_buffer_too_small_for_the_time_gets_an_empty_text)
{
    char text[32];
    for (size_t size : {size_t{1}, size_t{10}, size_t{23}}) {
        memset(text, 'x', sizeof text);
        EXPECT_EQ(tq_time_2_string(text, size), 0);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(text[size], 'x') << "nothing is written behind " << size;
    }
    EXPECT_EQ(tq_time_2_string(text, 0), 0);
    EXPECT_EQ(tq_time_2_string(nullptr, 24), 0);
}

} // namespace
