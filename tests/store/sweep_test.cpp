// Rewrites: what a mark and a sweep delete, and when they refuse to.
#include "suite.hpp"

namespace {

const ace_record table("", 0, 0);

int begin(tq_context *context, const std::string &app, uint64_t bound = 1000)
{
    return tq_mom_dsbegin_sync(context, 8, ace_record(app, 0, 0), 1, bound);
}

int end(tq_context *context, const std::string &app)
{
    return tq_mom_dsend_sync(context, 8, ace_record(app, 0, 0), 1, 1000);
}

TEST_P(store_suite, a_sweep_deletes_what_nobody_has_written_since_its_mark_and_tells_each)
{
    auto *context = open();
    auto *other = open();
    for (uint64_t sn = 1; sn <= 5; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    write_ace(context, 8, ace_record("b", 1, 1, 1));
    hearing heard;
    subscribe(other, heard, table, 0);
    ASSERT_EQ(TQ_MOM_OK, begin(context, "a"));
    write_ace(context, 8, ace_record("a", 1, 2, 4));
    constexpr uint32_t status[] = {7};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(other, 8, ace_record("a", 1, 4), status, 1));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    settle(heard);
    EXPECT_EQ((lines{"4 a/1/2=4", "*4 a/1/4=1", "3 a/1/1=0", "3 a/1/3=0", "3 a/1/5=0"}), heard.lines);
    EXPECT_EQ((lines{"4 a/1/2=4", "4 a/1/4=1", "4 b/1/1=1"}), scan(context, table));
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a")) << "a mark is used once";
}

TEST_P(store_suite, without_a_mark_of_its_own_that_still_holds_a_sweep_deletes_nothing)
{
    auto *context = open();
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    begin(open(), "a");
    begin(context, "b");
    tq_mom_dsbegin_sync(context, 9, ace_record("a", 0, 0), 1, 1000);
    tq_mom_dsbegin_sync(context, 8, psta_record("a", 0, 0), 1, 1000);
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    ASSERT_EQ(TQ_MOM_OK, begin(context, "a", 0)); // its time has run out
    EXPECT_EQ(TQ_MOM_NO_MARK, end(context, "a"));
    EXPECT_EQ((lines{"4 a/1/1=1"}), scan(context, table));
}

TEST_P(store_suite, a_rewrite_that_begins_behind_a_batch_s_back_spares_it_and_its_order)
{
    auto *context = open();
    auto *other = open();
    for (uint64_t sn = 1; sn <= 4; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    ASSERT_EQ(TQ_MOM_OK, begin(other, "a"));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(context));
    write_ace(context, 8, ace_record("a", 1, 1, 2));
    tq_mom_del_sync(context, 8, ace_record("a", 1, 1));
    tq_mom_del_sync(context, 8, ace_record("a", 1, 2));
    write_ace(context, 8, ace_record("a", 1, 2, 2));
    tq_mom_batch_send(context);
    write_ace(context, 8, ace_record("a", 1, 3, 2));
    write_ace(context, 8, ace_record("a", 1, 3, 3));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
    ASSERT_EQ(TQ_MOM_OK, end(other, "a"));
    EXPECT_EQ((lines{"4 a/1/2=2", "4 a/1/3=3"}), scan(context, table));
}

TEST_P(store_suite, a_later_begin_replaces_the_mark)
{
    auto *context = open();
    begin(context, "a");
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    begin(context, "a", UINT64_MAX);
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ(lines{}, scan(context, table));
}

TEST_P(store_suite, many_records_are_swept)
{
    auto *context = open();
    for (uint64_t sn = 1; sn <= 3000; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    begin(context, "a");
    for (uint64_t sn = 1; sn <= 3000; sn += 3)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    ASSERT_EQ(TQ_MOM_OK, end(context, "a"));
    EXPECT_EQ(1000u, scan(context, table).size());
}

} // namespace
