// A server that crashes, forgets, refuses or lies: nothing acknowledged is lost, and no change is missed or told twice.
#include "redis_server.hpp"
#include "suite.hpp"

#include "proxy.hpp"

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <thread>
#include <tq_zlog.h>

namespace fs = std::filesystem;
using lines = std::vector<std::string>;

namespace {

lines log_lines; // what the client told the system log

} // namespace

// Comes before the logging library's own.
void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    log_lines.emplace_back(line);
}

namespace {

class faults : public testing::Test {
  protected:
    tq_context *open(const std::string &options = "", const std::string &user = "suite")
    {
        return open_at(server.url(user, options));
    }
    tq_context *open_at(const std::string &url)
    {
        contexts.emplace_back(tq_context_new_on(url.c_str(), loop.get()));
        return contexts.back().get();
    }
    void wait_for(const std::function<bool()> &condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition() && std::chrono::steady_clock::now() < deadline)
            tq_loop_run_once(loop.get(), 10);
        ASSERT_TRUE(condition());
    }
    /// Repeats a call until the store is back.
    void until_ok(const std::function<int()> &call)
    {
        int result = call();
        wait_for([&] { return result == TQ_MOM_OK || (result = call()) == TQ_MOM_OK; });
    }
    void subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record)
    {
        ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(context, 8, record, 1, hearing::callback, &to));
    }
    std::string key(const std::string &text) const { return "plx{8:ace}:" + text; }

    redis_server server;
    std::unique_ptr<tq_thread_master, loop_free> loop{tq_loop_new()};
    std::vector<context_ptr> contexts;
};

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

std::map<uint64_t, uint64_t> stored(tq_context *context)
{
    std::map<uint64_t, uint64_t> found;
    const auto note = [](void *, const tq_mom_notification *told, void *arg) {
        const auto *ace = reinterpret_cast<const SPolicy__Ace *>(told->record);
        return (*static_cast<std::map<uint64_t, uint64_t> *>(arg))[ace->index->sn] = ace->req_uuid, 0;
    };
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, ace_record("a", 0, 0), 1, note, &found));
    return found;
}

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
    write_ace(writer, 8, ace_record("a", 1, 1, 1));
    write_psta(writer, 8, psta_record("a", 1, 1, 1));
    wait_for([&] { return ace.lines.size() == 1 && psta.lines.size() == 1; });
    server.crash();
    server.erase_data();
    server.start();
    until_ok([&] { return write_psta(writer, 8, psta_record("a", 1, 2, 2)); });
    wait_for([&] { return ace.lines.size() == 2 && psta.lines.size() == 2; });
    EXPECT_EQ("29", ace.lines.back());
    EXPECT_EQ("1 a/1/2=2", psta.lines.back());
    write_ace(writer, 8, ace_record("a", 1, 3, 3));
    wait_for([&] { return ace.lines.size() == 3; });
    EXPECT_EQ("4 a/1/3=3", ace.lines.back());
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
        write_ace(writer, 8, ace_record("a", 1, sn, 1));
        write_psta(writer, 8, psta_record("a", 1, sn, 1));
    }
    const std::string data = server.directory() + "/appendonlydir";
    const std::string copy = server.directory() + "/older";
    fs::copy(data, copy, fs::copy_options::recursive);
    for (uint64_t sn = 4; sn <= 6; ++sn) {
        write_ace(writer, 8, ace_record("a", 1, sn, 1));
        write_psta(writer, 8, psta_record("a", 1, sn, 1));
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

TEST_F(faults, a_server_that_is_still_loading_says_so)
{
    server.start({"--appendfsync", "no"});
    auto *context = open();
    for (uint64_t sn = 1; sn <= 300; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    server.run({"BGREWRITEAOF"}); // a server takes no questions while it replays commands, only while it reads records
    wait_for([&] {
        return server.run({"INFO", "persistence"}).find("aof_rewrite_in_progress:0") != std::string::npos;
    });
    server.crash();
    server.start({"--key-load-delay", "3000", "--loading-process-events-interval-bytes", "1024"}, "LOADING");
    auto *early = open();
    EXPECT_EQ(TQ_MOM_LOADING, tq_mom_client_connect_sync(early, 8));
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(early, 8, 0));
}

TEST_F(faults, each_refusal_has_a_result_of_its_own)
{
    server.start({"--appendfsync", "no"});
    auto *context = open();
    const ace_record ace("a", 1, 1, 1);
    const psta_record psta("a", 1, 1, 1);
    ASSERT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    server.run({"CONFIG", "SET", "maxmemory", "1"});
    EXPECT_EQ(TQ_MOM_STORE_FULL, write_ace(context, 8, ace));
    EXPECT_EQ(TQ_MOM_STORE_FULL, write_psta(context, 8, psta));
    server.run({"CONFIG", "SET", "maxmemory", "0"});
    server.run({"REPLICAOF", "127.0.0.1", "1"});
    EXPECT_EQ(TQ_MOM_READ_ONLY, write_ace(context, 8, ace));
    EXPECT_EQ(TQ_MOM_READ_ONLY, write_psta(context, 8, psta));
    server.run({"REPLICAOF", "NO", "ONE"});
    EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    EXPECT_EQ(TQ_MOM_OK, write_psta(context, 8, psta));
}

TEST_F(faults, each_user_may_do_what_its_role_needs)
{
    server.start({"--appendfsync", "no"});
    const ace_record ace("a", 1, 1, 1);
    const psta_record psta("a", 1, 1, 1);
    SPolicy__ServiceNode node = S_POLICY__SERVICE_NODE__INIT;
    auto *application = open("", "plx-application");
    auto *service = open("", "plx-node");
    auto *reader = open("", "plx-reader");
    hearing heard;
    EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_set_sync(application, 8, &node.base));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(service, 8, &node.base));
    EXPECT_EQ(TQ_MOM_OK, write_psta(service, 8, psta));
    EXPECT_EQ(TQ_MOM_DENIED, write_ace(service, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_set_sync(service, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_del_sync(service, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, write_ace(reader, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, write_psta(reader, 8, psta));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_dsbegin_sync(reader, 8, ace, 1, 1000));
    for (auto *context : {application, service, reader}) {
        EXPECT_EQ((std::map<uint64_t, uint64_t>{{1, 1}}), stored(context));
        subscribe(context, heard, ace_record("a", 0, 0));
    }
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(application, 8, ace, 1, 1000));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(application, 8, ace, 1, 1000));
    wait_for([&] { return heard.lines.size() == 3; });

    auto *nobody = open_at("unix:" + server.socket());
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_client_connect_sync(nobody, 8));
    auto *stranger = open_at("unix:" + server.socket() + "?user=stranger");
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_client_connect_sync(stranger, 8));
}

TEST_F(faults, what_is_no_record_under_a_record_s_key_is_told_apart)
{
    server.start({"--appendfsync", "no"});
    auto *context = open();
    const ace_record ace("a", 1, 1, 1);
    const auto status = [&] {
        auto *result = tq_mom_hgetall_sync(context, 8, ace);
        const int code = result->status;
        EXPECT_EQ(nullptr, result->record);
        tq_mom_hash_res_free(result);
        return code;
    };
    write_ace(context, 8, ace_record("a", 1, 2, 1));
    server.run({"SET", key("a,a1,a1"), "foreign"});
    EXPECT_EQ(TQ_MOM_CORRUPT, write_ace(context, 8, ace));
    EXPECT_EQ(TQ_MOM_CORRUPT, tq_mom_del_sync(context, 8, ace));
    EXPECT_EQ(TQ_MOM_CORRUPT, status());
    EXPECT_EQ((std::map<uint64_t, uint64_t>{{2, 1}}), stored(context));
    server.run({"DEL", key("a,a1,a1")});
    const lines foreign[] = {
        {"name", "x"}, {"6", "x", "#", "1"}, {"5", "\x2a", "#", "1"}, {"8", "\x40\x01\x2a\x01\x08", "#", "1"}};
    for (const auto &fields : foreign) {
        lines command{"HSET", key("a,a1,a1")};
        command.insert(command.end(), fields.begin(), fields.end());
        server.run(command);
        EXPECT_EQ(TQ_MOM_CORRUPT, status());
        server.run({"DEL", key("a,a1,a1")});
    }
}

TEST_F(faults, random_bytes_in_the_store_crash_nobody)
{
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto noise = [&](size_t longest) {
        std::string bytes(random() % (longest + 1), '\0');
        for (auto &byte : bytes)
            byte = static_cast<char>(random());
        return bytes;
    };
    server.start({"--appendfsync", "no"});
    auto *context = open();
    hearing heard, found;
    subscribe(context, heard, ace_record("a", 0, 0));
    write_ace(context, 8, ace_record("a", 1, 1, 1));
    for (int i = 0; i < 200; ++i) {
        const std::string name = random() % 2 == 0 ? "a,a1,a" + std::to_string(random() % 10) : noise(30);
        const std::string field = random() % 4 == 0 ? noise(3) : std::to_string(random() % 14);
        server.run({"HSET", key(name), field, noise(40), "#", random() % 2 == 0 ? "1" : noise(5)});
        server.run({"ZADD", "plx{8:ace}/index", "0", name});
        server.run({"XADD", "plx{8:ace}/log", "0-*", "k", name, "w", noise(8), "r", noise(60)});
        server.run({"XADD", "plx{8:ace}/log", "0-*", noise(5), noise(50)});
        tq_mom_hash_res_free(tq_mom_hgetall_sync(context, 8, ace_record("a", 1, random() % 10)));
    }
    server.run({"HSET", "plx{8:ace}/meta", "fields", noise(50), "gen", "x"});
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, ace_record("", 0, 0), 0, hearing::callback, &found));
    until_ok([&] { return write_ace(context, 8, ace_record("a", 1, 99, 7)); });
    wait_for([&] { return !heard.lines.empty() && heard.lines.back() == "*4 a/1/99=7"; });
}

TEST_F(faults, a_server_that_forgot_its_scripts_gets_them_again)
{
    server.start({"--appendfsync", "no"});
    auto *context = open();
    for (const int round : {1, 2}) {
        EXPECT_EQ(TQ_MOM_OK, write_psta(context, 8, psta_record("a", 1, 1, 1))) << round;
        EXPECT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta_record("a", 1, 1)));
        EXPECT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context, 8, psta_record("a", 1, 1), 1, 10));
        EXPECT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context, 8, psta_record("a", 1, 1), 1, 1000));
        ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(context));
        for (uint64_t sn = 1; sn <= 20; ++sn)
            EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
        server.run({"SCRIPT", "FLUSH"});
        EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context));
        EXPECT_EQ(20u, stored(context).size());
        server.run({"SCRIPT", "FLUSH"});
    }
}

TEST_F(faults, a_batch_reports_its_first_failure)
{
    server.start({"--appendfsync", "no"});
    auto *application = open("", "plx-application");
    SPolicy__ServiceNode node = S_POLICY__SERVICE_NODE__INIT;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(application));
    EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace_record("a", 1, 1, 1)));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(application, 8, &node.base));
    EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace_record("a", 1, 2, 2)));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_batch_end(application));
    EXPECT_EQ(2u, stored(application).size());
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(application));
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

TEST_F(faults, a_server_that_may_lose_policy_is_warned_about_once)
{
    const uint16_t port = redis_server::free_port();
    const std::string number = std::to_string(port);
    server.start({"--appendonly", "no", "--port", number, "--bind", "127.0.0.1", "--maxmemory", "100mb",
                  "--maxmemory-policy", "allkeys-lru"});
    server.run({"ACL", "SETUSER", "default", "on", "nopass"});
    log_lines.clear();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(open_at("redis://127.0.0.1:" + number), 8));
    ASSERT_EQ(3u, log_lines.size());
    for (const char *part : {"appendonly no", "noeviction", "set a password"})
        EXPECT_EQ(1, std::count_if(log_lines.begin(), log_lines.end(),
                                   [part](const auto &line) { return line.find(part) != std::string::npos; }))
            << part;
}

TEST_F(faults, a_server_as_it_is_shipped_needs_no_warning)
{
    server.start();
    log_lines.clear();
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(open(), 8));
    EXPECT_EQ(lines{}, log_lines);
}

} // namespace
