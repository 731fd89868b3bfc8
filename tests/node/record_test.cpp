// What is read of records and attributes that others wrote, hostile ones among them.
#include "records/attribute.hpp"
#include "records/node_report.hpp"
#include "records/record.hpp"
#include "records/status.hpp"

#include <gtest/gtest.h>
#include <plx/s_policy.pb-c.h>

namespace plx {
namespace {

TEST(RecordKey, is_missing_where_there_is_none_and_has_names_of_31_characters_at_most)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    EXPECT_EQ(std::nullopt, key_of(nullptr));
    EXPECT_EQ(std::nullopt, key_of(&ace.base));
    EXPECT_EQ(std::nullopt, key_of(Record(s_policy__service_node__descriptor).message()));
    ace.index = &index;
    ace.value = {12, nullptr};
    index.sn = UINT64_MAX;
    index.t_app_type = nullptr;
    EXPECT_EQ(Key(AceKey{"", 0, UINT64_MAX}), key_of(&ace.base));
    EXPECT_TRUE(requested_of(&ace.base).value.empty());
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

TEST(Texts, are_there_for_every_number)
{
    EXPECT_EQ("no interface", status_text(110));
    EXPECT_STREQ("topic refused", plx_result_text(FP_UDP_TOPIC_REFUSED));
    for (const int32_t none : {-7, 111})
        EXPECT_EQ("unknown status", status_text(none));
    for (const int32_t none : {1, -3, -18})
        EXPECT_STREQ("unknown result", plx_result_text(none));
}

TEST(Forms, are_the_rows_of_the_three_name_tables)
{
    const std::pair<fp_udp_attr_class, std::span<const fp_udp_attr_entry>> tables[] = {
        {FP_UDP_ATTR_CTRL, ctrl_attr}, {FP_UDP_ATTR_FIELD, field_attr}, {FP_UDP_ATTR_ACTION, action_attr}};
    size_t total = 0;
    for (const auto &[cls, rows] : tables) {
        for (const fp_udp_attr_entry &row : rows) {
            const Form *form = find_form(cls, row.name);
            ASSERT_NE(nullptr, form) << row.name;
            EXPECT_EQ(row.id, attribute_id(*form)) << row.name;
        }
        total += rows.size();
    }
    EXPECT_EQ(total, forms().size());
}

TEST(Attributes, with_lengths_that_do_not_add_up_are_refused)
{
    std::vector<uint8_t> bytes{0x01, 0x11, 0, 0, 4, 0, 0, 0, 10, 0, 0, 1};
    for (size_t size = 1; size < bytes.size(); ++size)
        EXPECT_FALSE(unpack(std::span(bytes).first(size)).has_value()) << size;
    std::fill_n(bytes.begin() + 4, 4, uint8_t{0xff}); // a length of 2^32 - 1
    EXPECT_FALSE(unpack(bytes).has_value());
}

TEST(Attributes, have_their_form_by_class_id_and_length)
{
    const struct {
        uint32_t cls, id;
        size_t size;
        bool known;
        const char *name;                                          // "": no form fits
    } cases[] = {{FP_UDP_ATTR_FIELD, 46, 2, true, "act_em_class"}, // two names share the id
                 {FP_UDP_ATTR_FIELD, 46, 1, true, "l2_sa_hit"},
                 {FP_UDP_ATTR_FIELD, 17, 8, true, "ipv4_src"}, // with its mask
                 {FP_UDP_ATTR_FIELD, 17, 12, true, ""},
                 {FP_UDP_ATTR_ACTION, 2, 2, true, ""}, // takes no mask
                 {FP_UDP_ATTR_FIELD, 89, 1, false, ""}};
    const std::vector<uint8_t> bytes(32);
    for (const auto &[cls, id, size, known, name] : cases) {
        bool is_known = !known;
        const Form *form = form_of({cls, id, std::span(bytes).first(size)}, is_known);
        EXPECT_EQ(name, form == nullptr ? "" : form->name) << id;
        EXPECT_EQ(known, is_known) << id;
    }
}

} // namespace
} // namespace plx
