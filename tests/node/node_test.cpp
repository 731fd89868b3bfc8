// The node on an embedded store: what it answers, when it touches its plane, and what it survives.
#include "world.hpp"

#include <gmock/gmock.h>
#include <plx/s_policy.pb-c.h>

namespace plx::plane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int32_t full = static_cast<int32_t>(Status::table_full);

const auto &status = s_policy__ace_psta__descriptor;
const auto &counters = s_policy__ace_counter__descriptor;

class NodeTest : public World {};

TEST_F(NodeTest, answers_what_was_written_before_it_started_and_every_change_after_that)
{
    set(ace(1), 100);
    start();
    set(apply(1), 101);
    settle();
    set(ace(1), 102, packed(0x202, {1}));
    settle();
    EXPECT_THAT(answers(ace(1)), ElementsAre(Heard{ace(1), 0, 100}, Heard{ace(1), 0, 102}));
    EXPECT_THAT(answers(apply(1)), ElementsAre(Heard{apply(1), 0, 101}));
}

TEST_F(NodeTest, answers_settings_of_every_table)
{
    start();
    constexpr auto no_such_kind = static_cast<int32_t>(Status::out_of_range);
    const std::pair<Key, int32_t> cases[] = {{PortBindKey{"edge", 1, 2, 3, 3}, 0},
                                             {PortBindKey{"edge", 1, 2, 0, 3}, no_such_kind},
                                             {PortBindKey{"edge", 1, 2, 4, 3}, no_such_kind},
                                             {PortOffKey{5}, 0},
                                             {UplinkKey{6, 1}, 0},
                                             {SviRouterKey{}, 0}};
    for (const auto &[key, expected] : cases)
        set(key, 7);
    settle();
    for (const auto &[key, expected] : cases)
        EXPECT_THAT(answers(key), ElementsAre(Heard{key, expected, 7}));
}

TEST_F(NodeTest, answers_a_request_once_however_often_it_is_written)
{
    SimulatedPlane &plane = start();
    set(ace(1), 100);
    settle();
    set(ace(1), 100);
    settle();
    EXPECT_EQ(1, heard_of(ace(1)));
    const uint64_t touched = plane.touched();
    set(ace(1), 101);
    settle();
    EXPECT_EQ(2, heard_of(ace(1)));
    EXPECT_EQ(1U + touched, plane.touched()) << "only the settling was programmed: the entry's content is the same";
}

TEST_F(NodeTest, answers_beside_other_nodes_also_when_the_record_says_the_same)
{
    start(), start(), start(simulated({"size=0"}));
    set(ace(1), 100);
    settle(3);
    EXPECT_THAT(answers(ace(1)),
                testing::UnorderedElementsAre(Heard{ace(1), 0, 100}, Heard{ace(1), 0, 100}, Heard{ace(1), full, 100}));
}

TEST_F(NodeTest, takes_deleted_entries_out_so_that_others_fit)
{
    SimulatedPlane &plane = start(simulated({"size=1"}));
    set(ace(1), 100);
    set(ace(2), 101);
    settle();
    EXPECT_EQ(full, answers(ace(2)).at(0).status);
    del(ace(1));
    set(ace(2), 102);
    settle();
    EXPECT_EQ(0, answers(ace(2)).at(1).status);
    EXPECT_EQ(1U, plane.entries());
}

TEST_F(NodeTest, makes_the_last_of_changes_that_it_hears_of_together)
{
    SimulatedPlane &plane = start();
    set(ace(1), 100);
    del(ace(1));
    set(ace(2), 101);
    set(ace(2), 102);
    settle();
    EXPECT_EQ(1U, plane.entries());
    EXPECT_THAT(answers(ace(1)), IsEmpty());
    EXPECT_EQ(102U, answers(ace(2)).back().request);
}

TEST_F(NodeTest, ignores_names_that_no_application_can_have)
{
    SimulatedPlane &plane = start();
    set(ace(1, 10, std::string(40, 'x')), 100);
    set(ace(2), 101);
    settle();
    EXPECT_EQ(1U, plane.entries());
    EXPECT_EQ(1, heard_of(ace(2)));
}

TEST_F(NodeTest, stays_silent_where_it_is_told_to)
{
    start(simulated({"silent=edge/10/1"}));
    set(ace(1), 100);
    set(ace(2), 101);
    settle();
    EXPECT_EQ(0, heard_of(ace(1)));
    EXPECT_EQ(1, heard_of(ace(2)));
}

TEST_F(NodeTest, gives_no_late_answer_to_a_request_that_was_replaced_or_for_an_entry_that_is_gone)
{
    SimulatedPlane &plane = start(simulated({"delay=300@edge"}));
    set(ace(1), 100);
    set(ace(2), 101);
    EXPECT_TRUE(run_until([&] { return plane.entries() == 2; }));
    EXPECT_THAT(heard_, IsEmpty());
    set(ace(1), 102); // the same content, which is answered at once
    del(ace(2));
    set(ace(3), 103);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(3)) == 1; }));
    settle();
    EXPECT_THAT(answers(ace(1)), ElementsAre(Heard{ace(1), 0, 102}));
    EXPECT_THAT(answers(ace(2)), IsEmpty());
}

TEST_F(NodeTest, publishes_counters_of_programmed_entries_alone)
{
    start(simulated({"refuse=edge/10/2"}));
    set(ace(1), 100);
    set(ace(2), 101);
    EXPECT_TRUE(run_until([&] { return counters_.size() >= 2; }));
    EXPECT_EQ((Heard{ace(1), 16, 1024}), counters_[0]);
    EXPECT_EQ((Heard{ace(1), 32, 2048}), counters_[1]);
}

TEST_F(NodeTest, keeps_showing_that_it_lives_but_no_counters_that_stand_still)
{
    SimulatedOptions quiet;
    quiet.packets_per_reading = 0;
    start(quiet);
    set(ace(1), 100);
    EXPECT_TRUE(run_until([&] { return heartbeats_ >= 10; }));
    EXPECT_EQ(1U, counters_.size());
}

TEST_F(NodeTest, takes_what_it_told_of_an_entry_away_with_it)
{
    SimulatedOptions quiet;
    quiet.packets_per_reading = 0;
    start(quiet);
    set(ace(1), 100);
    set(ace(2), 101);
    EXPECT_TRUE(run_until([&] { return stored(counters).size() == 2; }));
    del(ace(1));
    settle();
    EXPECT_THAT(stored(status), ElementsAre(ace(2)));
    EXPECT_THAT(stored(counters), ElementsAre(ace(2)));
    set(ace(1), 102);
    settle();
    EXPECT_THAT(stored(status), ElementsAre(ace(1), ace(2)));
    EXPECT_TRUE(run_until([&] { return stored(counters).size() == 2; })) << "the same numbers are told anew";
}

// ---- restart --------------------------------------------------------------------------------------------------------

TEST_F(NodeTest, touches_after_a_restart_only_what_differs)
{
    SimulatedPlane plane({});
    {
        const auto before = node(plane);
        for (uint64_t sn = 1; sn <= 4; ++sn)
            set(ace(sn), 100 + sn);
        settle();
    }
    const uint64_t touched = plane.touched();
    del(ace(1));
    set(ace(2), 202, packed(0x202, {0}));
    set(ace(5), 205);
    const auto after = node(plane);
    EXPECT_EQ(3U + touched, plane.touched());
    EXPECT_EQ(4U + 1U, plane.installed().size()) << "four entries and the settling's port";
    settle();
    EXPECT_EQ(1, heard_of(ace(3))) << "an answer that is in the store is not repeated";
    EXPECT_EQ(202U, answers(ace(2)).back().request);
}

TEST_F(NodeTest, answers_after_a_restart_what_it_had_programmed_but_not_answered)
{
    SimulatedPlane plane(simulated({"delay=3600000@edge"}));
    {
        const auto before = node(plane);
        set(ace(1), 100);
        EXPECT_TRUE(run_until([&] { return plane.entries() == 1; }));
    }
    const uint64_t touched = plane.touched();
    const auto after = node(plane);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(1)) == 1; }));
    EXPECT_EQ(touched, plane.touched());
}

TEST_F(NodeTest, clears_at_its_start_what_is_left_of_entries_that_went)
{
    SimulatedPlane plane({});
    {
        const auto before = node(plane);
        for (uint64_t sn = 1; sn <= 3; ++sn)
            set(ace(sn), 100 + sn);
        EXPECT_TRUE(run_until([&] { return stored(counters).size() == 3; }));
    }
    del(ace(1));
    set_marker("edge", S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE, 60);
    SimulatedPlane empty({});
    const auto after = node(empty);
    settle();
    EXPECT_EQ(0U, empty.entries()) << "the marker stands";
    EXPECT_THAT(stored(status), ElementsAre(ace(2), ace(3)));
    EXPECT_THAT(stored(counters), ElementsAre(ace(2), ace(3)));
}

TEST_F(NodeTest, removes_nothing_of_a_table_that_it_cannot_read_whole)
{
    SimulatedPlane plane({});
    {
        const auto before = node(plane);
        set(ace(1), 100);
        settle();
    }
    del(ace(1));
    set(ace(2, 10, std::string(40, 'x')), 101);
    const auto after = node(plane);
    settle();
    EXPECT_EQ(1U, plane.entries());
    EXPECT_THAT(stored(status), ElementsAre(ace(1)));
}

// ---- changes that the store could not keep --------------------------------------------------------------------------

class NodeOnAShortLog : public World {
  protected:
    NodeOnAShortLog() : World("?log=2") {}
};

TEST_F(NodeOnAShortLog, compares_the_tables_when_changes_were_missed)
{
    SimulatedPlane &plane = start();
    set(ace(1), 100);
    set(ace(2), 101);
    settle();
    const uint64_t touched = plane.touched();
    del(ace(2));
    for (uint64_t sn = 3; sn <= 9; ++sn)
        set(ace(sn), 100 + sn);
    EXPECT_TRUE(run_until([&] { return plane.entries() == 8; }));
    EXPECT_FALSE(plane.installed().contains(ace(2)));
    EXPECT_EQ(8U + touched, plane.touched()) << "entry 1 is not touched";
}

} // namespace
} // namespace plx::plane
