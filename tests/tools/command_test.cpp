// The built plx, run as a program: exit codes, what it prints, and the simulated nodes behind a mem: store.
#include "support/process.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <sstream>

namespace plx::tool {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;

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

std::vector<std::string> words(const std::string &line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

class Apply : public testing::Test {
  protected:
    Result apply(const std::string &arguments, const std::string &policy = two_entries)
    {
        return run_program(PLX_PROGRAM, words("apply " + arguments + ' ' + directory_.write("policy.yaml", policy)));
    }

    TemporaryDirectory directory_;
};

// A policy whose entry is applied nowhere.
std::string unbound(const std::string &application)
{
    return "application: " + application + "\nacls: [{id: 1, class: 1, entries: [{sn: 1, action: {fwd: deny}}]}]\n";
}

struct Ending {
    const char *arguments;
    int exit_code;
    std::vector<const char *> shown; // regular expressions
    std::string policy = two_entries;
};

TEST_F(Apply, shows_what_became_of_each_entry_and_ends_with_its_exit_code)
{
    const Ending endings[] = {
        {"",
         0,
         {"acl 1 guard +stored", "acl 1 on port 5 in +programmed", "acl 1 sn 1 first +programmed +ok +[0-9.]+ m?s",
          "3 programmed, 1 stored; service nodes: 1"}},
        {"--nodes 5", 0, {"3 programmed, 1 stored; service nodes: 5"}},
        {"--simulate 1:delay=50", 0, {"3 programmed, 1 stored"}},
        {"--atomic --nodes 3", 0, {"3 programmed, 1 stored; service nodes: 3"}},
        {"--db 3", 0, {"3 programmed, 1 stored"}},
        {"--nodes 3 --table-size 10,10,1", 3, {"sn 1 first +programmed", "sn 2 last +failed +table full \\(101\\)"}},
        {"--nodes 2 --simulate 2:refuse=edge/1",
         3,
         {"on port 5 in +failed +refused by configuration \\(105\\)", "1 stored, 3 failed"}},
        {"--simulate 1:silent", 0, {"sn 1 +stored +not applied to a port", "2 stored;"}, unbound("edge")},
        {"", 0, {"sn 1 +programmed"}, unbound("security_app")}, // whose entries are confirmed without a binding
        {"--nodes 2 --simulate 2:silent=*/1/2 --timeout 2", 4, {"sn 1 first +programmed", "sn 2 last +timed out"}}};
    for (const auto &[arguments, exit_code, shown, policy] : endings) {
        SCOPED_TRACE(arguments + policy);
        const Result result = apply(arguments, policy);
        EXPECT_EQ(exit_code, result.exit_code);
        EXPECT_THAT(result.err, IsEmpty());
        for (const char *part : shown)
            EXPECT_THAT(result.out, ContainsRegex(part));
    }
}

TEST_F(Apply, does_not_call_programmed_what_only_aged)
{
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const Result result = run_program(PLX_PROGRAM, {"apply", "--nodes", "2", "--simulate", "1:silent=*/1/1", policy},
                                      {{"LD_PRELOAD", FAST_CLOCK}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}});
    EXPECT_EQ(4, result.exit_code) << result.err;
    EXPECT_THAT(result.out, AllOf(ContainsRegex("sn 1 first +aged +1 of 2 nodes answered +[0-9]+\\.[0-9]+ s"),
                                  ContainsRegex("sn 2 last +programmed")));
}

TEST_F(Apply, shows_its_progress_on_a_terminal)
{
    if (!has_terminals())
        GTEST_SKIP() << "this machine gives no terminals";
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const Result result = run_on_terminal(PLX_PROGRAM, {"apply", "--simulate", "1:delay=300", policy});
    EXPECT_EQ(0, result.exit_code);
    EXPECT_THAT(result.out, HasSubstr("\r\x1b[K1 nodes: 3 waiting, 1 stored"));
    EXPECT_THAT(result.out, HasSubstr("\r\x1b[KENTRY"));
}

TEST_F(Apply, programs_the_example_of_an_edge_switch)
{
    const Result result = run_program(PLX_PROGRAM, {"apply", "--nodes", "3", edge});
    EXPECT_EQ(0, result.exit_code) << result.out << result.err;
    const Result small = run_program(PLX_PROGRAM, {"apply", "--nodes", "3", "--table-size", "1024,1024,48", edge});
    EXPECT_EQ(3, small.exit_code);
    EXPECT_THAT(small.out, HasSubstr("table full"));
}

// ---- what is refused ------------------------------------------------------------------------------------------------

TEST_F(Apply, reports_every_error_of_a_file_and_writes_nothing)
{
    const Result result = apply("", "application: edge\nacls:\n- id: 1\n  clas: 1\n  entries:\n  - {sn: x}\n");
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
    const Result result = run_program(PLX_PROGRAM, {"apply", directory_.path() + "/missing.yaml"});
    EXPECT_EQ(2, result.exit_code);
    EXPECT_THAT(result.err, HasSubstr("missing.yaml: cannot be opened: No such file or directory"));
}

TEST(CommandLine, that_is_wrong_is_told_with_exit_code_1)
{
    struct Usage {
        const char *arguments, *error;
    };
    const Usage cases[] = {{"", "subcommand is required"},
                           {"aply", "required"},
                           {"apply", "FILE is required"},
                           {"apply FILE FILE", "not expected"},
                           {"apply --nods 2 FILE", "--nods"},
                           {"apply --nodes 0 FILE", "--nodes"},
                           {"apply --nodes 256 FILE", "--nodes"},
                           {"apply --timeout -1 FILE", "--timeout"},
                           {"apply --db x FILE", "--db"},
                           {"apply --table-size 1,2 FILE", "more sizes than there are nodes"},
                           {"apply --simulate 2:silent FILE", "'2:silent' is not NODE:WHAT"},
                           {"apply --simulate silent FILE", "is not NODE:WHAT"},
                           {"apply --simulate 1:sleep FILE", "is not NODE:WHAT"},
                           {"apply --store unix:/x --simulate 1:silent FILE", "are for nodes on a mem: store"},
                           {"apply --store nonsense FILE", "'nonsense' is not the address of a store"}};
    for (const auto &[arguments, error] : cases) {
        SCOPED_TRACE(arguments);
        const Result result = run_program(PLX_PROGRAM, words(std::regex_replace(arguments, std::regex("FILE"), edge)));
        EXPECT_EQ(1, result.exit_code);
        EXPECT_THAT(result.err, HasSubstr(error));
        EXPECT_THAT(result.out, IsEmpty());
    }
}

TEST_F(Apply, says_when_the_store_cannot_be_reached)
{
    const std::string policy = directory_.write("policy.yaml", two_entries);
    const std::string nobody = "unix:" + directory_.path() + "/nobody";
    for (const Result &result :
         {run_program(PLX_PROGRAM, {"apply", "--wait", "0", "--store", nobody, policy}),
          run_program(PLX_PROGRAM, {"apply", "--wait", "0.3", policy}, {{"PLX_STORE", nobody}})}) {
        EXPECT_EQ(5, result.exit_code);
        EXPECT_THAT(result.err, HasSubstr("plx apply: store unix:"));
        EXPECT_THAT(result.out, IsEmpty());
    }
}

TEST(Output, that_cannot_be_written_is_a_failure)
{
    for (const std::string arguments : {"apply " + edge, std::string("apply --help"), std::string("--version")}) {
        const Result result = run_program("/bin/sh", {"-c", PLX_PROGRAM " " + arguments + " >/dev/full"});
        EXPECT_EQ(8, result.exit_code) << arguments;
        EXPECT_THAT(result.err, HasSubstr("the output cannot be written"));
    }
}

TEST(Help, tells_of_every_option_and_exit_code)
{
    const Result result = run_program(PLX_PROGRAM, {"apply", "--help"});
    EXPECT_EQ(0, result.exit_code);
    for (const char *part : {"--store", "--db", "--timeout", "--nodes", "--table-size", "--simulate", "--atomic",
                             "--wait", "PLX_STORE", "Exit codes", "plx-attributes(7)"})
        EXPECT_THAT(result.out, HasSubstr(part));
    EXPECT_EQ(0, run_program(PLX_PROGRAM, {"--version"}).exit_code);
}

} // namespace
} // namespace plx::tool
