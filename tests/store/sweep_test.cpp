// Rewrites: what a mark and a sweep delete, and when they refuse to.
#include "suite.hpp"

namespace {

class sweep : public store_suite {
  protected:
    int begin(tq_context *context, const std::string &app, uint64_t bound = 1000)
    {
        return tq_mom_dsbegin_sync(context, 8, ace_record(app, 0, 0), 1, bound);
    }
    int end(tq_context *context, const std::string &app)
    {
        return tq_mom_dsend_sync(context, 8, ace_record(app, 0, 0), 1, 1000);
    }
    std::vector<std::string> all(tq_context *context) { return scan(context, ace_record("", 0, 0), 0); }
};

std::string kind_name(const testing::TestParamInfo<backend_kind> &info)
{
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(on, sweep, testing::ValuesIn(backend_kinds()), kind_name);

using lines = std::vector<std::string>;

TEST_P(sweep, what_was_not_written_since_the_mark_is_deleted)
{
    auto *context = open();
    for (uint64_t sn = 1; sn <= 4; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    write_ace(context, 8, ace_record("b", 1, 1, 1));
    ASSERT_EQ(TQ_MOM_OK, begin(context, "a"));
    write_ace(context, 8, ace_record("a", 1, 2, 1));
    write_ace(context, 8, ace_record("a", 1, 5, 2));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ((lines{"4 a/1/2=1", "4 a/1/5=2", "4 b/1/1=1"}), all(context));
}

TEST_P(sweep, a_write_by_anybody_keeps_a_record)
{
    auto *context = open();
    auto *other = open();
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    write_ace(context, 8, ace_record("a", 1, 2, 1));
    ASSERT_EQ(TQ_MOM_OK, begin(context, "a"));
    constexpr uint32_t status[] = {7};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(other, 8, ace_record("a", 1, 2), status, 1));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ((lines{"4 a/1/2=1"}), all(context));
}

TEST_P(sweep, each_deletion_is_a_change)
{
    auto *context = open();
    auto *listener = open();
    for (uint64_t sn = 1; sn <= 3; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    hearing heard;
    subscribe(listener, heard, ace_record("", 0, 0), 0);
    begin(context, "a");
    write_ace(context, 8, ace_record("a", 1, 2, 4));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    settle(heard);
    EXPECT_EQ((lines{"4 a/1/2=4", "3 a/1/1=0", "3 a/1/3=0"}), heard.lines);
}

TEST_P(sweep, without_a_mark_nothing_is_deleted)
{
    auto *context = open();
    auto *other = open();
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    begin(other, "a");
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    begin(context, "b");
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    tq_mom_dsbegin_sync(context, 9, ace_record("a", 0, 0), 1, 1000);
    tq_mom_dsbegin_sync(context, 8, psta_record("a", 0, 0), 1, 1000);
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    EXPECT_EQ((lines{"4 a/1/1=1"}), all(context));
}

TEST_P(sweep, a_mark_whose_time_ran_out_deletes_nothing)
{
    auto *context = open();
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    ASSERT_EQ(TQ_MOM_OK, begin(context, "a", 0));
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    EXPECT_EQ((lines{"4 a/1/1=1"}), all(context));
}

TEST_P(sweep, a_mark_is_used_once)
{
    auto *context = open();
    begin(context, "a");
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
}

TEST_P(sweep, a_later_begin_replaces_the_mark)
{
    auto *context = open();
    begin(context, "a");
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    begin(context, "a", UINT64_MAX);
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ(lines{}, all(context));
}

TEST_P(sweep, a_whole_table_can_be_swept)
{
    auto *context = open();
    SPolicy__SviRouter router = S_POLICY__SVI_ROUTER__INIT;
    tq_mom_set_sync(context, 8, &router.base);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context, 8, &router.base, 0, 1000));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context, 8, &router.base, 0, 1000));
    EXPECT_EQ(0u, scan(context, &router.base, 0).size());
}

TEST_P(sweep, many_records_are_swept)
{
    auto *context = open();
    for (uint64_t sn = 1; sn <= 3000; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    begin(context, "a");
    for (uint64_t sn = 1; sn <= 3000; sn += 3)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ(1000u, all(context).size());
}

} // namespace
