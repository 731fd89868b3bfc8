// Subscriptions: each change once, in order, from the loop, told apart as the header says.
#include "suite.hpp"

namespace {

const ace_record any_ace("", 0, 0);

TEST_P(store_suite, the_record_decides_the_event)
{
    auto *listener = open();
    auto *writer = open();
    hearing ace, psta, counter;
    keyed<SPolicy__AceCounter, SPolicy__AceKey, s_policy__ace_counter__descriptor> published;
    published.record.counter_pkt = 12;
    subscribe(listener, ace, any_ace, 0);
    subscribe(listener, psta, psta_record("", 0, 0), 0);
    subscribe(listener, counter, published, 0);
    write_ace(writer, 8, ace_record("a", 1, 1, 5));
    write_psta(writer, 8, psta_record("a", 1, 1, 6));
    tq_mom_set_sync(writer, 8, published);
    tq_mom_del_sync(writer, 8, ace_record("a", 1, 1, 99));
    tq_mom_del_sync(writer, 8, psta_record("a", 1, 1, 99));
    wait_for([&] { return ace.lines.size() == 2 && psta.lines.size() == 2 && counter.lines.size() == 1; });
    EXPECT_EQ((lines{"4 a/1/1=5", "3 a/1/1=0"}), ace.lines);
    EXPECT_EQ((lines{"1 a/1/1=6", "3 a/1/1=0"}), psta.lines);
    EXPECT_EQ((lines{"24 /0/0=12"}), counter.lines);
}

TEST_P(store_suite, only_later_changes_of_selected_records_are_told)
{
    auto *listener = open();
    auto *writer = open();
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    hearing all, one_app, one_acl, one_ace;
    subscribe(listener, all, any_ace, 0);
    subscribe(listener, one_app, ace_record("a", 7, 7), 1);
    subscribe(listener, one_acl, ace_record("a", 2, 7), 2);
    subscribe(listener, one_ace, ace_record("a", 2, 2), 3);
    write_ace(writer, 8, ace_record("a", 1, 1, 2));
    write_ace(writer, 8, ace_record("ab", 2, 2, 3));
    write_ace(writer, 8, ace_record("a", 2, 1, 4));
    write_ace(writer, 8, ace_record("a", 2, 2, 5));
    write_ace(writer, 9, ace_record("a", 2, 2, 6));
    settle(all);
    settle(one_app);
    EXPECT_EQ((lines{"4 a/1/1=2", "4 ab/2/2=3", "4 a/2/1=4", "4 a/2/2=5"}), all.lines);
    EXPECT_EQ((lines{"4 a/1/1=2", "4 a/2/1=4", "4 a/2/2=5"}), one_app.lines);
    EXPECT_EQ((lines{"4 a/2/1=4", "4 a/2/2=5"}), one_acl.lines);
    EXPECT_EQ((lines{"4 a/2/2=5"}), one_ace.lines);
}

TEST_P(store_suite, changes_are_told_from_the_loop_alone_and_echoes_are_marked)
{
    auto *one = open();
    auto *other = open();
    hearing at_one, at_other;
    for (int twice = 0; twice < 2; ++twice) { // the second time changes nothing
        subscribe(one, at_one, ace_record("a", 0, 0));
        subscribe(other, at_other, ace_record("a", 0, 0));
    }
    write_ace(one, 8, ace_record("a", 1, 1, 1));
    write_ace(other, 8, ace_record("a", 1, 2, 2));
    tq_mom_del_sync(one, 8, ace_record("a", 1, 2));
    tq_mom_del_sync(one, 8, ace_record("a", 1, 2)); // what is not there: no change
    EXPECT_EQ(lines{"4 a/1/1=1"}, scan(one, any_ace));
    tq_mom_state_get(one, 8, 0);
    EXPECT_EQ(lines{}, at_one.lines);
    settle(at_one);
    settle(at_other);
    EXPECT_EQ((lines{"*4 a/1/1=1", "4 a/1/2=2", "*3 a/1/2=0"}), at_one.lines);
    EXPECT_EQ((lines{"4 a/1/1=1", "*4 a/1/2=2", "3 a/1/2=0"}), at_other.lines);
}

TEST_P(store_suite, a_change_carries_the_whole_record_as_it_was_then)
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
    subscribe(context, heard, any_ace, 0);
    constexpr uint32_t priority[] = {11};
    for (ace.record.ace_pri = 1; ace.record.ace_pri <= 2; ++ace.record.ace_pri)
        tq_mom_hmset_sync(context, 8, ace, priority, 1);
    tq_mom_set_sync(context, 8, ace_record("a", 1, 1));
    wait_for([&] { return seen.size() == 9; });
    EXPECT_EQ((std::vector<uint64_t>{7, 1, 1, 7, 1, 2, 0, 0, 0}), seen);
}

TEST_P(store_suite, a_callback_may_subscribe_write_and_scan)
{
    auto *context = open();
    hearing first, second;
    size_t found = 0;
    first.also = [&](const tq_mom_notification &) {
        found += scan(context, ace_record("a", 0, 0), 1).size();
        if (first.lines.size() == 1)
            subscribe(context, second, any_ace, 0);
        if (first.lines.size() < 4)
            write_ace(context, 8, ace_record("a", 1, 10 + first.lines.size(), 1));
    };
    subscribe(context, first, any_ace, 0);
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    wait_for([&] { return first.lines.size() == 4 && second.lines.size() == 3; });
    EXPECT_EQ((lines{"*4 a/1/11=1", "*4 a/1/12=1", "*4 a/1/13=1"}), second.lines);
    EXPECT_EQ(1u + 2 + 3 + 4, found);
}

TEST_P(store_suite, many_changes_do_not_starve_the_loop)
{
    auto *context = open();
    hearing heard;
    subscribe(context, heard, any_ace, 0);
    for (uint64_t sn = 1; sn <= 5000; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, sn));
    static size_t heard_at_timer;
    heard_at_timer = 0;
    const timeval at_once{};
    const auto note = [](tq_thread *timer) {
        heard_at_timer = 1 + static_cast<hearing *>(tq_thread_arg(timer))->lines.size();
        return 0;
    };
    ASSERT_EQ(0, tq_thread_insert_timer_timeval(loop.get(), nullptr, note, &heard, &at_once, "note"));
    wait_for([&] { return heard.ends_with("*4 a/1/5000=5000"); });
    EXPECT_EQ(5000u, heard.lines.size());
    EXPECT_GT(heard_at_timer, 0u);
    EXPECT_LT(heard_at_timer, 5000u);
}

TEST_P(store_suite, a_quiet_table_is_heard_beside_a_busy_one)
{
    auto *context = open();
    hearing busy, quiet;
    busy.also = [&](const tq_mom_notification &) {
        const uint64_t told = busy.lines.size();
        if (told == 20)
            subscribe(context, quiet, psta_record("", 0, 0), 0);
        if (told % 20 == 0)
            write_psta(context, 8, psta_record("a", 1, told, told));
        write_ace(context, 8, ace_record("a", 1, 1, told));
    };
    subscribe(context, busy, any_ace, 0);
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    wait_for([&] { return quiet.lines.size() >= 4; });
    quiet.lines.resize(4);
    EXPECT_EQ((lines{"*1 a/1/20=20", "*1 a/1/40=40", "*1 a/1/60=60", "*1 a/1/80=80"}), quiet.lines);
}

TEST_P(store_suite, who_fell_too_far_behind_scans_requested_state_again_and_is_given_status)
{
    auto *listener = open("log=100");
    auto *writer = open("log=100");
    for (uint64_t sn = 1; sn <= 20; ++sn)
        write_psta(writer, 8, psta_record("a", 1, sn, 1));
    hearing ace, psta;
    subscribe(listener, ace, ace_record("a", 0, 0));
    subscribe(listener, psta, psta_record("a", 0, 0));
    for (uint64_t round = 2; round <= 300; ++round)
        for (uint64_t sn = 3; sn >= 1; --sn) {
            write_ace(writer, 8, ace_record("a", 1, sn, round));
            write_psta(writer, 8, psta_record("a", 1, sn, round));
        }
    write_psta(writer, 8, psta_record("b", 1, 1, 1));
    settle(psta);
    wait_for([&] { return !ace.lines.empty(); });
    write_ace(writer, 8, ace_record("a", 1, 1, 2000));
    write_psta(writer, 8, psta_record("a", 1, 9, 7));
    settle(ace);
    settle(psta);
    EXPECT_EQ((lines{"29", "4 a/1/1=2000"}), ace.lines);
    EXPECT_EQ((lines{"1 a/1/3=300", "1 a/1/2=300", "1 a/1/1=300", "1 a/1/9=7"}), psta.lines);
}

TEST_P(store_suite, publications_that_were_subscribed_to_first_come_before_what_is_written_behind_them)
{
    auto *listener = open();
    auto *writer = open();
    hearing counter, ace;
    keyed<SPolicy__AceCounter, SPolicy__AceKey, s_policy__ace_counter__descriptor> published;
    subscribe(listener, counter, published, 0);
    subscribe(listener, ace, any_ace, 0);
    size_t before = 0;
    ace.also = [&](const tq_mom_notification &) { before = counter.lines.size(); };
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(writer));
    for (uint64_t packets = 1; packets <= 600; ++packets) {
        published.record.counter_pkt = packets;
        tq_mom_set_sync(writer, 8, published);
    }
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_end(writer, nullptr, 0));
    wait_for([&] { return ace.lines.size() == 1; });
    EXPECT_EQ(600u, before);
    for (uint64_t round = 1; round <= 100; ++round) { // the other table is busy
        if (round % 7 == 0)
            tq_mom_set_sync(writer, 8, published);
        write_ace(writer, 8, ace_record("a", 1, 1, round));
        wait_for([&] { return ace.lines.size() == 1 + round; });
        ASSERT_EQ(600 + round / 7, before);
    }
}

TEST_P(store_suite, a_client_that_ends_takes_its_subscriptions_along)
{
    context_ptr listener(tq_context_new_on(backend->url("").c_str(), loop.get()));
    auto *writer = open();
    hearing ended, staying;
    subscribe(listener.get(), ended, any_ace, 0);
    subscribe(writer, staying, any_ace, 0);
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    listener.reset();
    settle(staying);
    EXPECT_EQ(lines{}, ended.lines);
    EXPECT_EQ((lines{"*4 a/1/1=1"}), staying.lines);
}

TEST_P(store_suite, a_context_can_bring_its_own_loop)
{
    const context_ptr own(tq_context_new(backend->url("").c_str()));
    ASSERT_NE(nullptr, own);
    hearing heard;
    subscribe(own.get(), heard, any_ace, 0);
    write_ace(own.get(), 8, ace_record("a", 1, 1, 1));
    for (int i = 0; i < 1000 && heard.lines.empty(); ++i)
        tq_loop_run_once(own->master, 10);
    EXPECT_EQ((lines{"*4 a/1/1=1"}), heard.lines);
}

} // namespace
