// Subscriptions: each change once, in order, from the loop, told apart as the header says.
#include "suite.hpp"

namespace {

class changes : public store_suite {};

std::string kind_name(const testing::TestParamInfo<backend_kind> &info)
{
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(on, changes, testing::ValuesIn(backend_kinds()), kind_name);

using lines = std::vector<std::string>;

timeval milliseconds(int count)
{
    return {0, count * 1000};
}

TEST_P(changes, the_record_decides_the_event)
{
    auto *listener = open();
    auto *writer = open();
    hearing ace, psta, counter;
    subscribe(listener, ace, ace_record("", 0, 0), 0);
    subscribe(listener, psta, psta_record("", 0, 0), 0);
    SPolicy__AceCounter published = S_POLICY__ACE_COUNTER__INIT;
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    published.index = &key;
    published.counter_pkt = 12;
    subscribe(listener, counter, &published.base, 0);

    write_ace(writer, 8, ace_record("a", 1, 1, 5));
    write_psta(writer, 8, psta_record("a", 1, 1, 6));
    tq_mom_set_sync(writer, 8, &published.base);
    tq_mom_del_sync(writer, 8, ace_record("a", 1, 1, 99));
    tq_mom_del_sync(writer, 8, psta_record("a", 1, 1, 99));
    wait_for([&] { return ace.lines.size() == 2 && psta.lines.size() == 2 && counter.lines.size() == 1; });
    EXPECT_EQ((lines{"4 a/1/1=5", "3 a/1/1=0"}), ace.lines);
    EXPECT_EQ((lines{"1 a/1/1=6", "3 a/1/1=0"}), psta.lines);
    EXPECT_EQ((lines{"24 /0/0=12"}), counter.lines);
}

TEST_P(changes, only_later_changes_of_selected_records_are_told)
{
    auto *listener = open();
    auto *writer = open();
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    hearing all, one_app, one_acl, one_ace;
    subscribe(listener, all, ace_record("", 0, 0), 0);
    subscribe(listener, one_app, ace_record("a", 7, 7), 1);
    subscribe(listener, one_acl, ace_record("a", 2, 7), 2);
    subscribe(listener, one_ace, ace_record("a", 2, 2), 3);
    write_ace(writer, 8, ace_record("a", 1, 1, 2));
    write_ace(writer, 8, ace_record("ab", 2, 2, 3));
    write_ace(writer, 8, ace_record("a", 2, 1, 4));
    write_ace(writer, 8, ace_record("a", 2, 2, 5));
    write_ace(writer, 9, ace_record("a", 2, 2, 6));
    settle(all);
    EXPECT_EQ((lines{"4 a/1/1=2", "4 ab/2/2=3", "4 a/2/1=4", "4 a/2/2=5"}), all.lines);
    settle(one_app);
    EXPECT_EQ((lines{"4 a/1/1=2", "4 a/2/1=4", "4 a/2/2=5"}), one_app.lines);
    EXPECT_EQ((lines{"4 a/2/1=4", "4 a/2/2=5"}), one_acl.lines);
    EXPECT_EQ((lines{"4 a/2/2=5"}), one_ace.lines);
}

TEST_P(changes, an_echo_is_marked)
{
    auto *one = open();
    auto *other = open();
    hearing at_one, at_other;
    subscribe(one, at_one, ace_record("a", 0, 0), 1);
    subscribe(other, at_other, ace_record("a", 0, 0), 1);
    write_ace(one, 8, ace_record("a", 1, 1, 1));
    write_ace(other, 8, ace_record("a", 1, 2, 2));
    tq_mom_del_sync(one, 8, ace_record("a", 1, 2));
    settle(at_one);
    settle(at_other);
    EXPECT_EQ((lines{"*4 a/1/1=1", "4 a/1/2=2", "*3 a/1/2=0"}), at_one.lines);
    EXPECT_EQ((lines{"4 a/1/1=1", "*4 a/1/2=2", "3 a/1/2=0"}), at_other.lines);
}

TEST_P(changes, a_call_into_the_store_never_notifies)
{
    auto *context = open();
    hearing heard;
    subscribe(context, heard, ace_record("", 0, 0), 0);
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    EXPECT_EQ(1u, scan(context, ace_record("", 0, 0), 0).size());
    tq_mom_state_get(context, 8, 0);
    tq_mom_del_sync(context, 8, ace_record("a", 1, 1));
    EXPECT_EQ(lines{}, heard.lines);
    settle(heard);
    EXPECT_EQ((lines{"*4 a/1/1=1", "*3 a/1/1=0"}), heard.lines);
}

TEST_P(changes, a_change_carries_the_whole_record_as_it_was_then)
{
    auto *context = open();
    ace_record ace("a", 1, 1, 1);
    ace.record.acl_cls = 7;
    tq_mom_set_sync(context, 8, ace);
    hearing heard;
    std::vector<uint64_t> seen;
    heard.also = [&](const tq_mom_notification &told) {
        const auto *record = reinterpret_cast<const SPolicy__Ace *>(told.record);
        seen.insert(seen.end(), {record->acl_cls, record->req_uuid, record->ace_pri});
    };
    subscribe(context, heard, ace_record("", 0, 0), 0);
    constexpr uint32_t priority[] = {11};
    for (ace.record.ace_pri = 1; ace.record.ace_pri <= 2; ++ace.record.ace_pri)
        tq_mom_hmset_sync(context, 8, ace, priority, 1);
    tq_mom_set_sync(context, 8, ace_record("a", 1, 1));
    wait_for([&] { return seen.size() == 9; });
    EXPECT_EQ((std::vector<uint64_t>{7, 1, 1, 7, 1, 2, 0, 0, 0}), seen);
}

TEST_P(changes, subscribing_twice_does_not_tell_twice)
{
    auto *context = open();
    hearing heard;
    subscribe(context, heard, psta_record("a", 0, 0), 1);
    subscribe(context, heard, psta_record("a", 0, 0), 1);
    write_psta(context, 8, psta_record("a", 1, 1, 5));
    settle(heard);
    EXPECT_EQ(lines{"*1 a/1/1=5"}, heard.lines);
}

TEST_P(changes, deleting_what_is_not_there_is_no_change)
{
    auto *context = open();
    hearing heard;
    subscribe(context, heard, ace_record("", 0, 0), 0);
    tq_mom_del_sync(context, 8, ace_record("a", 1, 1));
    settle(heard);
    EXPECT_EQ(lines{}, heard.lines);
}

TEST_P(changes, a_callback_may_subscribe_write_and_scan)
{
    auto *context = open();
    hearing first, second;
    size_t found = 0;
    first.also = [&](const tq_mom_notification &) {
        found += scan(context, ace_record("a", 0, 0), 1).size();
        if (first.lines.size() == 1)
            subscribe(context, second, ace_record("", 0, 0), 0);
        if (first.lines.size() < 4)
            write_ace(context, 8, ace_record("a", 1, 10 + first.lines.size(), 1));
    };
    subscribe(context, first, ace_record("", 0, 0), 0);
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    wait_for([&] { return first.lines.size() == 4 && second.lines.size() == 3; });
    EXPECT_EQ((lines{"*4 a/1/11=1", "*4 a/1/12=1", "*4 a/1/13=1"}), second.lines);
    EXPECT_EQ(1u + 2 + 3 + 4, found);
}

TEST_P(changes, many_changes_do_not_starve_the_loop)
{
    auto *context = open();
    hearing heard;
    subscribe(context, heard, ace_record("", 0, 0), 0);
    for (uint64_t sn = 1; sn <= 5000; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, sn));
    size_t heard_at_timer = 0;
    struct at_timer {
        hearing *heard;
        size_t *count;
    } what{&heard, &heard_at_timer};
    const auto interval = milliseconds(0);
    const auto note = [](tq_thread *thread) {
        auto &it = *static_cast<at_timer *>(tq_thread_arg(thread));
        return *it.count = 1 + it.heard->lines.size(), 0;
    };
    ASSERT_EQ(0, tq_thread_insert_timer_timeval(loop.get(), nullptr, note, &what, &interval, "note"));
    wait_for([&] { return heard.lines.size() == 5000; });
    EXPECT_GT(heard_at_timer, 0u);
    EXPECT_LT(heard_at_timer, 5000u);
    EXPECT_EQ("*4 a/1/5000=5000", heard.lines.back());
}

TEST_P(changes, a_subscriber_of_requested_state_that_fell_too_far_behind_is_told_to_scan)
{
    auto *listener = open("log=100");
    auto *writer = open("log=100");
    hearing heard;
    subscribe(listener, heard, ace_record("a", 0, 0), 1);
    for (uint64_t sn = 1; sn <= 1000; ++sn)
        write_ace(writer, 8, ace_record("a", 1, sn % 10, sn));
    wait_for([&] { return !heard.lines.empty(); });
    EXPECT_EQ(lines{"29"}, heard.lines);
    write_ace(writer, 8, ace_record("a", 1, 1, 2000));
    settle(heard);
    EXPECT_EQ((lines{"29", "4 a/1/1=2000"}), heard.lines);
}

TEST_P(changes, a_subscriber_of_status_that_fell_too_far_behind_gets_what_changed_since)
{
    auto *listener = open("log=100");
    auto *writer = open("log=100");
    for (uint64_t sn = 1; sn <= 20; ++sn)
        write_psta(writer, 8, psta_record("a", 1, sn, 1));
    hearing heard;
    subscribe(listener, heard, psta_record("a", 0, 0), 1);
    for (uint64_t round = 2; round <= 300; ++round)
        for (uint64_t sn = 3; sn >= 1; --sn)
            write_psta(writer, 8, psta_record("a", 1, sn, round));
    write_psta(writer, 8, psta_record("b", 1, 1, 1));
    settle(heard);
    EXPECT_EQ((lines{"1 a/1/3=300", "1 a/1/2=300", "1 a/1/1=300"}), heard.lines);
    write_psta(writer, 8, psta_record("a", 1, 9, 7));
    settle(heard);
    EXPECT_EQ("1 a/1/9=7", heard.lines.back());
    EXPECT_EQ(4u, heard.lines.size());
}

TEST_P(changes, a_client_that_ends_takes_its_subscriptions_along)
{
    auto *listener = open();
    auto *writer = open();
    hearing ended, staying;
    subscribe(listener, ended, ace_record("", 0, 0), 0);
    subscribe(writer, staying, ace_record("", 0, 0), 0);
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    close(listener);
    settle(staying);
    EXPECT_EQ(lines{}, ended.lines);
    EXPECT_EQ((lines{"*4 a/1/1=1"}), staying.lines);
}

TEST_P(changes, a_context_can_bring_its_own_loop)
{
    const context_ptr own(tq_context_new(backend->url("").c_str()));
    ASSERT_NE(nullptr, own);
    hearing heard;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(own.get(), 8, ace_record("", 0, 0), 0, hearing::callback, &heard));
    write_ace(own.get(), 8, ace_record("a", 1, 1, 1));
    for (int i = 0; i < 1000 && heard.lines.empty(); ++i)
        tq_loop_run_once(own->master, 10);
    EXPECT_EQ((lines{"*4 a/1/1=1"}), heard.lines);
}

} // namespace
