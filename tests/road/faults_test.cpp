// What goes wrong between processes: nodes killed, a store that is not there yet or goes away, users without rights.
#include "road.hpp"

#include <csignal>
#include <gmock/gmock.h>

namespace plx::tool {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr const char *denied = "the store refuses this user the operation";

class Faults : public Road {
  protected:
    // Waits until the latest requests of the first entries have this outcome on record, looking at each answer.
    bool entries_become(const std::string &outcome, size_t first = 0, size_t last = 1)
    {
        const auto answers = background({"monitor", "ace"}, "plx-reader");
        return answers->says("watching 2 tables") && answers->wait_for([&] {
            const auto entries = show({"ace"});
            return entries.size() == 2 && entries[first]["outcome"] == outcome && entries[last]["outcome"] == outcome;
        });
    }
};

// Takes the 20 s after which applications count a silent node out.
TEST_F(Faults, a_killed_node_is_waited_for_until_it_expires_and_catches_up_when_it_is_back)
{
    server_.start();
    const auto first = ready_node(1), second = ready_node(2), mute = ready_node(3, {"--simulate", "silent"});
    const auto written = background(apply_arguments({"--nodes", "3"}), "plx-application");
    ASSERT_TRUE(entries_become("ok")) << written->err();
    mute->signal(SIGKILL);
    EXPECT_EQ(-SIGKILL, mute->wait());
    EXPECT_TRUE(written->running()) << written->out();
    EXPECT_EQ(0, written->wait()) << written->err();
    EXPECT_THAT(written->out(), HasSubstr("3 programmed, 1 stored; service nodes: 2"));

    // back, and with another answer, so that it can be told from those of the others
    const auto back = ready_node(3, {"--simulate", "refuse"});
    EXPECT_TRUE(entries_become("refused by configuration"));
    EXPECT_EQ(3U, show({"node"}).size());
}

TEST_F(Faults, an_answer_that_the_store_does_not_take_comes_again_and_holds_no_other_back)
{
    server_.start();
    const std::string status = "plx{8:ace_psta}:edge,a1,a1";
    server_.run({"SET", status, "foreign"});
    const auto service = ready_node(1);
    const auto written = background(apply_arguments({"--nodes", "1"}), "plx-application");
    EXPECT_TRUE(entries_become("ok", 1));
    EXPECT_TRUE(written->running()) << written->out();
    server_.run({"DEL", status});
    EXPECT_EQ(0, written->wait()) << written->err();
}

TEST_F(Faults, a_store_that_is_yet_to_come_is_waited_for)
{
    const auto service = node(1);
    const auto written = background(apply_arguments({"--nodes", "1"}), "plx-application");
    EXPECT_TRUE(service->says("waiting for the store unix:")) << service->err();
    EXPECT_TRUE(written->says("waiting for the store unix:")) << written->err();
    server_.start();
    EXPECT_TRUE(service->says("ready")) << service->err();
    EXPECT_EQ(0, written->wait()) << written->err();
    EXPECT_THAT(written->out(), HasSubstr("3 programmed, 1 stored; service nodes: 1"));
    EXPECT_THAT(written->err(), HasSubstr("waiting for service nodes to show that they live: 0 of 1"));
}

TEST_F(Faults, a_node_that_waits_for_its_store_can_be_ended)
{
    const auto service = node(1);
    ASSERT_TRUE(service->says("waiting for the store")) << service->err();
    service->signal(SIGTERM);
    EXPECT_EQ(0, service->wait());
}

TEST_F(Faults, a_node_outlives_a_crash_of_the_store)
{
    server_.start();
    const auto service = ready_node(1);
    ASSERT_EQ(0, apply({"--nodes", "1"}).exit_code);
    server_.crash();
    server_.start();
    const Result again = apply({"--nodes", "1"});
    EXPECT_EQ(0, again.exit_code) << again.err;
    EXPECT_TRUE(service->running());
}

// ---- rights ---------------------------------------------------------------------------------------------------------

TEST_F(Faults, a_reader_that_applies_is_refused)
{
    server_.start();
    const auto service = ready_node(1);
    const Result result = as("plx-reader", apply_arguments({"--nodes", "1", "--timeout", "5"}));
    EXPECT_EQ(3, result.exit_code) << result.out;
    EXPECT_THAT(result.err, HasSubstr(denied));
    EXPECT_TRUE(show({"acl"}).empty());
}

TEST_F(Faults, a_node_that_may_not_write_its_record_is_refused)
{
    server_.start();
    const auto service = node(1, {}, "plx-application");
    EXPECT_EQ(5, service->wait());
    EXPECT_THAT(service->err(), AllOf(HasSubstr("plx node 0/1/0: cannot start: "), HasSubstr(denied)));
}

TEST_F(Faults, a_wrong_password_is_refused_without_waiting_and_stays_hidden)
{
    server_.start();
    const std::string password = directory_.write("password", "wrong-secret\n");
    const std::string store = "unix:" + server_.socket() + "?user=plx-reader&password-file=" + password;
    Arguments commands[] = {{"show", "acl"}, {"monitor"}, {"node"}, apply_arguments()};
    for (Arguments &arguments : commands) {
        arguments.insert(arguments.end(), {"--store", store});
        const Result result = run_program(PLX_PROGRAM, arguments);
        EXPECT_EQ(5, result.exit_code) << arguments[0];
        EXPECT_THAT(result.err, AllOf(HasSubstr(denied), testing::Not(HasSubstr("waiting")),
                                      testing::Not(HasSubstr("wrong-secret"))));
    }
}

} // namespace
} // namespace plx::tool
