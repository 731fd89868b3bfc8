// The table of outcomes.
#include "ledger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace plx::tool {
namespace {

TEST(Ledger, keeps_the_first_end_of_a_row_until_it_is_begun_again)
{
    Ledger ledger;
    const size_t row = ledger.add("entry");
    ledger.begin(row);
    ledger.end(row, Outcome::failed, "table full");
    ledger.end(row, Outcome::programmed, "ok");
    EXPECT_EQ("1 failed", ledger.summary());
    ledger.begin(row);
    EXPECT_EQ("1 waiting", ledger.summary());
    ledger.end(row, Outcome::programmed, "ok");
    EXPECT_EQ(1U, ledger.count(Outcome::programmed));
}

TEST(Ledger, ends_those_that_wait_and_no_others)
{
    Ledger ledger;
    for (const char *entry : {"a", "b", "c"})
        ledger.add(entry);
    ledger.begin(0);
    ledger.begin(1);
    ledger.end(0, Outcome::stored, "ok");
    ledger.end_waiting(Outcome::timed_out, "late");
    EXPECT_EQ("1 not written, 1 stored, 1 timed out", ledger.summary());
}

TEST(Ledger, prints_a_line_for_each_row_with_its_columns_in_line)
{
    Ledger ledger;
    ledger.begin(ledger.add("a long entry"));
    ledger.add("b");
    ledger.end(0, Outcome::failed, "some status");
    std::ostringstream out;
    ledger.print(out);
    std::istringstream lines(out.str());
    std::string heading, first, second;
    std::getline(lines, heading);
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(heading.find("OUTCOME"), first.find("failed"));
    EXPECT_EQ(heading.find("OUTCOME"), second.find("not written"));
    EXPECT_EQ(heading.find("STATUS"), first.find("some status"));
    EXPECT_THAT(second, testing::EndsWith("-"));
}

} // namespace
} // namespace plx::tool
