// plx show and plx monitor on a store that an application and a node work on.
#include "road.hpp"

#include <gmock/gmock.h>
#include <set>

namespace plx::tool {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *other_policy = R"(application: other
acls:
  - {id: 2, class: 1, name: second, entries: [{sn: 9, action: {fwd: permit}}]}
applies:
  - {acl: 2, port: 6, direction: out}
)";

class Looking : public Road {
  protected:
    Looking()
    {
        server_.start();
        node_ = ready_node(1);
    }

    void write_both()
    {
        ASSERT_EQ(0, apply({"--nodes", "1"}).exit_code);
        ASSERT_EQ(0, apply({"--nodes", "1"}, other_policy).exit_code);
    }

    std::string text(const Arguments &what)
    {
        Arguments arguments = {"show"};
        arguments.insert(arguments.end(), what.begin(), what.end());
        const Result result = as("plx-reader", arguments);
        EXPECT_EQ(0, result.exit_code) << result.err;
        EXPECT_THAT(result.err, IsEmpty());
        return result.out;
    }

    std::unique_ptr<Process> node_;
};

TEST_F(Looking, show_tells_what_is_asked_for_and_what_was_answered)
{
    write_both();
    const auto entries = show({"ace", "--app", "edge", "--sn", "1"});
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ("edge", entries[0]["t_app_type"]);
    EXPECT_EQ(1, entries[0]["acl_id"]);
    EXPECT_EQ("10.0.0.0/8", entries[0]["attributes"]["match"]["ipv4_src"]);
    EXPECT_EQ("ipv4", entries[0]["attributes"]["match"]["etype"]);
    EXPECT_EQ("deny", entries[0]["attributes"]["action"]["fwd"]);
    EXPECT_EQ("ok", entries[0]["outcome"]);
    EXPECT_EQ("6669727374", entries[0]["priv"]); // "first", without the zeros behind it
    EXPECT_THAT(text({"ace", "--app", "edge"}), AllOf(HasSubstr("ipv4_src=10.0.0.0/8"), HasSubstr("fwd=deny")));
    EXPECT_THAT(text({"apply"}), AllOf(ContainsRegex("edge.* ok"), ContainsRegex("other.* ok")));
    EXPECT_EQ(1U, show({"node"}).size());
}

struct Filter {
    std::vector<std::string> what;
    size_t records;
};

TEST_F(Looking, show_takes_the_records_that_are_asked_for)
{
    write_both();
    const Filter filters[] = {{{"acl"}, 2},
                              {{"acl", "--app", "edge"}, 1},
                              {{"acl", "--app", "edg"}, 0},
                              {{"ace"}, 3},
                              {{"ace", "--acl", "1"}, 2},
                              {{"ace", "--acl", "2", "--app", "edge"}, 0},
                              {{"ace", "--sn", "9"}, 1},
                              {{"acl", "--sn", "9"}, 0}, // an ACL has no such number
                              {{"apply", "--app", "other"}, 1},
                              {{"node", "--app", "edge"}, 0},
                              {{"port"}, 0},
                              {{"commit"}, 0}};
    for (const Filter &filter : filters)
        EXPECT_EQ(filter.records, show(filter.what).size()) << json(filter.what);
}

TEST_F(Looking, show_finds_a_store_with_nothing_in_it)
{
    EXPECT_THAT(text({"acl"}), IsEmpty());
    EXPECT_THAT(text({"acl", "--json"}), IsEmpty());
}

TEST_F(Looking, show_refuses_what_there_is_not)
{
    const Result result = as("plx-reader", {"show", "aces"});
    EXPECT_EQ(1, result.exit_code);
    EXPECT_THAT(result.err, HasSubstr("there is nothing called 'aces'"));
}

TEST_F(Looking, show_tells_a_record_that_cannot_be_read_and_shows_the_rest)
{
    write_both();
    const std::string second = "plx{8:ace}:edge,a1,a2";
    ASSERT_EQ("1", server_.run({"DEL", second}));
    server_.run({"SET", second, "foreign"});
    const Result result = as("plx-reader", {"show", "ace"});
    EXPECT_EQ(3, result.exit_code);
    EXPECT_THAT(result.err, ContainsRegex("ace: the record behind t_app_type=edge acl_id=1 sn=1 cannot be read: .+"));
    EXPECT_THAT(result.out, AllOf(ContainsRegex("edge +1 +1 "), ContainsRegex("other +2 +9 ")));
}

TEST_F(Looking, monitor_tells_each_change_of_an_application_as_an_object)
{
    // written: an ACL, two entries and a binding, the latter three answered
    const auto monitor =
        background({"monitor", "acl", "ace", "apply", "--app", "edge", "--json", "--count", "7"}, "plx-reader");
    ASSERT_TRUE(monitor->says("watching 5 tables")) << monitor->err();
    write_both();
    EXPECT_EQ(0, monitor->wait(20));
    std::multiset<std::string> seen;
    for (const json &change : objects(monitor->out()))
        seen.insert(change.value("event", "") + " " + change.value("table", "") + " " + change.value("outcome", ""));
    EXPECT_EQ((std::multiset<std::string>{"set ace ", "set ace ", "set acl ", "set apply ", "status ace_psta ok",
                                          "status ace_psta ok", "status apply_psta ok"}),
              seen);
    EXPECT_THAT(monitor->out(), Not(HasSubstr("other")));
}

TEST_F(Looking, monitor_tells_changes_as_lines_of_text)
{
    const auto monitor = background({"monitor", "acl", "--count", "3"}, "plx-reader");
    ASSERT_TRUE(monitor->says("watching 1 tables")) << monitor->err();
    write_both();
    ASSERT_EQ(0, apply({"--nodes", "1"}, "application: edge\nacls: []\n").exit_code);
    EXPECT_EQ(0, monitor->wait(20));
    EXPECT_THAT(monitor->out(),
                AllOf(ContainsRegex("event=set table=acl .*edge"), ContainsRegex("event=set table=acl .*other"),
                      ContainsRegex("event=deleted table=acl .*edge")));
}

} // namespace
} // namespace plx::tool
