// A server that crashes, forgets or vanishes: nothing acknowledged is lost, and no change is missed or told twice.
#include "faults.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

namespace fs = std::filesystem;

namespace {

/// A context that writes, and one that hears about the ACEs of application "a" and their status.
class crash : public faults {
  protected:
    void attend()
    {
        writer = open();
        auto *listener = open();
        subscribe(listener, ace, ace_record("a", 0, 0));
        subscribe(listener, psta, psta_record("a", 0, 0));
    }
    int put_ace(uint64_t sn, uint64_t request) { return write_ace(writer, 8, ace_record("a", 1, sn, request)); }
    int put_psta(uint64_t sn, uint64_t request) { return write_psta(writer, 8, psta_record("a", 1, sn, request)); }
    void wait_for_lines(size_t of_ace, size_t of_psta)
    {
        wait_for([&] { return ace.lines.size() >= of_ace && psta.lines.size() >= of_psta; });
        EXPECT_EQ(of_ace, ace.lines.size());
        EXPECT_EQ(of_psta, psta.lines.size());
    }

    tq_context *writer = nullptr;
    hearing ace, psta;
};

TEST_F(crash, a_server_killed_under_load_loses_nothing_and_tells_each_change_once)
{
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<uint64_t> heard, acknowledged;
    ace.also = [&](const tq_mom_notification &told) {
        heard.push_back(told.record == nullptr ? 0 : reinterpret_cast<const SPolicy__Ace *>(told.record)->req_uuid);
    };
    server.start();
    attend();
    requests expected;
    uint64_t last = 0;
    for (int time = 0; time < 20; ++time) {
        std::atomic<uint64_t> written = 0;
        std::thread killer([&, enough = 1 + random() % 20] {
            for (uint64_t now = 0; (now = written) < enough;)
                written.wait(now);
            server.signal(SIGKILL);
        });
        uint64_t sn = random() % 50;
        while (put_ace(sn, ++last) == TQ_MOM_OK) {
            expected[sn] = last;
            acknowledged.push_back(last);
            ++written;
            written.notify_one();
            sn = random() % 50;
        }
        written = UINT64_MAX;
        written.notify_one();
        killer.join();
        server.crash();
        server.start();
        until_ok([&] { return tq_mom_client_connect_sync(writer, 8); });
        const auto found = stored(writer);
        if (found.contains(sn) && found.at(sn) == last) // nobody knew what became of this one
            expected[sn] = last;
        ASSERT_EQ(expected, found);
    }
    until_ok([&] { return put_ace(99, UINT64_MAX); });
    wait_for([&] { return !heard.empty() && heard.back() == UINT64_MAX; });
    EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end(), std::less_equal<>{})) << "a change was told twice";
    EXPECT_TRUE(std::includes(heard.begin(), heard.end(), acknowledged.begin(), acknowledged.end()));
    EXPECT_GT(acknowledged.size(), 20u);
}

TEST_F(crash, a_server_that_came_back_empty_makes_subscribers_start_over)
{
    server.start();
    attend();
    ASSERT_EQ(TQ_MOM_OK, put_ace(1, 1));
    ASSERT_EQ(TQ_MOM_OK, put_psta(1, 1));
    wait_for_lines(1, 1);
    server.crash();
    server.erase_data();
    server.start();
    until_ok([&] { return put_psta(2, 2); });
    wait_for_lines(2, 2);
    EXPECT_EQ(TQ_MOM_OK, put_ace(3, 3));
    wait_for_lines(3, 2);
    EXPECT_EQ((lines{"4 a/1/1=1", "29", "4 a/1/3=3"}), ace.lines);
    EXPECT_EQ((lines{"1 a/1/1=1", "1 a/1/2=2"}), psta.lines);
}

TEST_F(crash, a_store_that_was_flushed_takes_writes_of_every_kind)
{
    constexpr uint32_t part[] = {8};
    start_quick();
    attend();
    for (uint64_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(TQ_MOM_OK, put_ace(1, round));
        ASSERT_EQ(TQ_MOM_OK, put_psta(1, round));
        EXPECT_EQ((requests{{1, round}}), stored(writer));
        server.run({"FLUSHALL"});
        tq_mom_batch_begin(writer);
        tq_mom_hmset_sync(writer, 8, ace_record("a", 1, 2, 9), part, 1);
        put_ace(1, round);
        EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(writer, nullptr, 0));
        EXPECT_EQ((requests{{1, round}, {2, 9}}), stored(writer));
        server.run({"FLUSHALL"});
    }
    server.crash();
    start_quick();
    until_ok([&] { return put_psta(9, 9); });
    wait_for([&] { return psta.ends_with("1 a/1/9=9"); });
    EXPECT_NE("nil", server.run({"HGET", "plx{8:ace_psta}/meta", "epoch"}));
}

TEST_F(crash, a_server_that_came_back_with_older_data_makes_up_for_the_difference_only)
{
    server.start();
    attend();
    const std::string data = server.directory() + "/appendonlydir";
    const std::string copy = server.directory() + "/older";
    for (uint64_t sn = 1; sn <= 6; ++sn) {
        ASSERT_EQ(TQ_MOM_OK, put_ace(sn, 1));
        ASSERT_EQ(TQ_MOM_OK, put_psta(sn, 1));
        if (sn == 3)
            fs::copy(data, copy, fs::copy_options::recursive);
    }
    wait_for_lines(6, 6);
    server.crash();
    fs::remove_all(data);
    fs::rename(copy, data);
    server.start();
    until_ok([&] { return put_ace(7, 7); });
    for (uint64_t sn = 7; sn <= 12; ++sn) // the same numbers, other changes, and beyond
        ASSERT_EQ(TQ_MOM_OK, put_psta(sn, 7));
    wait_for_lines(7, 12);
    EXPECT_TRUE(ace.ends_with("29"));
    psta.lines.erase(psta.lines.begin(), psta.lines.begin() + 6);
    EXPECT_EQ((lines{"1 a/1/7=7", "1 a/1/8=7", "1 a/1/9=7", "1 a/1/10=7", "1 a/1/11=7", "1 a/1/12=7"}), psta.lines);
}

TEST_F(crash, a_mark_outlives_a_crash_but_not_the_history_it_was_made_in)
{
    server.start();
    writer = open();
    const ace_record selected("a", 0, 0);
    ASSERT_EQ(TQ_MOM_OK, put_ace(1, 1));
    for (const bool emptied : {false, true}) {
        ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(writer, 8, selected, 1, 1000));
        server.crash();
        if (emptied)
            server.erase_data();
        server.start();
        until_ok([&] { return put_ace(2, 2); });
        EXPECT_EQ(emptied ? TQ_MOM_NO_MARK : TQ_MOM_OK, tq_mom_dsend_sync(writer, 8, selected, 1, 1000));
        EXPECT_EQ((requests{{2, 2}}), stored(writer));
    }
}

TEST_F(crash, a_subscriber_that_the_server_drops_reads_on)
{
    start_quick({"--client-output-buffer-limit", "normal 1mb 1mb 1"});
    attend();
    ace_record big("a", 1, 1);
    big.set_value(std::string(100'000, 'b'));
    lines expected;
    for (big.record.req_uuid = 1; big.record.req_uuid <= 60; ++big.record.req_uuid) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, big));
        expected.push_back("4 a/1/1=" + std::to_string(big.record.req_uuid));
    }
    server.run({"CLIENT", "KILL", "TYPE", "normal"});
    wait_for_lines(60, 0);
    EXPECT_EQ(expected, ace.lines);
}

TEST_F(crash, a_server_that_does_not_answer_holds_nobody_up_for_long)
{
    start_quick();
    writer = open("timeout=50");
    ASSERT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(writer, 8));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_state_get(writer, 8, 0));
    server.signal(SIGSTOP);
    EXPECT_EQ(TQ_MOM_TIMEOUT, put_ace(1, 1));
    EXPECT_NE(TQ_MOM_OK, put_ace(1, 1));
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(writer, 8, 0));
    server.signal(SIGCONT);
    until_ok([&] { return put_ace(1, 2); });
    EXPECT_EQ((requests{{1, 2}}), stored(writer));
}

TEST_F(crash, without_a_server_calls_fail_and_recover_once_it_is_there)
{
    writer = open();
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_client_connect_sync(writer, 8));
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_state_get(writer, 8, 0));
    EXPECT_EQ(TQ_MOM_DISCONNECTED, put_ace(1, 1));
    EXPECT_EQ(nullptr, tq_mom_hgetall_sync(writer, 8, ace_record("a", 1, 1)));
    start_quick();
    until_ok([&] { return put_ace(1, 1); });
    EXPECT_EQ(TQ_MOM_OK, tq_mom_state_get(writer, 8, 0));
    server.crash();
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(writer, 8, 0));
}

TEST_F(crash, what_was_answered_before_it_counts)
{
    start_quick();
    writer = open();
    ASSERT_EQ(TQ_MOM_OK, put_ace(0, 1));
    tq_mom_batch_begin(writer);
    for (uint64_t sn = 1; sn <= 3; ++sn) {
        put_ace(sn, 1);
        tq_mom_batch_send(writer);
    }
    wait_for([&] { return server.run({"HLEN", "plx{8:ace}:a,a1,a3"}) != "0"; });
    server.crash();
    EXPECT_EQ(TQ_MOM_OK, put_ace(4, 1)); // collected
    std::array<int, 4> results;
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_batch_end(writer, results.data(), results.size()));
    EXPECT_EQ((std::array{0, 0, 0, int(TQ_MOM_DISCONNECTED)}), results);
}

/// A master and its replica, and a sentinel that knows both.
class failover : public crash {
  protected:
    void SetUp() override
    {
        const auto start = [](redis_server &of, const std::string &port) {
            of.start({"--appendfsync", "no", "--bind", "127.0.0.1", "--port", port, "--masteruser", "plx-operator",
                      "--masterauth", "change-me-operator", "--repl-diskless-sync-delay", "0"});
        };
        start(server, ports[0]);
        start(second, ports[1]);
        second.run({"REPLICAOF", "127.0.0.1", ports[0]});
        wait_for([&] { return tells(second, {"INFO", "replication"}, "master_link_status:up"); });
        sentinel.start_sentinel(ports[2], ports[0]);
        wait_for([&] { return tells(sentinel, {"SENTINEL", "REPLICAS", "policy"}, ports[1]); });
        writer = open_at("sentinel://127.0.0.1:" + ports[2] + "/policy?" + server.credentials("suite"));
        subscribe(writer, ace, ace_record("a", 0, 0));
        ASSERT_EQ(TQ_MOM_OK, put_ace(1, 1));
        wait_for([&] { return second.run({"EXISTS", "plx{8:ace}:a,a1,a1"}) == "1"; });
    }
    // By hand, which leaves connections alone.
    void hand_over()
    {
        second.run({"REPLICAOF", "NO", "ONE"});
        server.run({"REPLICAOF", "127.0.0.1", ports[1]});
        sentinel.run({"SENTINEL", "REMOVE", "policy"});
        sentinel.run({"SENTINEL", "MONITOR", "policy", "127.0.0.1", ports[1], "1"});
    }

    const std::string ports[3] = {redis_server::free_port(), redis_server::free_port(), redis_server::free_port()};
    redis_server second, sentinel;
};

TEST_F(failover, is_followed_when_the_master_dies)
{
    server.crash();
    until_ok([&] { return put_ace(2, 2); });
    wait_for_lines(2, 0);
    EXPECT_EQ((lines{"*4 a/1/1=1", "*4 a/1/2=2"}), ace.lines);
    EXPECT_EQ("1", second.run({"EXISTS", "plx{8:ace}:a,a1,a2"}));
}

TEST_F(failover, leaves_no_connection_to_a_master_that_became_a_replica)
{
    ace.also = [&](const tq_mom_notification &) {
        stored(writer); // who makes calls from what it hears asks for changes along with the next one
        if (ace.lines.size() == 1)
            hand_over();
    };
    wait_for_lines(1, 0);
    until_ok([&] { return put_ace(1, 2); });
    wait_for_lines(2, 0);
    lines expected{"*4 a/1/1=1", "*4 a/1/1=2"};
    for (uint64_t request = 3; request < 10; ++request) {
        EXPECT_EQ(TQ_MOM_OK, put_ace(1, request));
        expected.push_back("*4 a/1/1=" + std::to_string(request));
        wait_for_lines(expected.size(), 0);
    }
    EXPECT_EQ(expected, ace.lines);
}

} // namespace
