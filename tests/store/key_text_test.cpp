// The text of keys and the shape of addresses: what people see, and what forged text must not get past.
#include "mom/key_text.hpp"
#include "mom/url.hpp"
#include "mom/wire.hpp"
#include "suite.hpp"

namespace {

mom::field_span ace_fields()
{
    return {s_policy__ace_key__descriptor.fields, s_policy__ace_key__descriptor.n_fields};
}

std::string text(const char *app, uint32_t acl, uint64_t sn)
{
    const ace_record record(app, acl, sn);
    std::string out;
    mom::append_key_text(out, ace_fields(), &record.key.base, 3);
    return out;
}

TEST(key_text, is_readable)
{
    EXPECT_EQ("security_app,b10,d1500", text("security_app", 10, 1500));
    EXPECT_EQ(",a0,a0", text("", 0, 0));
    EXPECT_EQ("a%2Cb%25%0A%20,j4294967295,t18446744073709551615", text("a,b%\n ", UINT32_MAX, UINT64_MAX));
}

TEST(key_text, sorts_as_the_numbers_do)
{
    const uint64_t numbers[] = {0, 1, 9, 10, 11, 99, 100, 12345, UINT64_MAX / 2, UINT64_MAX};
    for (size_t i = 1; i < std::size(numbers); ++i)
        EXPECT_LT(text("a", 1, numbers[i - 1]), text("a", 1, numbers[i]));
}

class no_key : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(text, no_key,
                         testing::Values("", "a", "a,a1", "a,a1,", "a,a1,a1,", "a,a1,a1,a1", "a,1,a1", "a,b01,a1",
                                         "a,a12,a1", "a,j4294967296,a1", "a,a1,t18446744073709551616",
                                         "a,a1,t99999999999999999999", "a,Z4,a1", "a%,a1,a1", "a%2,a1,a1", "a%41,a1,a1",
                                         "a%2c,a1,a1", "a%00,a1,a1", "a b,a1,a1", "a,a1,a-", "a,a ,a1",
                                         "a,a1,u000000000000000000001"));

TEST_P(no_key, is_refused)
{
    std::string out;
    EXPECT_FALSE(mom::append_key_wire(out, ace_fields(), GetParam()));
}

TEST(key_text, a_field_holds_its_own_elements_only)
{
    using namespace std::string_view_literals;
    for (const auto own : {""sv, "\x30\x01\x30\x80\x01"sv, "\x32\x02\x30\x01"sv})
        EXPECT_TRUE(mom::holds_only_field(own, 6));
    for (const auto other : {"\x30\x01\x2a\x00"sv /* another key behind it */, "\x38\x01"sv, "\x30"sv, "\x32\x7f\x00"sv,
                             "\x32\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01"sv,
                             "\x30\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02"sv, "\x33\x34"sv /* a group */})
        EXPECT_FALSE(mom::holds_only_field(other, 6));
}

TEST(address, parts_are_found)
{
    const auto url = mom::parse_store_url("redis://node%40a:p%3Aw@[::1]:6380?timeout=250&spin=0&log=9");
    ASSERT_TRUE(url);
    EXPECT_EQ(mom::store_scheme::tcp, url->scheme);
    EXPECT_EQ("node@a", url->user);
    EXPECT_EQ("p:w", url->password);
    EXPECT_EQ("::1", url->hosts.at(0).host);
    EXPECT_EQ(6380, url->hosts.at(0).port);
    EXPECT_EQ(250u, url->timeout_ms);
    EXPECT_EQ(0u, url->spin_us);
    EXPECT_EQ(9u, url->log_limit);

    const auto sentinel = mom::parse_store_url("sentinel://one,two:26380/policy?password-file=/etc/secret");
    ASSERT_TRUE(sentinel);
    EXPECT_EQ("policy", sentinel->name);
    EXPECT_EQ("/etc/secret", sentinel->password_file);
    ASSERT_EQ(2u, sentinel->hosts.size());
    EXPECT_EQ(26379, sentinel->hosts[0].port);
    EXPECT_EQ(26380, sentinel->hosts[1].port);
}

class no_address : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(text, no_address,
                         testing::Values("", "mem", "file:/x", "unix:", "unix:relative", "redis://",
                                         "redis://h:", "redis://h:0", "redis://h:65536", "redis://h:1x", "redis://[::1",
                                         "redis://[::1]x", "redis://%zz@h", "sentinel://h", "sentinel://h/",
                                         "sentinel:///m", "mem:?log=0", "mem:?log=", "mem:?log=1x", "mem:?colour=red",
                                         "unix:/x?timeout=0", "unix:/x?password-file="));

TEST_P(no_address, is_refused)
{
    EXPECT_FALSE(mom::parse_store_url(GetParam()));
    const context_ptr context(tq_context_new(*GetParam() == '\0' ? "mem" : GetParam()));
    EXPECT_EQ(nullptr, context);
    EXPECT_EQ(EINVAL, errno);
}

TEST(results, each_has_a_text_of_its_own)
{
    std::vector<std::string> texts;
    for (int result = -1; result <= TQ_MOM_NO_DESCRIPTOR; ++result)
        texts.push_back(tq_mom_strerror(result));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts.end(), std::adjacent_find(texts.begin(), texts.end()));
    EXPECT_STREQ("unknown result", tq_mom_strerror(TQ_MOM_NO_DESCRIPTOR + 1));
}

} // namespace
