// A server that crashes, forgets or vanishes: nothing acknowledged is lost, and no change is missed or told twice.
#include "faults.hpp"
#include "proxy.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

namespace fs = std::filesystem;

namespace {

/// Writes until the server is gone; keeps what was acknowledged and the one write whose fate is open.
struct load {
    std::map<uint64_t, uint64_t> acknowledged; // sn -> request
    std::map<uint64_t, uint64_t> open;         // sn -> request
    std::vector<uint64_t> requests;            // those acknowledged, in order

    void run(tq_context *context, std::mt19937 &random)
    {
        for (;;) {
            const uint64_t sn = random() % 50;
            const uint64_t request = ++last_;
            if (write_ace(context, 8, ace_record("a", 1, sn, request)) != TQ_MOM_OK) {
                open[sn] = request;
                return;
            }
            acknowledged[sn] = request;
            open.erase(sn);
            requests.push_back(request);
        }
    }

    /// The fate of the open write is known now.
    void settle(const std::map<uint64_t, uint64_t> &found)
    {
        acknowledged = found;
        open.clear();
    }

  private:
    uint64_t last_ = 0;
};

TEST_F(faults, a_server_killed_under_load_loses_nothing_and_tells_each_change_once)
{
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    server.start();
    auto *writer = open();
    auto *listener = open();
    std::vector<uint64_t> heard;
    hearing to;
    to.also = [&](const tq_mom_notification &told) {
        heard.push_back(told.record == nullptr ? 0 : reinterpret_cast<const SPolicy__Ace *>(told.record)->req_uuid);
    };
    subscribe(listener, to, ace_record("a", 0, 0));
    load work;
    for (int crash = 0; crash < 20; ++crash) {
        std::thread killer([&, pause = 1 + random() % 20] {
            std::this_thread::sleep_for(std::chrono::milliseconds(pause));
            server.signal(SIGKILL);
        });
        work.run(writer, random);
        killer.join();
        server.crash();
        server.start();
        until_ok([&] { return tq_mom_client_connect_sync(writer, 8); });
        const auto found = stored(writer);
        for (const auto &[sn, request] : work.acknowledged) {
            ASSERT_TRUE(found.contains(sn));
            ASSERT_TRUE(found.at(sn) == request || (work.open.contains(sn) && found.at(sn) == work.open.at(sn)));
        }
        work.settle(found);
    }
    until_ok([&] { return write_ace(writer, 8, ace_record("a", 1, 99, UINT64_MAX)); });
    wait_for([&] { return !heard.empty() && heard.back() == UINT64_MAX; });
    EXPECT_TRUE(std::is_sorted(heard.begin(), heard.end(), std::less_equal<>{})) << "a change was told twice";
    EXPECT_TRUE(std::includes(heard.begin(), heard.end(), work.requests.begin(), work.requests.end()));
    EXPECT_GT(work.requests.size(), 20u);
}

TEST_F(faults, a_server_that_came_back_with_its_data_goes_on_where_it_was)
{
    server.start();
    auto *writer = open();
    auto *listener = open();
    hearing heard;
    subscribe(listener, heard, ace_record("a", 0, 0));
    for (uint64_t sn = 1; sn <= 3; ++sn) {
        until_ok([&] { return write_ace(writer, 8, ace_record("a", 1, sn, sn)); });
        wait_for([&] { return heard.lines.size() >= sn; });
        server.crash();
        server.start();
    }
    EXPECT_EQ((lines{"4 a/1/1=1", "4 a/1/2=2", "4 a/1/3=3"}), heard.lines);
}

TEST_F(faults, a_server_that_came_back_empty_makes_subscribers_start_over)
{
    server.start();
    auto *writer = open();
    auto *listener = open();
    hearing ace, psta;
    subscribe(listener, ace, ace_record("a", 0, 0));
    subscribe(listener, psta, psta_record("a", 0, 0));
    ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, ace_record("a", 1, 1, 1)));
    ASSERT_EQ(TQ_MOM_OK, write_psta(writer, 8, psta_record("a", 1, 1, 1)));
    wait_for([&] { return ace.lines.size() == 1 && psta.lines.size() == 1; });
    server.crash();
    server.erase_data();
    server.start();
    until_ok([&] { return write_psta(writer, 8, psta_record("a", 1, 2, 2)); });
    wait_for([&] { return ace.lines.size() == 2 && psta.lines.size() == 2; });
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ("29", ace.lines.back());
    EXPECT_EQ("1 a/1/2=2", psta.lines.back());
    write_ace(writer, 8, ace_record("a", 1, 3, 3));
    wait_for([&] { return ace.lines.size() == 3; });
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ("4 a/1/3=3", ace.lines.back());
}

TEST_F(faults, a_store_that_was_flushed_takes_writes_of_every_kind)
{
    server.start({"--appendfsync", "no"});
    auto *writer = open();
    auto *listener = open();
    hearing ace, psta;
    subscribe(listener, ace, ace_record("a", 0, 0));
    subscribe(listener, psta, psta_record("a", 0, 0));
    for (uint64_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, ace_record("a", 1, 1, round)));
        ASSERT_EQ(TQ_MOM_OK, write_psta(writer, 8, psta_record("a", 1, 1, round)));
        EXPECT_EQ((std::map<uint64_t, uint64_t>{{1, round}}), stored(writer));
        server.run({"FLUSHALL"});
        tq_mom_batch_begin(writer);
        write_ace(writer, 8, ace_record("a", 1, 1, round));
        tq_mom_batch_end(writer, nullptr, 0); // finds the metadata gone
        server.run({"FLUSHALL"});
    }
    server.crash();
    server.start({"--appendfsync", "no"});
    until_ok([&] { return write_psta(writer, 8, psta_record("a", 1, 9, 9)); });
    wait_for([&] { return !psta.lines.empty() && psta.lines.back() == "1 a/1/9=9"; });
    EXPECT_NE("nil", server.run({"HGET", "plx{8:ace_psta}/meta", "epoch"}));
}

TEST_F(faults, a_server_that_came_back_with_older_data_makes_up_for_the_difference_only)
{
    server.start();
    auto *writer = open();
    auto *listener = open();
    hearing ace, psta;
    subscribe(listener, ace, ace_record("a", 0, 0));
    subscribe(listener, psta, psta_record("a", 0, 0));
    for (uint64_t sn = 1; sn <= 3; ++sn) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, ace_record("a", 1, sn, 1)));
        ASSERT_EQ(TQ_MOM_OK, write_psta(writer, 8, psta_record("a", 1, sn, 1)));
    }
    const std::string data = server.directory() + "/appendonlydir";
    const std::string copy = server.directory() + "/older";
    fs::copy(data, copy, fs::copy_options::recursive);
    for (uint64_t sn = 4; sn <= 6; ++sn) {
        ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, ace_record("a", 1, sn, 1)));
        ASSERT_EQ(TQ_MOM_OK, write_psta(writer, 8, psta_record("a", 1, sn, 1)));
    }
    wait_for([&] { return ace.lines.size() == 6 && psta.lines.size() == 6; });
    server.crash();
    fs::remove_all(data);
    fs::rename(copy, data);
    server.start();
    until_ok([&] { return write_ace(writer, 8, ace_record("a", 1, 7, 7)); });
    for (uint64_t sn = 7; sn <= 12; ++sn) // the same numbers, other changes, and beyond
        ASSERT_EQ(TQ_MOM_OK, write_psta(writer, 8, psta_record("a", 1, sn, 7)));
    wait_for([&] { return ace.lines.size() == 7 && psta.lines.size() == 12; });
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ("29", ace.lines.back());
    EXPECT_EQ((lines{"1 a/1/7=7", "1 a/1/8=7", "1 a/1/9=7", "1 a/1/10=7", "1 a/1/11=7", "1 a/1/12=7"}),
              lines(psta.lines.begin() + 6, psta.lines.end()));
}

TEST_F(faults, a_mark_does_not_outlive_the_history_it_was_made_in)
{
    server.start();
    auto *writer = open();
    const ace_record selected("a", 0, 0);
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(writer, 8, selected, 1, 1000));
    server.crash();
    server.start();
    until_ok([&] { return write_ace(writer, 8, ace_record("a", 1, 2, 2)); });
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(writer, 8, selected, 1, 1000));
    EXPECT_EQ((std::map<uint64_t, uint64_t>{{2, 2}}), stored(writer));

    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(writer, 8, selected, 1, 1000));
    server.crash();
    server.erase_data();
    server.start();
    until_ok([&] { return write_ace(writer, 8, ace_record("a", 1, 3, 3)); });
    EXPECT_EQ(TQ_MOM_NO_MARK, tq_mom_dsend_sync(writer, 8, selected, 1, 1000));
    EXPECT_EQ((std::map<uint64_t, uint64_t>{{3, 3}}), stored(writer));
}

TEST_F(faults, a_subscriber_that_the_server_drops_reads_on)
{
    server.start({"--client-output-buffer-limit", "normal 1mb 1mb 1", "--appendfsync", "no"});
    auto *writer = open();
    auto *listener = open();
    hearing heard;
    subscribe(listener, heard, ace_record("a", 0, 0));
    ace_record big("a", 1, 1);
    big.set_value(std::string(100'000, 'b'));
    for (big.record.req_uuid = 1; big.record.req_uuid <= 60; ++big.record.req_uuid)
        ASSERT_EQ(TQ_MOM_OK, write_ace(writer, 8, big));
    server.run({"CLIENT", "KILL", "TYPE", "normal"});
    wait_for([&] { return heard.lines.size() >= 60; });
    ASSERT_EQ(60u, heard.lines.size());
    for (size_t i = 0; i < 60; ++i)
        EXPECT_EQ("4 a/1/1=" + std::to_string(i + 1), heard.lines[i]);
    EXPECT_EQ(60u, heard.lines.size());
}

TEST_F(faults, a_connection_cut_anywhere_in_an_answer_is_an_error_and_no_more)
{
    server.start({"--appendfsync", "no"});
    auto *direct = open();
    for (uint64_t sn = 1; sn <= 20; ++sn)
        ASSERT_EQ(TQ_MOM_OK, write_ace(direct, 8, ace_record("a", 1, sn, 1)));
    proxy between(server.socket(), server.directory() + "/proxy.sock");
    std::string url = server.url();
    url.replace(url.find(server.socket()), server.socket().size(), between.socket());
    for (size_t bytes = 0; bytes < 1500; bytes += bytes < 200 ? 7 : 97) {
        context_ptr cut(tq_context_new_on(url.c_str(), loop.get()));
        hearing heard;
        tq_mom_subscribe(cut.get(), 8, ace_record("a", 0, 0), 1, hearing::callback, &heard);
        between.cut_after(bytes);
        write_ace(cut.get(), 8, ace_record("a", 1, 1, 2));
        tq_mom_hash_res_free(tq_mom_hgetall_sync(cut.get(), 8, ace_record("a", 1, 1)));
        hearing found;
        tq_mom_scan_sync(cut.get(), 8, ace_record("a", 0, 0), 1, hearing::callback, &found);
        tq_loop_run_once(loop.get(), 0);
        between.cut_after(SIZE_MAX);
        until_ok([&] { return tq_mom_client_connect_sync(cut.get(), 8); });
        EXPECT_EQ(20u, stored(cut.get()).size());
    }
}

TEST_F(faults, a_server_that_does_not_answer_holds_nobody_up_for_long)
{
    server.start({"--appendfsync", "no"});
    auto *context = open("timeout=50");
    ASSERT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_state_get(context, 8, 0));
    server.signal(SIGSTOP);
    EXPECT_EQ(TQ_MOM_TIMEOUT, write_ace(context, 8, ace_record("a", 1, 1, 1)));
    EXPECT_NE(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, 1, 1)));
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(context, 8, 0));
    server.signal(SIGCONT);
    until_ok([&] { return write_ace(context, 8, ace_record("a", 1, 1, 2)); });
    EXPECT_EQ((std::map<uint64_t, uint64_t>{{1, 2}}), stored(context));
}

TEST_F(faults, without_a_server_calls_fail_and_recover_once_it_is_there)
{
    auto *context = open();
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_client_connect_sync(context, 8));
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_state_get(context, 8, 0));
    EXPECT_EQ(TQ_MOM_DISCONNECTED, write_ace(context, 8, ace_record("a", 1, 1, 1)));
    EXPECT_EQ(nullptr, tq_mom_hgetall_sync(context, 8, ace_record("a", 1, 1)));
    server.start({"--appendfsync", "no"});
    until_ok([&] { return write_ace(context, 8, ace_record("a", 1, 1, 1)); });
    EXPECT_EQ(TQ_MOM_OK, tq_mom_state_get(context, 8, 0));
    server.crash();
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(context, 8, 0));
}

TEST_F(faults, a_failover_is_followed)
{
    const uint16_t first_port = redis_server::free_port();
    const uint16_t second_port = redis_server::free_port();
    const uint16_t sentinel_port = redis_server::free_port();
    const auto options = [](uint16_t port) {
        return lines{"--port",
                     std::to_string(port),
                     "--bind",
                     "127.0.0.1",
                     "--appendfsync",
                     "no",
                     "--masteruser",
                     "plx-operator",
                     "--masterauth",
                     "change-me-operator",
                     "--repl-diskless-sync-delay",
                     "0"};
    };
    redis_server second, sentinel;
    server.start(options(first_port));
    second.start(options(second_port));
    second.run({"REPLICAOF", "127.0.0.1", std::to_string(first_port)});
    wait_for([&] { return second.run({"INFO", "replication"}).find("master_link_status:up") != std::string::npos; });
    sentinel.start_sentinel(sentinel_port, first_port);
    auto *context =
        open_at("sentinel://127.0.0.1:" + std::to_string(sentinel_port) + "/policy?" + server.credentials("suite"));
    hearing heard;
    subscribe(context, heard, ace_record("a", 0, 0));
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, 1, 1)));
    wait_for([&] {
        return sentinel.run({"SENTINEL", "REPLICAS", "policy"}).find(std::to_string(second_port)) != std::string::npos;
    });
    wait_for([&] { return second.run({"EXISTS", key("a,a1,a1")}) == "1" && heard.lines.size() == 1; });
    server.crash();
    until_ok([&] { return write_ace(context, 8, ace_record("a", 1, 2, 2)); });
    wait_for([&] { return heard.lines.size() == 2; });
    EXPECT_EQ((lines{"*4 a/1/1=1", "*4 a/1/2=2"}), heard.lines);
    EXPECT_EQ("1", second.run({"EXISTS", key("a,a1,a2")}));
}

} // namespace
