// A server that refuses, warns or lies: each refusal is told apart, and nothing in the store crashes anybody.
#include "faults.hpp"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <random>
#include <tq_zlog.h>

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

/// A server and one who uses it.
class refusal : public faults {
  protected:
    void SetUp() override
    {
        start_quick({"--zset-max-listpack-entries", "2000"}); // a small index is walked in its own order
        context = open();
    }

    const ace_record ace{"a", 1, 1, 1};
    const psta_record psta{"a", 1, 1, 1};
    const keyed<SPolicy__ServiceNode, SPolicy__ServiceNodeIndex, s_policy__service_node__descriptor> node;
    tq_context *context = nullptr;
};

TEST_F(refusal, each_has_a_result_of_its_own)
{
    const auto expect_writes = [&](int result) {
        EXPECT_EQ(result, write_ace(context, 8, ace));
        EXPECT_EQ(result, write_psta(context, 8, psta));
    };
    server.run({"CONFIG", "SET", "maxmemory", "1"});
    expect_writes(TQ_MOM_STORE_FULL);
    server.run({"CONFIG", "SET", "maxmemory", "0"});
    server.run({"REPLICAOF", "127.0.0.1", "1"});
    expect_writes(TQ_MOM_READ_ONLY);
    server.run({"REPLICAOF", "NO", "ONE"});
    expect_writes(TQ_MOM_OK);
    for (uint64_t sn = 1; sn <= 300; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, 1));
    server.run({"BGREWRITEAOF"}); // a server takes no questions while it replays commands, only while it reads records
    wait_for([&] { return tells(server, {"INFO", "persistence"}, "aof_rewrite_in_progress:0"); });
    server.crash();
    server.start({"--key-load-delay", "3000", "--loading-process-events-interval-bytes", "1024"}, "LOADING");
    auto *early = open();
    EXPECT_EQ(TQ_MOM_LOADING, tq_mom_client_connect_sync(early, 8));
    EXPECT_NE(TQ_MOM_OK, tq_mom_state_get(early, 8, 0));
}

TEST_F(refusal, meets_each_user_who_leaves_its_role)
{
    auto *application = open("", "plx-application");
    auto *service = open("", "plx-node");
    auto *reader = open("", "plx-reader");
    hearing heard;
    EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_set_sync(application, 8, node));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(service, 8, node));
    EXPECT_EQ(TQ_MOM_OK, write_psta(service, 8, psta));
    for (auto *unfit : {service, reader}) {
        EXPECT_EQ(TQ_MOM_DENIED, write_ace(unfit, 8, ace));
        EXPECT_EQ(TQ_MOM_DENIED, tq_mom_set_sync(unfit, 8, ace));
        EXPECT_EQ(TQ_MOM_DENIED, tq_mom_del_sync(unfit, 8, ace));
    }
    EXPECT_EQ(TQ_MOM_DENIED, write_psta(reader, 8, psta));
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_dsbegin_sync(reader, 8, ace, 1, 1000));
    for (auto *user : {application, service, reader}) {
        EXPECT_EQ((requests{{1, 1}}), stored(user));
        subscribe(user, heard, ace);
    }
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(application, 8, ace, 1, 1000));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(application, 8, ace, 1, 1000));
    wait_for([&] { return heard.lines.size() == 3; });
    for (const char *nobody : {"", "?user=stranger"})
        EXPECT_EQ(TQ_MOM_DENIED, tq_mom_client_connect_sync(open_at("unix:" + server.socket() + nobody), 8));
}

TEST_F(refusal, tells_a_record_of_many_megabytes_as_unreadable_and_goes_on)
{
    const std::string key = "plx{8:ace}:a,a1,a3";
    for (uint64_t sn = 1; sn <= 5; ++sn)
        write_ace(context, 8, ace_record("a", 1, sn, sn));
    const auto sent_bytes = [&] {
        const std::string stats = server.run({"INFO", "stats"}), name = "total_net_output_bytes:";
        return std::stoull(stats.substr(stats.find(name) + name.size()));
    };
    for (const char *field : {"6", "77"}) { // the second is none of the type's, so nobody asks for its size
        server.run({"EVAL", "return redis.call('HSET', KEYS[1], ARGV[1], string.rep('x', 64e6))", "1", key, field});
        for (const char *user : {"plx-reader", "plx-application"}) {
            const auto before = sent_bytes();
            hearing found;
            EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(open("timeout=60000", user), 8, ace, 0, hearing::callback, &found));
            EXPECT_EQ((lines{"4 a/1/1=1", "4 a/1/2=2", "4 ! 6", "4 a/1/4=4", "4 a/1/5=5"}), found.lines)
                << user << field;
            if (*field == '6') {
                EXPECT_LT(sent_bytes() - before, 48'000'000u) << user;
            }
        }
        server.run({"HDEL", key, field});
    }
}

TEST_F(refusal, tells_what_is_no_record_under_a_record_s_key)
{
    const std::string key = "plx{8:ace}:a,a1,a1";
    write_ace(context, 8, ace_record("a", 1, 2, 1));
    hearing heard;
    subscribe(context, heard, ace);
    for (const auto &foreign : {lines{"SET", key, "foreign"},
                                {"HSET", key, "name", "x"},
                                {"HSET", key, "6", "x", "#", "1"},
                                {"HSET", key, "5", "\x2a", "#", "1"},
                                {"HSET", key, "8", "\x40\x01\x2a\x01\x08", "#", "1"}}) {
        server.run(foreign);
        auto *read = tq_mom_hgetall_sync(context, 8, ace);
        EXPECT_EQ(TQ_MOM_CORRUPT, read->status);
        EXPECT_EQ(nullptr, read->record);
        tq_mom_hash_res_free(read);
        if (foreign[0] == "SET") {
            EXPECT_EQ(TQ_MOM_CORRUPT, tq_mom_set_sync(context, 8, ace));
            EXPECT_EQ(TQ_MOM_CORRUPT, write_ace(context, 8, ace));
            wait_for([&] { return heard.ends_with("*3 a/1/1=0"); }); // what was told of it is taken back
            EXPECT_EQ(TQ_MOM_CORRUPT, tq_mom_del_sync(context, 8, ace));
            EXPECT_EQ((requests{{2, 1}}), stored(context));
        }
        server.run({"DEL", key});
    }
}

TEST_F(refusal, an_index_out_of_order_ends_a_walk_and_not_the_changes)
{
    hearing heard, found;
    subscribe(context, heard, psta);
    write_ace(context, 8, ace);
    write_psta(context, 8, psta);
    wait_for([&] { return heard.lines.size() == 1; });
    server.run({"CLIENT", "KILL", "TYPE", "normal"}); // what is written now is trimmed before it was heard
    auto *other = open();
    write_psta(other, 8, psta_record("a", 1, 2, 2));
    for (const std::string table : {"plx{8:ace}", "plx{8:ace_psta}"}) { // behind any page lies the first one again
        lines command{"ZADD", table + "/index", "2000", "zz"};
        for (int i = 1; i <= 1100; ++i)
            command.insert(command.end(), {std::to_string(i), "z" + std::to_string(9000 - i)});
        server.run(command);
        server.run({"XTRIM", table + "/log", "MAXLEN", "0"});
    }
    EXPECT_EQ(TQ_MOM_BAD_ANSWER, tq_mom_scan_sync(other, 8, ace, 0, hearing::callback, &found));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(other, 8, ace, 0, 1000));
    EXPECT_EQ(TQ_MOM_BAD_ANSWER, tq_mom_dsend_sync(other, 8, ace, 0, 10'000));
    write_psta(other, 8, psta_record("a", 1, 3, 3));
    wait_for([&] { return heard.lines.size() == 3; });
    EXPECT_EQ((lines{"*1 a/1/1=1", "1 a/1/2=2", "1 a/1/3=3"}), heard.lines);
}

TEST_F(refusal, what_is_foreign_under_a_table_s_keys_harms_no_other_table_and_can_be_taken_away)
{
    hearing damaged, whole;
    subscribe(context, whole, ace);
    uint32_t db = 100;
    const auto failures_of_every_call = [&] {
        hearing found;
        int failed = write_ace(context, db, ace) != TQ_MOM_OK;
        failed += tq_mom_set_sync(context, db, ace) != TQ_MOM_OK;
        failed += tq_mom_scan_sync(context, db, ace, 0, hearing::callback, &found) != TQ_MOM_OK;
        failed += found.lines != lines{"4 a/1/1=1"};
        failed += tq_mom_dsbegin_sync(context, db, ace, 1, 1000) != TQ_MOM_OK;
        failed += tq_mom_dsend_sync(context, db, ace, 1, 1000) != TQ_MOM_OK;
        return failed + (tq_mom_del_sync(context, db, ace) != TQ_MOM_OK);
    };
    const auto change = [&](uint32_t where, hearing &heard) {
        heard.lines.clear();
        until_ok([&] { return write_ace(context, where, ace_record("a", 1, 3, db)); });
        const lines enough{"29", "*4 a/1/3=" + std::to_string(db)};
        wait_for(
            [&] { return !heard.lines.empty() && std::count(enough.begin(), enough.end(), heard.lines.back()) == 1; });
    };
    for (const std::string name : {"/index", "/log", "/meta", ":a,a1,a1"})
        for (lines foreign : {lines{"SET", "", "x"}, {"XADD", "", "5-1", "k", "x"}}) {
            foreign[1] = "plx{" + std::to_string(++db) + ":ace}" + name;
            SCOPED_TRACE(foreign[0] + " " + foreign[1]);
            ASSERT_EQ(0, failures_of_every_call());
            subscribe(context, damaged, ace, 1, db);
            server.run({"DEL", foreign[1]});
            server.run(foreign);
            EXPECT_NE(0, failures_of_every_call());
            server.run({"CLIENT", "KILL", "TYPE", "normal"});
            change(8, whole);
            server.run({"DEL", foreign[1]});
            EXPECT_EQ(0, failures_of_every_call());
            change(db, damaged);
            ASSERT_FALSE(HasFatalFailure());
        }
}

TEST_F(refusal, random_bytes_and_long_names_in_the_store_crash_nobody)
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
    hearing heard, status, found;
    subscribe(context, heard, ace, 0);
    subscribe(context, status, psta, 0);
    write_ace(context, 8, ace);
    write_psta(context, 8, psta);
    for (int i = 0; i < 400; ++i) {
        const std::string names[] = {"a,a1,a" + std::to_string(random() % 10), noise(30), noise(100'000),
                                     std::string(100'000, 'n') + ",a1,a1"};
        const std::string &name = names[i % 20 == 0 ? 2 + random() % 2 : random() % 2];
        const std::string field = random() % 4 == 0 ? noise(3) : std::to_string(random() % 14);
        const std::string table = i % 2 == 0 ? "plx{8:ace}" : "plx{8:ace_psta}";
        server.run({"HSET", table + ":" + name, field, noise(40), "#", random() % 2 == 0 ? "1" : noise(5)});
        server.run({"ZADD", table + "/index", "0", name});
        server.run({"XADD", table + "/log", "0-*", "k", name, "w", noise(8), "r", noise(60)});
        server.run({"XADD", table + "/log", "0-*", noise(5), noise(50)});
        tq_mom_hash_res_free(tq_mom_hgetall_sync(context, 8, ace_record("a", 1, random() % 10)));
        tq_loop_run_once(loop.get(), 0);
    }
    server.run({"XTRIM", "plx{8:ace_psta}/log", "MAXLEN", "0"}); // has the listener look at all records
    server.run({"HSET", "plx{8:ace}/meta", "fields", noise(50), "gen", "x"});
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, ace_record("", 0, 0), 0, hearing::callback, &found));
    EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, 99, 7)));
    EXPECT_EQ(TQ_MOM_OK, write_psta(context, 8, psta_record("a", 1, 98, 7)));
    server.run({"HDEL", "plx{8:ace_psta}/meta", "fields"});
    const auto history = server.run({"HGET", "plx{8:ace_psta}/meta", "epoch"});
    EXPECT_EQ(TQ_MOM_OK, write_psta(context, 8, psta_record("a", 1, 99, 7)));
    EXPECT_EQ(history, server.run({"HGET", "plx{8:ace_psta}/meta", "epoch"}));
    wait_for([&] { return heard.ends_with("*4 a/1/99=7"); });
    wait_for([&] { // as a change, or as a record whose change was lost
        return std::any_of(status.lines.begin(), status.lines.end(),
                           [](const auto &line) { return line.ends_with("1 a/1/99=7"); });
    });
}

TEST_F(refusal, logs_of_tables_written_in_turn_are_trimmed_alike)
{
    auto *writer = open("log=100");
    for (uint64_t sn = 0; sn < 1000; ++sn)
        for (const uint32_t db : {8, 9})
            EXPECT_EQ(TQ_MOM_OK, write_ace(writer, db, ace_record("a", 1, sn % 10, sn)));
    for (const char *log : {"plx{8:ace}/log", "plx{9:ace}/log"})
        EXPECT_GE(300, std::stoi(server.run({"XLEN", log}))) << log;
}

TEST_F(refusal, for_want_of_a_script_has_the_client_load_it_again)
{
    for (const int round : {1, 2}) {
        EXPECT_EQ(TQ_MOM_OK, write_psta(context, 8, psta)) << round;
        EXPECT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, psta));
        EXPECT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context, 8, psta, 1, 10));
        EXPECT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context, 8, psta, 1, 1000));
        ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(context));
        for (uint64_t sn = 1; sn <= 20; ++sn)
            EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, sn, sn)));
        server.run({"SCRIPT", "FLUSH"});
        EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(context, nullptr, 0));
        EXPECT_EQ(20u, stored(context).size());
        server.run({"SCRIPT", "FLUSH"});
    }
}

TEST_F(refusal, in_a_batch_is_its_result_and_that_of_its_call)
{
    auto *application = open("", "plx-application");
    EXPECT_EQ(TQ_MOM_DENIED, tq_mom_set_sync(application, 8, node)) << "nobody has written to the table yet";
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(open("", "plx-node"), 8, node));
    server.run({"SET", "plx{8:ace}:a,a1,a2", "foreign"});
    for (const bool stale : {false, true}) {
        EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace_record("a", 1, 3)));
        if (stale) // the batch finds the metadata changed, and writes all again
            tq_mom_dsbegin_sync(context, 8, ace, 1, 1000);
        ASSERT_EQ(TQ_MOM_OK, tq_mom_batch_begin(application));
        for (uint64_t sn : {1, 2, 3})
            EXPECT_EQ(TQ_MOM_OK, write_ace(application, 8, ace_record("a", 1, sn, sn)));
        EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(application, 8, node));
        std::array<int, 4> results{-1, -1, -1, -1};
        EXPECT_EQ(TQ_MOM_CORRUPT, tq_mom_batch_end(application, results.data(), results.size()));
        EXPECT_EQ((std::array{0, int(TQ_MOM_CORRUPT), 0, int(TQ_MOM_DENIED)}), results);
        EXPECT_EQ("nil", server.run({"ZSCORE", "plx{8:ace}/index", "a,a1,a2"}));
    }
    server.run({"DEL", "plx{8:ace}:a,a1,a2"});
    EXPECT_EQ(2u, stored(application).size());
    EXPECT_EQ(TQ_MOM_OK, tq_mom_batch_end(application, nullptr, 0));
}

TEST_F(faults, a_server_that_may_lose_policy_is_warned_about_once)
{
    log_lines.clear();
    server.start();
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(open(), 8));
    EXPECT_EQ(lines{}, log_lines) << "as it is shipped it keeps all";
    server.crash();
    const auto port = redis_server::free_port();
    server.start({"--appendonly", "no", "--port", port, "--bind", "127.0.0.1", "--maxmemory", "100mb",
                  "--maxmemory-policy", "allkeys-lru"});
    server.run({"ACL", "SETUSER", "default", "on", "nopass"});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(open_at("redis://127.0.0.1:" + port), 8));
    ASSERT_EQ(3u, log_lines.size());
    for (const char *part : {"appendonly no", "noeviction", "set a password"})
        EXPECT_EQ(1, std::count_if(log_lines.begin(), log_lines.end(),
                                   [part](const auto &line) { return line.find(part) != std::string::npos; }))
            << part;
}

} // namespace
