// Memory short at any site of the platform's libraries, once and from there on. Every call answers with a code, what
// was written while it was short is told once when it is back, and nothing is left over.
#include "libcgstctrl.h"
#include "ssat.h"
#include "ssat_client.h"
#include "support/fakes.h"
#include "support/process.hpp"
#include "tq_context.h"
#include "tq_loop.h"

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tq_topics.pb-c.h>

namespace {

constexpr const char *libraries[] = {"libtq_mom_impl.so", "libtq_time.so",  "libssat.so",   "libtq_zlog.so",
                                     "libcgstctrl.so",    "libprotobuf-c.", "libstdc++.so", nullptr};

struct record {
    explicit record(const char *table)
    {
        key.user = const_cast<char *>("user with a name beyond what a short text holds");
        key.table = const_cast<char *>(table);
        topic.index = &key;
        topic.message = const_cast<char *>("a message with a name beyond what a short text holds");
    }
    const ProtobufCMessage *message() const { return &topic.base; }
    Topics__TopicKey key = TOPICS__TOPIC_KEY__INIT;
    Topics__Topic topic = TOPICS__TOPIC__INIT;
};

int32_t count(void *, const tq_mom_notification *, void *arg)
{
    ++*static_cast<int *>(arg);
    return 0;
}

bool is_code(int result)
{
    return result == TQ_MOM_OK || result == TQ_MOM_NO_MEMORY;
}

struct tally {
    int changes = 0, told = 0; // of writes that succeeded, behind a subscription that did
    bool stored[2] = {};
};

// What the store client is asked for under a fault. A line when something is amiss.
const char *store_road(tq_context *context, tally &of)
{
    const record a("a"), b("b");
    const uint32_t fields[] = {6, 8};
    if (!is_code(tq_mom_client_connect_sync(context, 1)))
        return "connect";
    const int subscribed = tq_mom_subscribe(context, 1, a.message(), 0, count, &of.told);
    const auto note = [&](int which, int result) {
        of.changes += result == TQ_MOM_OK && subscribed == TQ_MOM_OK;
        of.stored[which] |= result == TQ_MOM_OK;
        return is_code(result);
    };
    int found = 0;
    if (!is_code(subscribed) || !note(0, tq_mom_set_sync(context, 1, a.message())) ||
        !note(1, tq_mom_hmset_sync(context, 1, b.message(), fields, 2)))
        return "write";
    if (!is_code(tq_mom_scan_sync(context, 1, a.message(), 0, count, &found)))
        return "scan";
    tq_mom_hash_res *const read = tq_mom_hgetall_sync(context, 1, b.message());
    const bool whole = read == nullptr || is_code(read->status);
    tq_mom_hash_res_free(read);
    const int marked = tq_mom_dsbegin_sync(context, 1, a.message(), 0, 10);
    if (!whole || !is_code(marked) || !note(0, tq_mom_set_sync(context, 1, a.message())))
        return "read or mark";
    const int swept = tq_mom_dsend_sync(context, 1, a.message(), 0, 1000);
    return is_code(swept) || (marked != TQ_MOM_OK && swept == TQ_MOM_NO_MARK) ? nullptr : "sweep";
}

int note_firing(tq_thread *timer)
{
    ++*static_cast<int *>(tq_thread_arg(timer));
    return 0;
}

// One whole life of a context with the n-th allocation failing.
const char *life(int n, fake::lasts how_long, int &sites)
{
    tally of;
    int fired = 0, records = 0;
    const char *fault = nullptr;
    fake::failing_allocation fail(n, how_long);
    tq_context *const context = tq_context_new("mem:memory_test");
    if (context == nullptr)
        fault = errno == ENOMEM ? nullptr : "no context, without a reason";
    const timeval at_once{};
    if (context != nullptr) {
        fault = store_road(context, of);
        const bool set =
            tq_thread_insert_timer_timeval(context->master, nullptr, note_firing, &fired, &at_once, "t") == 0;
        for (int turn = 0; turn < 3; ++turn)
            tq_loop_run_once(context->master, 0);
        sites = std::max(sites, fake::failing_allocation::seen());
        const fake::failing_allocation::pause pause;
        const record a("a"), b("b");
        for (int turn = 0; turn < 5; ++turn)
            tq_loop_run_once(context->master, 0);
        tq_mom_scan_sync(context, 1, a.message(), 0, count, &records);
        if (fault == nullptr && fired != set)
            fault = "a timer";
        const int swept = of.stored[0] + of.stored[1] - records;
        if (fault == nullptr && of.changes > 0 && of.told != of.changes + swept)
            fault = "a change";
        for (const auto *each : {&a, &b})
            if (tq_mom_del_sync(context, 1, each->message()) != TQ_MOM_OK)
                fault = "what came after";
    }
    const fake::failing_allocation::pause pause;
    tq_context_free(context);
    return fault;
}

template <typename Run> int sweep(Run run)
{
    int sites = 0;
    for (const fake::lasts how_long : {fake::once, fake::from_then_on}) {
        run(0, how_long, sites); // what is made once
        for (int n = 1; n <= sites && n < 5000; ++n) {
            int seen = 0;
            const long blocks = fake::live_blocks();
            const char *const fault = run(n, how_long, seen);
            const long left = fake::live_blocks() - blocks;
            EXPECT_EQ(fault, nullptr) << fault << ", allocation " << n << (how_long ? " and on" : "");
            EXPECT_EQ(left, 0) << "allocation " << n << (how_long ? " and on" : "");
        }
    }
    return sites;
}

TEST(memory, may_be_short_at_any_site_of_the_store_client)
{
    fake::watch(libraries);
    tq_context *const keeps_the_store = tq_context_new("mem:memory_test");
    EXPECT_GT(sweep(life), 40);
    tq_context_free(keeps_the_store);
}

TEST(memory, may_be_short_at_any_site_of_the_shell)
{
    fake::watch(libraries);
    const plx::tool::TemporaryDirectory files;
    setenv("PLX_SHELL_DIR", files.path().c_str(), 1);
    static tq_context *context = tq_context_new("mem:");
    int n = 0, opened = ENOMEM, added = ENOMEM;
    for (; opened == ENOMEM && n < 1000; ++n) {
        const fake::failing_allocation fail(n + 1);
        opened = ssat_lib_init(context, "app.fp");
    }
    EXPECT_EQ(opened, 0);
    EXPECT_GT(n, 5);
    for (n = 0; added == ENOMEM && n < 1000; ++n) {
        const fake::failing_allocation fail(n + 1);
        added = ssat_reg_mod_cmd("app.fp", "a_command", 0, "name=%s, number=%d, $n",
                                 [](int, const ssat_value *) { return 0; });
    }
    EXPECT_EQ(added, 0);
    EXPECT_GT(n, 3);

    const auto line = [](int turn, fake::lasts how_long, int &sites) -> const char * {
        char answer[256];
        const std::string words = "a_command \"a text beyond what a short text holds\" 1\n";
        fake::failing_allocation fail(turn, how_long);
        const int client = ssat_client_connect("app.fp");
        if (client < 0)
            return errno == ENOMEM ? nullptr : "no connection, without a reason";
        if (send(client, words.data(), words.size(), MSG_NOSIGNAL) < 0)
            return "send";
        for (int turns = 0; turns < 6; ++turns)
            tq_loop_run_once(context->master, 0);
        sites = std::max(sites, fake::failing_allocation::seen());
        const fake::failing_allocation::pause pause;
        const ssize_t got = recv(client, answer, sizeof answer, MSG_DONTWAIT);
        close(client);
        for (int turns = 0; turns < 3; ++turns)
            tq_loop_run_once(context->master, 0);
        return got <= 0 || std::string(answer, static_cast<size_t>(got)) == "ok 0\n" ? nullptr : "an answer";
    };
    EXPECT_GT(sweep(line), 8);
}

TEST(memory, may_be_short_for_a_topic_and_a_log_line)
{
    fake::watch(libraries);
    static tq_context *context = tq_context_new("mem:");
    const auto topic = [](int n, fake::lasts how_long, int &sites) -> const char * {
        const record any("any");
        const std::string name = "a user with a name beyond what a short text holds", text(3000, 'x');
        fake::failing_allocation fail(n, how_long);
        const int begun = libcgstctrl_gen_init(context, 1, name.c_str());
        const int registered = libcgstctrl_gen_topic_reg(context, 1, name.c_str(), any.message(), 0);
        void *const log = tq_zlog_init("a category with a name beyond what a short text holds");
        tqdf_zlog(log, "file", 4, "function", 8, 1, TQ_ZLOG_DEBUG, "%s", text.c_str());
        sites = std::max(sites, fake::failing_allocation::seen());
        return is_code(begun) && is_code(registered) ? nullptr : "a result";
    };
    EXPECT_GT(sweep(topic), 5);
}

TEST(exception, of_a_callback_ends_the_run_of_the_loop_and_nothing_else)
{
    tq_context *const context = tq_context_new("mem:");
    const record a("a");
    int fired = 0, found = 0;
    const timeval at_once{};
    const auto thrower = [](void *, const tq_mom_notification *, void *) -> int32_t { throw "anything"; };
    EXPECT_EQ(tq_mom_subscribe(context, 1, a.message(), 0, thrower, nullptr), TQ_MOM_OK);
    EXPECT_EQ(tq_mom_set_sync(context, 1, a.message()), TQ_MOM_OK);
    EXPECT_EQ(tq_loop_run_once(context->master, 0), 0) << "a subscription's has nobody to go to";
    EXPECT_EQ(tq_mom_scan_sync(context, 1, a.message(), 0, thrower, nullptr), TQ_MOM_STORE_ERROR);
    EXPECT_EQ(tq_mom_scan_sync(context, 1, a.message(), 0, count, &found), TQ_MOM_OK);

    tq_thread_insert_timer_timeval(
        context->master, nullptr, [](tq_thread *) -> int { throw std::bad_alloc(); }, nullptr, &at_once, "t");
    tq_thread_insert_timer_timeval(context->master, nullptr, note_firing, &fired, &at_once, "t");
    EXPECT_EQ(tq_loop_run_once(context->master, 0), ENOMEM);
    EXPECT_EQ(tq_loop_run_once(context->master, 0), 0);
    EXPECT_EQ(fired, 1);
    tq_context_free(context);
}

} // namespace
