// Commit markers: an application's changes staged, and made together.
#include "world.hpp"

#include <plx/s_policy.pb-c.h>

namespace plx::plane {
namespace {

constexpr uint32_t enable = S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_ENABLE;
constexpr uint32_t publish = S_POLICY__APP_COMMIT_OP_TYPE_T__APP_COMMIT_PUBLISH;

class CommitTest : public World {
  protected:
    // A change is staged, what ends the staging makes it, and the next is made at once.
    void expect_staging(uint32_t seconds, const std::function<void()> &end)
    {
        start();
        set_marker("edge", enable, seconds);
        set(ace(1), 100);
        settle();
        EXPECT_EQ(0, heard_of(ace(1)));
        end();
        EXPECT_TRUE(run_until([&] { return heard_of(ace(1)) == 1; }));
        set(ace(2), 101);
        settle();
        EXPECT_EQ(1, heard_of(ace(2)));
    }
};

TEST_F(CommitTest, makes_the_changes_together_when_they_are_published)
{
    const SimulatedPlane &plane = start();
    set(ace(1), 100);
    settle();

    set_marker("edge", enable, 60);
    set(ace(2), 101);
    set(apply(1), 102);
    del(ace(1));
    settle();
    EXPECT_TRUE(plane.installed().contains(ace(1)));
    EXPECT_EQ(0, heard_of(ace(2)));

    const uint64_t batches = plane.batches();
    const uint64_t touched = plane.touched();
    set_marker("edge", publish, 0);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(2)) == 1 && heard_of(apply(1)) == 1; }));
    EXPECT_EQ(1U + batches, plane.batches());
    EXPECT_EQ(3U + touched, plane.touched());
    EXPECT_FALSE(plane.installed().contains(ace(1)));
}

TEST_F(CommitTest, frees_before_it_takes)
{
    start(simulated({"size=1"}));
    set(ace(5), 100);
    settle();
    set_marker("edge", enable, 60);
    set(ace(1), 101);
    del(ace(5));
    set_marker("edge", publish, 0);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(1)) == 1; }));
    EXPECT_EQ(0, answers(ace(1)).at(0).status);
}

TEST_F(CommitTest, stages_again_after_a_publication_while_the_marker_stands)
{
    start();
    set_marker("edge", enable, 60);
    set_marker("edge", publish, 0);
    settle();
    set(ace(1), 100);
    settle();
    EXPECT_EQ(0, heard_of(ace(1)));
    set_marker("edge", publish, 0);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(1)) == 1; }));
}

TEST_F(CommitTest, leaves_other_applications_and_port_settings_alone)
{
    start();
    set_marker("edge", enable, 60);
    set(ace(1, 10, "core"), 100);
    set(PortOffKey{3}, 101);
    settle();
    EXPECT_EQ(1, heard_of(ace(1, 10, "core")));
    EXPECT_EQ(1, heard_of(PortOffKey{3}));
}

TEST_F(CommitTest, ends_with_the_marker_that_is_taken_away)
{
    expect_staging(60, [this] { del_marker("edge", enable); });
}

TEST_F(CommitTest, ends_when_the_seconds_have_passed_though_the_marker_is_still_there)
{
    expect_staging(1, [] {});
}

TEST_F(CommitTest, holds_for_a_node_that_starts_in_the_middle)
{
    set_marker("edge", enable, 60);
    set(ace(1), 100);
    start();
    settle();
    EXPECT_EQ(0, heard_of(ace(1)));
    set_marker("edge", publish, 0);
    EXPECT_TRUE(run_until([&] { return heard_of(ace(1)) == 1; }));
}

TEST_F(CommitTest, ignores_markers_without_seconds_of_unknown_kind_or_of_nobody)
{
    start();
    set_marker("core", enable, 0);
    set_marker("edge", 7, 60);
    set_marker("", publish, 0);
    set_marker(std::string(300, 'y'), enable, 60);
    set(ace(1), 100);
    set(ace(1, 10, "core"), 101);
    settle();
    EXPECT_EQ(1, heard_of(ace(1)));
    EXPECT_EQ(1, heard_of(ace(1, 10, "core")));
}

} // namespace
} // namespace plx::plane
