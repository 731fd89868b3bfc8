// The simulated plane by itself.
#include "plane/simulated/simulated.hpp"

#include "world.hpp"

namespace plx::plane {
namespace {

Change wanted(const Key &key, std::vector<uint8_t> value = {})
{
    return {key, Requested{.request = 1, .value = std::move(value)}};
}

Status make(SimulatedPlane &plane, const Change &change)
{
    return plane.program(std::span(&change, 1)).at(0).status;
}

TEST(SimulatedPlane, takes_entries_until_its_table_is_full)
{
    SimulatedPlane plane(simulated({"size=2"}));
    EXPECT_EQ(Status::ok, make(plane, wanted(ace(1))));
    EXPECT_EQ(Status::ok, make(plane, wanted(ace(2))));
    EXPECT_EQ(Status::table_full, make(plane, wanted(ace(3))));
    EXPECT_EQ(Status::ok, make(plane, wanted(ace(2), packed(0x202, {0})))) << "an entry that is there needs no room";
    EXPECT_EQ(Status::ok, make(plane, wanted(apply(1)))) << "bindings take none";
    EXPECT_EQ(Status::ok, make(plane, {ace(1), std::nullopt}));
    EXPECT_EQ(Status::ok, make(plane, wanted(ace(3))));
    EXPECT_EQ(2U, plane.entries());
}

TEST(SimulatedPlane, keeps_what_was_programmed_when_a_change_of_it_fails)
{
    SimulatedPlane plane({});
    EXPECT_EQ(Status::ok, make(plane, wanted(ace(1))));
    const uint64_t before = plane.installed().at(ace(1)).fingerprint;
    EXPECT_EQ(Status::malformed, make(plane, wanted(ace(1), {1, 2, 3})));
    EXPECT_EQ(before, plane.installed().at(ace(1)).fingerprint);
    EXPECT_TRUE(plane.counters({"edge", 10, 1}).has_value());
    EXPECT_FALSE(plane.counters({"edge", 10, 2}).has_value());
}

TEST(SimulatedPlane, judges_the_attributes_of_an_entry)
{
    const struct {
        std::vector<uint8_t> value;
        Status status;
    } cases[] = {{{}, Status::ok},
                 {packed(0x202, {1}), Status::ok},
                 {packed(0x202, {1, 0}), Status::bad_value},
                 {packed(0x202, {}), Status::bad_value},
                 {packed(0x1101, {10, 0, 0, 0, 255, 0, 0, 0}), Status::ok},
                 {packed(0x5901, {1}), Status::unsupported},
                 {packed(0x203, {1}), Status::unsupported},
                 {{0, 0, 0}, Status::malformed}};
    for (const auto &[value, status] : cases) {
        SimulatedPlane plane({});
        EXPECT_EQ(status, make(plane, wanted(ace(1), value))) << testing::PrintToString(value);
    }
}

TEST(Pattern, matches_by_its_parts)
{
    const struct {
        const char *text;
        bool entry;  // ACE 10/5 of "edge"
        bool bind;   // apply of ACL 10 of "edge"
        bool uplink; // which has no application
    } cases[] = {{"", true, true, true},
                 {"*", true, true, true},
                 {"edge", true, true, false},
                 {"core", false, false, false},
                 {"edge/10", true, true, false},
                 {"*/11", false, false, false},
                 {"edge/10/5", true, false, false},
                 {"*/*/5", true, false, false},
                 {"edge/10/6", false, false, false}};
    for (const auto &[text, entry, bind, uplink] : cases) {
        const auto pattern = parse_pattern(text);
        ASSERT_TRUE(pattern.has_value()) << text;
        EXPECT_EQ(entry, pattern->matches(ace(5))) << text;
        EXPECT_EQ(bind, pattern->matches(apply(1))) << text;
        EXPECT_EQ(uplink, pattern->matches(UplinkKey{1, 1})) << text;
    }
}

TEST(SimulatedOptions, refuse_what_they_do_not_understand)
{
    SimulatedOptions made;
    for (const char *text : {"", "siz=3", "size", "size=", "size=x", "size=-1", "size=1x", "delay", "delay=",
                             "delay=5x", "delay=5@a/b", "refuse=a/b/c", "refuse=a/1/2/3", "refuse=a/99999999999"})
        EXPECT_FALSE(made.add(text)) << text;
    EXPECT_TRUE(made.rules.empty());
}

TEST(SimulatedPlane, follows_every_rule_that_matches)
{
    SimulatedPlane plane(simulated({"refuse=edge/10/1", "delay=5@edge", "delay=7@*/10", "silent=*/11"}));
    const std::vector<Change> changes{wanted(ace(1)), wanted(ace(2)), wanted(ace(1, 11)), wanted(ace(1, 12, "core"))};
    const std::vector<Answer> answers = plane.program(changes);
    EXPECT_EQ(Status::refused, answers.at(0).status);
    EXPECT_EQ(milliseconds(12), answers.at(0).delay);
    EXPECT_EQ(Status::ok, answers.at(1).status);
    EXPECT_TRUE(answers.at(2).silent);
    EXPECT_EQ(milliseconds(5), answers.at(2).delay);
    EXPECT_FALSE(answers.at(3).silent);
    EXPECT_EQ(milliseconds(0), answers.at(3).delay);
}

TEST(StatusText, is_there_for_every_number)
{
    EXPECT_EQ("table full", status_text(101));
    EXPECT_EQ("unknown status", status_text(-7));
    EXPECT_EQ("number out of range", status_text(106));
    EXPECT_EQ("unknown status", status_text(107));
    EXPECT_STREQ("invalid argument", plx_result_text(FP_UDP_INVALID));
    EXPECT_STREQ("topic refused", plx_result_text(FP_UDP_TOPIC_REFUSED));
    for (const int32_t none : {1, -3, -18})
        EXPECT_STREQ("unknown result", plx_result_text(none));
}

} // namespace
} // namespace plx::plane
