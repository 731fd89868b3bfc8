// Keys and contents taken from records, hostile ones among them.
#include "plane/record.hpp"

#include <gtest/gtest.h>
#include <plx/s_policy.pb-c.h>

namespace plx::plane {
namespace {

struct OneKey {
    Key key;
};

void PrintTo(const OneKey &key, std::ostream *out)
{
    *out << tables()[key.key.index()].requested->name;
}

class EveryTable : public testing::TestWithParam<OneKey> {};

TEST_P(EveryTable, gives_back_the_key_that_its_records_were_made_with)
{
    const Key &key = GetParam().key;
    EXPECT_EQ(key, key_of(Record(*tables()[key.index()].requested, key).message()));
    EXPECT_EQ(key, key_of(Record(*tables()[key.index()].status, key).message()));
}

INSTANTIATE_TEST_SUITE_P(Keys, EveryTable,
                         testing::Values(OneKey{AceKey{"security_app", 4'000'000'000, UINT64_MAX}},
                                         OneKey{ApplyKey{"edge", 1, "security_app", 2, 3, 1}},
                                         OneKey{PortBindKey{"edge", 6, 1, 3, 77}}, OneKey{PortOffKey{0x101}},
                                         OneKey{UplinkKey{7, 2}}, OneKey{SviRouterKey{}}));

TEST(RecordKey, is_missing_from_a_record_without_one)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    EXPECT_EQ(std::nullopt, key_of(&ace.base));
    EXPECT_EQ(std::nullopt, key_of(nullptr));
}

TEST(RecordKey, is_missing_from_records_of_other_tables)
{
    const Record node(s_policy__service_node__descriptor);
    EXPECT_EQ(std::nullopt, key_of(node.message()));
}

TEST(RecordKey, takes_a_missing_name_for_an_empty_one)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    index.t_app_type = nullptr;
    index.sn = 5;
    ace.index = &index;
    EXPECT_EQ(Key(AceKey{"", 0, 5}), key_of(&ace.base));
}

TEST(RecordKey, has_names_of_31_characters_at_most)
{
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    ace.index = &index;
    std::string name(31, 'a');
    index.t_app_type = name.data();
    EXPECT_TRUE(key_of(&ace.base).has_value());
    name += 'a';
    index.t_app_type = name.data();
    EXPECT_FALSE(key_of(&ace.base).has_value());
    name.assign(100'000, 'a');
    index.t_app_type = name.data();
    EXPECT_FALSE(key_of(&ace.base).has_value());
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
    const Requested base{.request = 1, .value = {1, 2}, .priority = 5, .acl_cls = 1, .default_entry = false};
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

} // namespace
} // namespace plx::plane
