// What callbacks may do, and what one table's changes do to another's: for every kind of store.
#include "suite.hpp"

namespace {

const ace_record any_ace("", 0, 0);
using counter_record = keyed<SPolicy__AceCounter, SPolicy__AceKey, s_policy__ace_counter__descriptor>;

TEST_P(store_suite, a_scan_goes_on_while_its_callback_writes_and_deletes)
{
    auto *context = open();
    for (uint64_t sn = 1; sn <= 3000; ++sn)
        ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
    hearing found;
    found.also = [&](const tq_mom_notification &told) {
        tq_mom_del_sync(context, 8, told.record);
        write_ace(context, 8, ace_record("b", 1, found.lines.size()));
    };
    ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, ace_record("a", 0, 0), 1, hearing::callback, &found));
    EXPECT_EQ(3000u, found.lines.size());
    EXPECT_EQ(0u, scan(context, ace_record("a", 0, 0), 1).size());
    EXPECT_EQ(3000u, scan(context, ace_record("b", 0, 0), 1).size());
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
    EXPECT_EQ((lines{"*4 ace[a,1,11] 8=1", "*4 ace[a,1,12] 8=1", "*4 ace[a,1,13] 8=1"}), second.lines);
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
    wait_for([&] { return heard.ends_with("*4 ace[a,1,5000] 8=5000"); });
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
    for (const std::string at : {"20", "40", "60", "80"})
        EXPECT_EQ("*1 ace_psta[a,1," + at + "] 7=" + at, quiet.lines[std::stoul(at) / 20 - 1]);
}

// The server looks at the clock once in a second, when it has nothing else to do.
TEST_F(faults, a_quiet_table_is_heard_beside_a_busy_one_from_a_server_without_work)
{
    server.start({"--hz", "1", "--dynamic-hz", "no", "--appendfsync", "no"});
    auto *writer = open(), *listener = open();
    hearing busy, quiet;
    busy.also = [&](const tq_mom_notification &) { write_psta(writer, 8, psta_record("a", 1, 1, busy.lines.size())); };
    subscribe(listener, busy, any_ace, 0);
    subscribe(listener, quiet, psta_record("", 0, 0), 0);
    const auto begin = std::chrono::steady_clock::now();
    for (uint64_t round = 1; round <= 20; ++round) {
        write_ace(writer, 8, ace_record("a", 1, 1, round));
        wait_for([&] { return quiet.lines.size() == round; });
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
}

TEST_P(store_suite, publications_that_were_subscribed_to_first_come_before_what_is_written_behind_them)
{
    auto *listener = open();
    auto *writer = open();
    hearing counter, ace;
    counter_record published;
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

TEST_P(store_suite, arguments_that_are_no_records_are_refused)
{
    auto *context = open();
    const ace_record ace("a", 1, 1);
    const SPolicy__Ace blank{};
    SPolicy__ServiceNodeIndex foreign = S_POLICY__SERVICE_NODE_INDEX__INIT;
    SPolicy__Ace crossed = S_POLICY__ACE__INIT;
    crossed.index = reinterpret_cast<SPolicy__AceKey *>(&foreign);
    ace_record null_text("", 0, 0, 1);
    null_text.key.t_app_type = nullptr;
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(nullptr, 8, ace));
    for (const auto *record : std::initializer_list<const ProtobufCMessage *>{nullptr, &blank.base, &crossed.base})
        EXPECT_EQ(TQ_MOM_INVALID, tq_mom_set_sync(context, 8, record));
    ace_record big("a", 1, 2);
    big.set_value(std::string(size_t{16} << 20, 'x'));
    EXPECT_EQ(TQ_MOM_TOO_BIG, tq_mom_set_sync(context, 8, big));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_hmset_sync(context, 8, ace, nullptr, 1));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_scan_sync(context, 8, ace, 0, nullptr, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_subscribe(context, 8, ace, 0, nullptr, nullptr));
    EXPECT_EQ(TQ_MOM_INVALID, tq_mom_batch_begin(nullptr));
    EXPECT_EQ(nullptr, tq_mom_hgetall_sync(context, 8, nullptr));
    tq_mom_hash_res_free(nullptr);
    EXPECT_EQ(0u, scan(context, ace).size());
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, null_text)) << "is the empty one";
    EXPECT_EQ(lines{"4 ace[,0,0] 8=1"}, scan(context, ace));
}

} // namespace
