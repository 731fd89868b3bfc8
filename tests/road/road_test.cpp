// Application and service nodes as processes of their own, with the rights that each has, on a server as it is shipped.
#include "road.hpp"

#include <csignal>
#include <gmock/gmock.h>

namespace plx::tool {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

class Nodes : public Road {
  protected:
    Nodes() { server_.start(); }
};

TEST_F(Nodes, all_answer_an_application)
{
    const auto first = ready_node(1), second = ready_node(2), third = ready_node(3);
    const Result result = apply({"--nodes", "3"});
    EXPECT_EQ(0, result.exit_code) << result.err;
    EXPECT_THAT(result.out, AllOf(ContainsRegex("acl 1 guard +stored"), ContainsRegex("acl 1 on port 5 in +programmed"),
                                  ContainsRegex("sn 1 first +programmed +ok"), ContainsRegex("sn 2 last +programmed"),
                                  HasSubstr("3 programmed, 1 stored; service nodes: 3")));
    EXPECT_THAT(result.err, ContainsRegex("waiting for service nodes to show that they live: [0-2] of 3"));
}

TEST_F(Nodes, fail_an_entry_that_one_of_them_has_no_room_for)
{
    const auto first = ready_node(1), second = ready_node(2), small = ready_node(3, {"--table-size", "1"});
    const Result result = apply({"--nodes", "3"});
    EXPECT_EQ(3, result.exit_code) << result.err;
    EXPECT_THAT(result.out, AllOf(ContainsRegex("acl 1 on port 5 in +programmed"),
                                  ContainsRegex("sn [12] (first|last) +programmed"),
                                  ContainsRegex("sn [12] (first|last) +failed +table full \\(101\\)"),
                                  HasSubstr("2 programmed, 1 stored, 1 failed; service nodes: 3")));
}

TEST_F(Nodes, make_an_atomic_policy_together)
{
    const auto first = ready_node(1), second = ready_node(2);
    const Result result = apply({"--nodes", "2", "--atomic"});
    EXPECT_EQ(0, result.exit_code) << result.err;
    EXPECT_THAT(result.out, HasSubstr("3 programmed, 1 stored; service nodes: 2"));
}

TEST_F(Nodes, take_up_what_was_written_before_they_came)
{
    const auto written = background(apply_arguments(), "plx-application");
    ASSERT_TRUE(written->says("no service node is alive: until one comes, nobody confirms"));
    const auto late = ready_node(1);
    EXPECT_EQ(0, written->wait()) << written->err();
    EXPECT_THAT(written->out(), HasSubstr("3 programmed, 1 stored"));
}

TEST_F(Nodes, leave_the_store_when_they_are_asked_to_end)
{
    const auto ended = ready_node(1), interrupted = ready_node(2), stays = ready_node(3);
    ASSERT_EQ(3U, show({"node"}).size());
    ended->signal(SIGTERM);
    interrupted->signal(SIGINT);
    EXPECT_EQ(0, ended->wait());
    EXPECT_EQ(0, interrupted->wait());
    const auto left = show({"node"});
    ASSERT_EQ(1U, left.size());
    EXPECT_EQ(3, left[0]["slot"]);
}

TEST_F(Nodes, that_are_missing_are_named_and_nothing_is_written)
{
    const auto only = ready_node(1);
    const Result result = apply({"--nodes", "2", "--wait", "0"});
    EXPECT_EQ(4, result.exit_code);
    EXPECT_THAT(result.err, AllOf(HasSubstr("waiting for service nodes"),
                                  HasSubstr("only 1 of 2 service nodes are alive; nothing was written")));
    EXPECT_TRUE(show({"acl"}).empty());
}

// The guide's program, on each of its three loops.
class Guide : public Nodes, public testing::WithParamInterface<const char *> {};

TEST_P(Guide, has_its_entries_confirmed_by_two_nodes)
{
    const auto first = ready_node(1), second = ready_node(2);
    const Result result = run_program(GUIDE_PROGRAM, {GetParam()}, environment("plx-application"));
    EXPECT_EQ(0, result.exit_code) << result.err;
    EXPECT_THAT(result.out, AllOf(HasSubstr("acl 1 on port 0x10: programmed"), HasSubstr("acl 1 entry 1: programmed"),
                                  HasSubstr("acl 1 entry 2: programmed"), HasSubstr("acl 1 entry 3: programmed")));
}

INSTANTIATE_TEST_SUITE_P(Loops, Guide, testing::Values("own", "epoll", "uv"),
                         [](const auto &loop) { return std::string(loop.param); });

} // namespace
} // namespace plx::tool
