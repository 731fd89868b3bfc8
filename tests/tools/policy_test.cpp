// Policies from text: what they mean, and every fault at its place.
#include "policy.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Read {
    std::optional<Policy> policy;
    std::vector<std::string> errors; // "line:column: message"
};

Read read(const std::string &text)
{
    Read result;
    Errors errors;
    Part root;
    if (parse_document(text, root, errors))
        result.policy = read_policy(root, errors);
    for (const std::string &line : errors.lines("f"))
        result.errors.push_back(line.substr(2));
    return result;
}

TEST(Policy, is_read_whole)
{
    const Read result = read(R"(application: edge
acls:
  - id: 10
    class: 255
    name: guard
    entries:
      - sn: 18446744073709551615
        name: web
        priority: 7
        default: yes
        match: {etype: ipv4, dst_l4port: https}
        action: {fwd: permit}
        control: {no_deny: true}
applies:
  - {acl: 0xa, port: [1-3, 7], direction: out, priority: 9}
)");
    ASSERT_THAT(result.errors, IsEmpty());
    const Policy &policy = *result.policy;
    EXPECT_EQ("edge", policy.application);
    ASSERT_EQ(1U, policy.acls.size());
    EXPECT_EQ(10U, policy.acls[0].id);
    EXPECT_EQ(255, policy.acls[0].cls);
    EXPECT_EQ("guard", policy.acls[0].name);
    const PolicyEntry &entry = policy.acls[0].entries.at(0);
    EXPECT_EQ(UINT64_MAX, entry.sn);
    EXPECT_EQ(7U, entry.priority);
    EXPECT_TRUE(entry.is_default);
    ASSERT_EQ(4U, entry.attributes.size());
    EXPECT_EQ("etype", entry.attributes[0].form->name);
    EXPECT_EQ(FP_UDP_ATTR_CTRL, entry.attributes[3].form->cls);
    ASSERT_EQ(4U, policy.applies.size());
    EXPECT_EQ(7U, policy.applies[3].port);
    EXPECT_EQ(1U, policy.applies[3].direction);
    EXPECT_EQ(9U, policy.applies[3].priority);
}

TEST(Policy, may_apply_an_acl_that_stands_further_down_and_use_aliases)
{
    const Read result = read(R"(application: edge
applies: [{acl: 1, port: 1, direction: in}, {acl: 2, port: 1, direction: in}]
acls:
  - {id: 1, class: 1, entries: &deny [{sn: 1, action: {fwd: deny}}]}
  - {id: 2, class: 1, entries: *deny}
)");
    ASSERT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(1U, result.policy->acls.at(1).entries.size());
}

// Faults that are reported alone, each at its place.
struct Fault {
    const char *text, *error;
};

void expect_one_fault(const std::string &text, const char *error)
{
    const Read result = read(text);
    EXPECT_FALSE(result.policy.has_value());
    EXPECT_THAT(result.errors, ElementsAre(HasSubstr(error))) << text;
}

// One ACL with what is given, then applies.
std::string with_entry(const std::string &entry, const std::string &applies = "[]")
{
    return "application: a\nacls:\n- id: 1\n  class: 1\n  entries:\n  - " + entry + "\napplies: " + applies + "\n";
}

TEST(OneFault, in_the_shape_is_reported_alone_at_its_place)
{
    constexpr Fault faults[] = {
        {"", "1:1: the file is empty"},
        {"# nothing\n", "1:1: the file is empty"},
        {"just text", "1:1: the policy must be a map, not a plain value"},
        {"- a\n- b\n", "1:1: the policy must be a map, not a list"},
        {"acls: []\n", "1:1: the policy has no 'application'"},
        {"application: a\n", "1:1: the policy has no 'acls'"},
        {"application: a\nacls: {}\n", "2:7: acls must be a list, not a map"},
        {"application: a\nacls:\n", "acls must be a list, not nothing"},
        {"application: a\nacls: []\nacl: []\n", "3:1: the policy has no key 'acl'; did you mean 'acls'?"},
        {"application: a\nacls: []\nacls: []\n", "3:1: 'acls' is there twice, first on line 2"},
        {"application: a\nacls: []\n? [x]\n: 1\n", "a key must be a plain value, not a list"},
        {"application: a\nacls: [\n", ""},
        {"application: 'a\n", ""},
        {"application: a\nacls: *nobody\n", ""},
        {"application: a\nacls: []\n---\nb: c\n", "a second document"},
        {"application: 12345678901234567890123456789012\nacls: []\n",
         "1:14: the application type has 32 characters, more than 31"},
        {"application: ''\nacls: []\n", "1:14: the application type is empty"},
        {"application: \"a\\0b\"\nacls: []\n", "1:14: the application type has unprintable characters"},
        {"application: [a]\nacls: []\n", "1:14: the application type must be a plain value, not a list"},
        {"application: a\nacls: []\n\"\\e]0;owned\\a\": 1\n", "no key '\\x1b]0;owned\\x07'"},
        {"application: a\nacls: &all [*all]\n", "an alias to a part that holds it"}};
    for (const auto &[text, error] : faults)
        expect_one_fault(text, error);
}

TEST(OneFault, in_an_entry_is_reported_alone_at_its_place)
{
    constexpr Fault faults[] = {
        {"{}", "6:5: an entry has no 'sn'"},
        {"5", "6:5: an entry must be a map"},
        {"{sn: -1}", "6:10: the entry's sn: '-1' is not a number"},
        {"{sn: 18446744073709551616}", "6:10: the entry's sn"},
        {"{sn: 1, priority: high}", "6:23: the entry's priority: 'high'"},
        {"{sn: 1, default: perhaps}", "6:22: default: 'perhaps' is neither"},
        {"{sn: 1, prority: 2}", "6:13: an entry has no key 'prority'; did you mean 'priority'?"},
        {"{sn: 1, match: [vid]}", "6:20: match must be a map, not a list"},
        {"{sn: 1, match: {vid: [5]}}", "6:26: vid must be a plain value"},
        {"{sn: 1, match: {vid: }}", "vid must be a plain value, not nothing"},
        {"{sn: 1, match: {vid: 5000}}", "6:26: vid: '5000' is out of range: 0 to 4095"},
        {"{sn: 1, match: {vid: 5, vid: 6}}", "6:29: 'vid' is there twice, first on line 6"},
        {"{sn: 1, match: {ipv4_scr: 1.2.3.4}}",
         "6:21: there is no match attribute 'ipv4_scr'; did you mean 'ipv4_src'?"},
        {"{sn: 1, match: {fwd: deny}}", "6:21: there is no match attribute 'fwd', but one under 'action'"},
        {"{sn: 1, name: 'abcdefghijklmnopqrstuvwxyz123456'}", "6:19: the entry's name has 32"},
        {"{sn: 1}\n  - {sn: 0x1}", "7:10: sn 1 is there twice in ACL 1, first on line 6"},
        {"{sn: 1, default: true}\n  - {sn: 2, default: true}",
         "7:10: a second default entry in ACL 1, the first is on line 6"}};
    for (const auto &[entry, error] : faults)
        expect_one_fault(with_entry(entry), error);
}

TEST(OneFault, in_the_applies_is_reported_alone_at_its_place)
{
    constexpr Fault faults[] = {
        {"[{acl: 2, port: 1, direction: in}]", "7:17: there is no ACL 2 in this policy"},
        {"[{acl: 2, port: [], direction: in}]", "7:17: there is no ACL 2 in this policy"},
        {"[{acl: 1, direction: in}]", "7:11: an apply has no 'port'"},
        {"[{acl: 1, port: 1}]", "7:11: an apply has no 'direction'"},
        {"[{acl: 1, port: 1, direction: up}]", "7:40: direction 'up' is neither in nor out"},
        {"[{acl: 1, port: 5-2, direction: in}]", "7:26: '5-2' is not a port number or a range"},
        {"[{acl: 1, port: 4294967296, direction: in}]", "7:26: '4294967296' is not a port"},
        {"[{acl: 1, port: 0-4294967295, direction: in}]", "more than 4096 ports in one apply"},
        {"[{acl: 1, port: [1-4000, 5000-5096], direction: in}]", "7:35: more than 4096 ports"},
        {"[{acl: 1, port: {a: b}, direction: in}]", "7:26: the apply's port must be a plain"},
        {"[{acl: 1, port: 1, direction: in, priority: 4294967296}]", "7:54: the apply's priority"},
        {"[{acl: 1, port: [3, 1-4], direction: in}]", "7:17: ACL 1 is applied twice to port 3"},
        {"[{acl: 1, port: 1, direction: in}, {acl: 1, port: 1, direction: out}]",
         "7:51: ACL 1 is applied twice to port 1, first on line 7: in another direction it needs "
         "another priority"}};
    for (const auto &[applies, error] : faults)
        expect_one_fault(with_entry("{sn: 1}", applies), error);
}

TEST(Faults, are_all_reported_in_the_order_of_the_file)
{
    const Read result = read(R"(aplication: edge
acls:
  - id: 1
    class: 256
    entries:
      - {sn: 1, match: {vid: 9999, nonsense: 1}, action: {fwd: drop}}
      - {sn: 1}
  - id: 1
    class: 1
    entries: []
applies:
  - {acl: 7, port: 1, direction: in}
)");
    EXPECT_THAT(result.errors,
                ElementsAre(HasSubstr("1:1: the policy has no key 'aplication'"),
                            HasSubstr("1:1: the policy has no 'application'"), HasSubstr("4:12: the ACL's class"),
                            HasSubstr("6:30: vid"), HasSubstr("6:36: there is no match attribute 'nonsense'"),
                            HasSubstr("6:64: fwd"), HasSubstr("7:14: sn 1 is there twice"),
                            HasSubstr("8:9: ACL 1 is there twice, first on line 3"),
                            HasSubstr("12:11: there is no ACL 7")));
}

TEST(Faults, of_an_acl_without_a_number_do_not_multiply)
{
    const Read result =
        read("application: a\nacls:\n- {class: 1, entries: [{sn: 1}]}\n- {id: x, class: 1, entries: []}\n"
             "applies: [{acl: 5, port: 1, direction: in}]\n");
    EXPECT_THAT(result.errors, ElementsAre(HasSubstr("3:3: an ACL has no 'id'"), HasSubstr("4:8: the ACL's id: 'x'")));
}

} // namespace
} // namespace plx::tool
