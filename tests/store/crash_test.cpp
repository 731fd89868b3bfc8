// A server that dies, or hands over to another, while it is written to: nothing acknowledged is lost, and no change is
// missed or told twice; and what a server holds may be big.
#include "suite.hpp"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <random>
#include <thread>

namespace {

/// A context that writes, and what is heard about the ACEs of application "a".
class crash : public faults {
  protected:
    int put_ace(uint64_t sn, uint64_t request) { return write_ace(writer, 8, ace_record("a", 1, sn, request)); }

    tq_context *writer = nullptr;
    hearing ace;
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
    writer = open();
    subscribe(open(), ace, ace_record("a", 0, 0));
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

// Nobody asks for the size of a field that is none of the type's.
class big_record : public crash, public testing::WithParamInterface<std::pair<const char *, const char *>> {};
INSTANTIATE_TEST_SUITE_P(of, big_record,
                         testing::Values(std::pair{"6", "plx-application"}, std::pair{"77", "plx-reader"}));

TEST_P(big_record, is_told_as_unreadable_and_the_others_are_told)
{
    const auto [field, user] = GetParam();
    server.start({"--appendonly", "no"});
    writer = open();
    const std::string key = "plx{8:ace}:a,a1,a3";
    for (uint64_t sn = 1; sn <= 5; ++sn)
        put_ace(sn, sn);
    const auto sent_bytes = [&] {
        const std::string stats = server.run({"INFO", "stats"}), name = "total_net_output_bytes:";
        return std::stoull(stats.substr(stats.find(name) + name.size()));
    };
    server.run({"EVAL", "return redis.call('HSET', KEYS[1], ARGV[1], string.rep('x', 36e6))", "1", key, field});
    const auto before = sent_bytes();
    hearing found;
    EXPECT_EQ(TQ_MOM_OK,
              tq_mom_scan_sync(open("timeout=60000", user), 8, ace_record("", 0, 0), 0, hearing::callback, &found));
    EXPECT_EQ((lines{"4 ace[a,1,1] 8=1", "4 ace[a,1,2] 8=2", "4 ! 6", "4 ace[a,1,4] 8=4", "4 ace[a,1,5] 8=5"}),
              found.lines);
    EXPECT_TRUE(*field != '6' || sent_bytes() - before < 48'000'000) << "it was asked for again";
}

/// A master and its replica, and a sentinel that knows both; over TLS or without.
class failover : public crash, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override
    {
        const auto start = [](redis_server &of, const std::string &port) {
            lines options = {"--bind", "127.0.0.1", "--port", port};
            if (GetParam())
                options = redis_server::tls_options(port);
            options.insert(options.end(), {"--appendfsync", "no", "--masteruser", "plx-replica", "--masterauth",
                                           "change-me-replica", "--repl-diskless-sync-delay", "0"});
            of.start(options);
        };
        start(server, ports[0]);
        start(second, ports[1]);
        second.run({"REPLICAOF", "127.0.0.1", ports[0]});
        wait_for([&] {
            return second.run({"INFO", "replication"}).find("master_link_status:up") != std::string::npos;
        });
        sentinel.start_sentinel(ports[2], ports[0], GetParam());
        wait_for([&] { return sentinel.run({"SENTINEL", "REPLICAS", "policy"}).find(ports[1]) != std::string::npos; });
        const auto login = sentinel.credentials("plx-operator");
        const std::string scheme = GetParam() ? "sentinels://" : "sentinel://";
        const std::string trust = GetParam() ? "ca=" + redis_server::certificates() + "/ca.pem&" : "";
        const std::string hosts = "localhost:" + redis_server::free_port() + ",localhost:" + ports[2];
        url = scheme + hosts + "/policy?" + trust + server.credentials("suite") + "&sentinel-" +
              std::string(login).insert(login.find('&') + 1, "sentinel-");
        writer = open_at(url);
        subscribe(writer, ace, ace_record("a", 0, 0));
        ASSERT_EQ(TQ_MOM_OK, put_ace(1, 1));
        wait_for([&] { return second.run({"EXISTS", "plx{8:ace}:a,a1,a1"}) == "1"; });
    }
    // Once the sentinel is listened to.
    void stop_clock()
    {
        wait_for([&] { return sentinel.run({"CLIENT", "LIST"}).find("cmd=subscribe") != std::string::npos; });
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        clock_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    }
    void replicate_no_more() { second.run({"REPLICAOF", "NO", "ONE"}); }
    // By hand, which leaves connections alone.
    void hand_over()
    {
        replicate_no_more();
        server.run({"REPLICAOF", "127.0.0.1", ports[1]});
        name_second();
    }
    void name_second()
    {
        sentinel.run({"SENTINEL", "REMOVE", "policy"});
        sentinel.run({"SENTINEL", "MONITOR", "policy", "127.0.0.1", ports[1], "1"});
    }

    const std::string ports[3] = {redis_server::free_port(), redis_server::free_port(), redis_server::free_port()};
    redis_server second, sentinel;
    std::string url; // by the sentinel
};
INSTANTIATE_TEST_SUITE_P(, failover, testing::Bool(),
                         [](const auto &each) { return each.param ? "over_tls" : "plain"; });

TEST_P(failover, is_followed_when_the_master_dies_and_ends_the_pause_before_the_next_attempt)
{
    stop_clock();
    server.crash();
    const auto end = std::chrono::system_clock::now() + std::chrono::seconds(20);
    while (put_ace(2, 2) != TQ_MOM_OK && std::chrono::system_clock::now() < end) // the steady clock stands
        tq_loop_run_once(loop.get(), 0);
    clock_ms = 0;
    wait_for([&] { return ace.lines.size() > 1; });
    EXPECT_EQ((lines{"*4 ace[a,1,1] 8=1", "*4 ace[a,1,2] 8=2"}), ace.lines);
    EXPECT_EQ("1", second.run({"EXISTS", "plx{8:ace}:a,a1,a2"}));
}

TEST_P(failover, is_heard_of_from_the_sentinel_by_who_only_listens)
{
    stop_clock(); // so that nobody finds the old master silent
    server.signal(SIGSTOP);
    wait_for([&] { return ++clock_ms, second.run({"ROLE"}).starts_with("master"); });
    EXPECT_EQ(TQ_MOM_OK, write_ace(open_at(second.url()), 8, ace_record("a", 1, 2, 2)));
    wait_for([&] { return ++clock_ms, ace.ends_with("4 ace[a,1,2] 8=2"); });
    clock_ms = 0;
    server.signal(SIGCONT);
}

TEST_P(failover, to_what_is_still_a_replica_is_not_believed)
{
    name_second();
    EXPECT_EQ(TQ_MOM_READ_ONLY, tq_mom_client_connect_sync(open_at(url), 8));
}

TEST_P(failover, that_loses_a_write_is_told_to_who_follows_only_answers)
{
    hearing answers;
    subscribe(writer, answers, psta_record("a", 0, 0));
    replicate_no_more();
    EXPECT_EQ(TQ_MOM_OK, put_ace(2, 2));
    hand_over();
    until_ok([&] { return put_ace(3, 3); });
    wait_for([&] { return answers.ends_with("29 19"); });
    EXPECT_EQ(1u, answers.lines.size());
}

TEST_P(failover, leaves_no_connection_to_a_master_that_became_a_replica)
{
    ace.also = [&](const tq_mom_notification &) {
        stored(writer); // who makes calls from what it hears asks for changes along with the next one
        if (ace.lines.size() == 1)
            hand_over();
    };
    wait_for([&] { return ace.lines.size() == 1; });
    until_ok([&] { return put_ace(1, 2); });
    wait_for([&] { return ace.lines.size() == 2; });
    for (uint64_t request = 3; request < 10; ++request) {
        EXPECT_EQ(TQ_MOM_OK, put_ace(1, request));
        wait_for([&] { return ace.lines.size() == request; });
        EXPECT_EQ("*4 ace[a,1,1] 8=" + std::to_string(request), ace.lines.back());
    }
}

} // namespace
