// Keys and contents taken from records, hostile ones among them.
#include "records/node_report.hpp"
#include "records/record.hpp"
#include "records/status.hpp"

#include <gtest/gtest.h>
#include <plx/s_policy.pb-c.h>

namespace plx {
namespace {

TEST(RecordKey, is_the_one_that_the_record_was_made_with)
{
    const Key keys[] = {AceKey{"security_app", 4'000'000'000, UINT64_MAX},
                        ApplyKey{"edge", 1, "security_app", 2, 3, 1},
                        PortBindKey{"edge", 6, 1, 3, 77},
                        PortOffKey{0x101},
                        UplinkKey{7, 2},
                        SviRouterKey{}};
    for (const Key &key : keys) {
        const Table &table = tables()[key.index()];
        EXPECT_EQ(key, key_of(Record(*table.requested, key).message())) << table.requested->name;
        EXPECT_EQ(key, key_of(Record(*table.status, key).message())) << table.status->name;
    }
}

TEST(RecordKey, is_missing_from_a_record_without_one_and_from_records_of_other_tables)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    EXPECT_EQ(std::nullopt, key_of(&ace.base));
    EXPECT_EQ(std::nullopt, key_of(nullptr));
    EXPECT_EQ(std::nullopt, key_of(Record(s_policy__service_node__descriptor).message()));
}

TEST(RecordKey, has_names_of_31_characters_at_most_and_takes_a_missing_one_for_an_empty_one)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    ace.index = &index;
    index.sn = 5;
    index.t_app_type = nullptr;
    EXPECT_EQ(Key(AceKey{"", 0, 5}), key_of(&ace.base));
    for (const size_t length : {31U, 32U, 100'000U}) {
        std::string name(length, 'a');
        index.t_app_type = name.data();
        EXPECT_EQ(length <= 31, key_of(&ace.base).has_value()) << length;
    }
}

TEST(Report, that_names_as_many_applications_as_it_can_says_nothing_of_others)
{
    NodeReport report;
    while (report.applications.size() + 1 < most_applications)
        report.applications["a" + std::to_string(report.applications.size())].programmed.count = 1;
    EXPECT_EQ(Digest(), report.programmed_of("other"));
    report.applications["last"] = {};
    EXPECT_EQ(std::nullopt, report.programmed_of("other"));
    EXPECT_EQ(1U, report.programmed_of("a0")->count);
}

TEST(RecordContents, are_empty_where_bytes_are_missing)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    ace.value = {12, nullptr};
    ace.req_uuid = 77;
    const Requested requested = requested_of(&ace.base);
    EXPECT_TRUE(requested.value.empty());
    EXPECT_EQ(77U, requested.request);
}

TEST(Fingerprint, tells_contents_apart_and_requests_not)
{
    const Requested base{.request = 1, .value = {1, 2}, .priority = 5, .acl_cls = 1, .name = {}};
    Requested other = base;
    other.request = 2;
    EXPECT_EQ(base.fingerprint(), other.fingerprint());
    for (const auto &change : std::vector<void (*)(Requested &)>{
             [](Requested &r) { r.value[0] = 9; }, [](Requested &r) { r.priority = 6; },
             [](Requested &r) { r.acl_cls = 2; }, [](Requested &r) { r.default_entry = true; }}) {
        other = base;
        change(other);
        EXPECT_NE(base.fingerprint(), other.fingerprint());
    }
}

TEST(StatusText, is_there_for_every_number)
{
    EXPECT_EQ("table full", status_text(101));
    EXPECT_EQ("unknown status", status_text(-7));
    EXPECT_EQ("number out of range", status_text(106));
    EXPECT_EQ("no interface", status_text(110));
    EXPECT_EQ("unknown status", status_text(111));
    EXPECT_STREQ("invalid argument", plx_result_text(FP_UDP_INVALID));
    EXPECT_STREQ("topic refused", plx_result_text(FP_UDP_TOPIC_REFUSED));
    for (const int32_t none : {1, -3, -18})
        EXPECT_STREQ("unknown result", plx_result_text(none));
}

} // namespace
} // namespace plx
