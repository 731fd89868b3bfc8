// The built plx, run as a program: exit codes, what it prints, and the simulated nodes behind a mem: store.
#include "process.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string edge = EXAMPLES "/edge.yaml";

constexpr const char *two_entries = R"(application: edge
acls:
  - id: 1
    class: 1
    name: guard
    entries:
      - {sn: 1, name: first, match: {etype: arp}, action: {fwd: deny}}
      - {sn: 2, name: last, default: true, action: {fwd: permit}}
applies:
  - {acl: 1, port: 5, direction: in}
)";

class Apply : public testing::Test {
  protected:
    Result apply(std::vector<std::string> arguments, const std::string &policy = two_entries)
    {
        arguments.insert(arguments.begin(), "apply");
        arguments.push_back(directory_.write("policy.yaml", policy));
        return run_plx(arguments);
    }

    TemporaryDirectory directory_;
};

TEST_F(Apply, programs_a_policy_on_a_node_of_its_own)
{
    const Result result = apply({});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_THAT(result.out, AllOf(ContainsRegex("acl 1 guard +stored"), ContainsRegex("acl 1 on port 5 in +programmed"),
                                  ContainsRegex("acl 1 sn 1 first +programmed +ok +[0-9.]+ m?s"),
                                  HasSubstr("3 programmed, 1 stored; service nodes: 1")));
}

TEST_F(Apply, takes_the_answers_of_all_nodes)
{
    const Result result = apply({"--nodes", "5"});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, HasSubstr("3 programmed, 1 stored; service nodes: 5"));
}

TEST_F(Apply, shows_what_one_of_the_nodes_has_no_room_for)
{
    const Result result = apply({"--nodes", "3", "--table-size", "10,10,1"});
    EXPECT_EQ(3, result.exit_code);
    EXPECT_THAT(result.out, AllOf(ContainsRegex("sn 1 first +programmed"),
                                  ContainsRegex("sn 2 last +failed +table full \\(101\\)")));
}

TEST_F(Apply, shows_a_refused_binding)
{
    const Result result = apply({"--nodes", "2", "--simulate", "2:refuse=edge/1"});
    EXPECT_EQ(3, result.exit_code);
    EXPECT_THAT(result.out, ContainsRegex("on port 5 in +failed +refused by configuration \\(105\\)"));
    EXPECT_THAT(result.out, HasSubstr("1 stored, 3 failed"));
}

TEST_F(Apply, calls_entries_that_nobody_need_confirm_stored)
{
    const Result result = apply({"--simulate", "1:silent"}, "application: edge\nacls:\n- {id: 1, class: 1, entries: "
                                                            "[{sn: 1, action: {fwd: deny}}]}\n");
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, AllOf(ContainsRegex("sn 1 +stored +not applied to a port"), HasSubstr("2 stored;")));
}

TEST_F(Apply, has_the_entries_of_the_security_application_confirmed_without_a_binding)
{
    const Result result = apply({}, "application: security_app\nacls:\n- {id: 1, class: 1, entries: "
                                    "[{sn: 1, action: {fwd: deny}}]}\n");
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, ContainsRegex("sn 1 +programmed"));
}

TEST_F(Apply, gives_up_on_a_silent_node_when_its_time_is_over)
{
    const Result result = apply({"--nodes", "2", "--simulate", "2:silent=*/1/2", "--timeout", "2"});
    EXPECT_EQ(4, result.exit_code);
    EXPECT_THAT(result.out, AllOf(ContainsRegex("sn 1 first +programmed"), ContainsRegex("sn 2 last +timed out")));
}

TEST_F(Apply, does_not_call_programmed_what_only_aged)
{
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const Result result = run_plx({"apply", "--nodes", "2", "--simulate", "1:silent=*/1/1", policy},
                                  {{"LD_PRELOAD", FAST_CLOCK}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}});
    EXPECT_EQ(4, result.exit_code) << result.err;
    EXPECT_THAT(result.out, AllOf(ContainsRegex("sn 1 first +aged +1 of 2 nodes answered +[0-9]+\\.[0-9]+ s"),
                                  ContainsRegex("sn 2 last +programmed")));
}

TEST_F(Apply, waits_for_answers_that_are_late)
{
    const Result result = apply({"--simulate", "1:delay=50"});
    EXPECT_EQ(0, result.exit_code);
}

TEST_F(Apply, makes_a_staged_policy_take_effect_as_one)
{
    const Result result = apply({"--atomic", "--nodes", "3"});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, HasSubstr("3 programmed, 1 stored; service nodes: 3"));
}

TEST_F(Apply, writes_to_the_database_that_it_is_given)
{
    const Result result = apply({"--db", "3"});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, HasSubstr("3 programmed, 1 stored"));
}

TEST_F(Apply, shows_its_progress_on_a_terminal)
{
    if (!has_terminals())
        GTEST_SKIP() << "this machine gives no terminals";
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const Result result = run_plx_on_terminal({"apply", "--simulate", "1:delay=300", policy});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, HasSubstr("\r\x1b[K1 nodes: 3 waiting, 1 stored"));
    EXPECT_THAT(result.out, HasSubstr("\r\x1b[KENTRY"));
}

TEST_F(Apply, programs_the_example_of_an_edge_switch)
{
    const Result result = run_plx({"apply", "--nodes", "3", edge});
    EXPECT_EQ(0, result.exit_code) << result.out << result.err;
    const Result small = run_plx({"apply", "--nodes", "3", "--table-size", "1024,1024,48", edge});
    EXPECT_EQ(3, small.exit_code);
    EXPECT_THAT(small.out, HasSubstr("table full"));
}

// ---- what is refused ------------------------------------------------------------------------------------------------

TEST_F(Apply, reports_every_error_of_a_file_and_writes_nothing)
{
    const Result result = apply({}, "application: edge\nacls:\n- id: 1\n  clas: 1\n  entries:\n  - {sn: x}\n");
    EXPECT_EQ(2, result.exit_code);
    EXPECT_THAT(result.out, IsEmpty());
    const std::string file = directory_.path() + "/policy.yaml";
    EXPECT_EQ(file + ":3:3: an ACL has no 'class'\n" + file +
                  ":4:3: an ACL has no key 'clas'; did you mean 'class'?\n" + file +
                  ":6:10: the entry's sn: 'x' is not a number from 0 to 18446744073709551615\n" +
                  "plx apply: nothing was written: 3 errors in the policy\n",
              result.err);
}

TEST_F(Apply, refuses_a_file_that_cannot_be_read)
{
    const Result result = run_plx({"apply", directory_.path() + "/missing.yaml"});
    EXPECT_EQ(2, result.exit_code);
    EXPECT_THAT(result.err, HasSubstr("missing.yaml: cannot be opened: No such file or directory"));
}

struct Usage {
    std::vector<std::string> arguments;
    const char *error;
};

void PrintTo(const Usage &usage, std::ostream *out)
{
    *out << usage.error;
}

class WrongUsage : public testing::TestWithParam<Usage> {};

TEST_P(WrongUsage, is_told_with_exit_code_1)
{
    std::vector<std::string> arguments = GetParam().arguments;
    std::replace(arguments.begin(), arguments.end(), std::string("FILE"), edge);
    const Result result = run_plx(arguments);
    EXPECT_EQ(1, result.exit_code);
    EXPECT_THAT(result.err, HasSubstr(GetParam().error));
    EXPECT_THAT(result.out, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, WrongUsage,
    testing::Values(
        Usage{{}, "subcommand is required"}, Usage{{"aply"}, "required"}, Usage{{"apply"}, "FILE is required"},
        Usage{{"apply", "FILE", "FILE"}, "not expected"}, Usage{{"apply", "--nods", "2", "FILE"}, "--nods"},
        Usage{{"apply", "--nodes", "0", "FILE"}, "--nodes"}, Usage{{"apply", "--nodes", "256", "FILE"}, "--nodes"},
        Usage{{"apply", "--timeout", "-1", "FILE"}, "--timeout"}, Usage{{"apply", "--db", "x", "FILE"}, "--db"},
        Usage{{"apply", "--table-size", "1,2", "FILE"}, "more sizes than there are nodes"},
        Usage{{"apply", "--simulate", "2:silent", "FILE"}, "'2:silent' is not NODE:WHAT"},
        Usage{{"apply", "--simulate", "silent", "FILE"}, "is not NODE:WHAT"},
        Usage{{"apply", "--simulate", "1:sleep", "FILE"}, "is not NODE:WHAT"},
        Usage{{"apply", "--store", "unix:/x", "--simulate", "1:silent", "FILE"}, "are for nodes on a mem: store"},
        Usage{{"apply", "--store", "nonsense", "FILE"}, "'nonsense' is not the address of a store"}));

TEST_F(Apply, says_when_the_store_cannot_be_reached)
{
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const std::string nobody = "unix:" + directory_.path() + "/nobody";
    for (const Result &result : {run_plx({"apply", "--wait", "0", "--store", nobody, policy}),
                                 run_plx({"apply", "--wait", "0.3", policy}, {{"PLX_STORE", nobody}})}) {
        EXPECT_EQ(5, result.exit_code);
        EXPECT_THAT(result.err, HasSubstr("plx apply: store unix:"));
        EXPECT_THAT(result.out, IsEmpty());
    }
}

TEST(Help, tells_of_every_option_and_exit_code)
{
    const Result result = run_plx({"apply", "--help"});
    EXPECT_EQ(0, result.exit_code);
    for (const char *part : {"--store", "--db", "--timeout", "--nodes", "--table-size", "--simulate", "--atomic",
                             "--wait", "PLX_STORE", "Exit codes", "docs/attributes.md"})
        EXPECT_THAT(result.out, HasSubstr(part));
    EXPECT_EQ(0, run_plx({"--version"}).exit_code);
}

} // namespace
} // namespace plx::tool
