// Faults at every place where one can happen, one at a time: each allocation and each file call (once, and all from
// there on), and each store call with each kind of failure.
//
// After each fault the cache is whole, the same call without a fault works, and once all is taken away again no block
// or file is left. What each fault is answered with stands in the transcripts.
#include "verbs.h"

#include <cerrno>
#include <regex>

namespace {

using fake::format;

lines joined(lines first, const lines &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

struct operation {
    lines prepare, run;
    const char *outcomes = ".*"; // of what is shown, with a file's fault
};

const lines with_acl = {"set acl[security_app,1] priv=40"},
            with_all = {with_acl[0], "set ace[security_app,1,1] priv=40",
                        "set apply[my_app,1,security_app,1,0,0] priv=40"},
            stored = {"put 8 acl[security_app,3]", "put 8 ace[security_app,3,5] value=0105000001000000aa"},
            answered = {"set ace[security_app,1,{1..8}]", "set apply[my_app,1,security_app,{1..8},0,0]",
                        "deliver 24 service_node[1,0,0]", "deliver 1 ace_psta[security_app,1,1] rep_uuid=now",
                        "seconds 200"},
            no_files = {"file remove zlog/udp_fp_log/PROCESS.log", "file remove zlog/udp_fp_log/PROCESS_1.log",
                        "op_log_init"},
            record = {"switch 0x100", "record acl[null,0] app=my_app op=2", "switch 0",
                      "file show zlog/udp_fp_log/PROCESS.log"};

const operation operations[] = {
    {{}, with_acl},
    {with_all, with_acl},
    {with_acl, {with_all[1]}},
    {with_all, {with_all[1]}},
    {{"set acl[my_app,2]"}, {"set ace[my_app,2,1] priv=40"}},
    {{}, {with_all[2]}},
    {with_all, {with_all[2]}},
    {with_all, {"del ace[security_app,1,1]", "del apply[my_app,1,security_app,1,0,0]", "del acl[security_app,1]"}},
    {with_all, {"expire {acl,ace,apply} my_app", "del_expire {acl,ace,apply} my_app"}},
    {stored, {"get ace[security_app,3,5]", "copy {1,0}"}},
    {{}, {"deliver 24 service_node[1,0,0]"}},
    {stored, {"deliver 29 {acl,ace} null"}},
    {with_acl, answered},
    {with_acl, {"bulk begin", with_all[1], with_all[2], "del ace[security_app,1,2]", "bulk flush", "bulk end"}},
};

// A size that cannot be told is none: such a record goes into the file that is current, or is lost.
const operation file_operations[] = {
    {no_files, record},
    {joined(joined(no_files, record), {"file write zlog/udp_fp_log/PROCESS.log"}), record},
    {joined(joined(no_files, record), {"file size zlog/udp_fp_log/PROCESS.log 0x500001"}),
     {record[0], record[1], record[2], "file show zlog/udp_fp_log/PROCESS_1.log"}},
    {{}, {"op_log_init"}, "= (-1|256);"},
    {{"level 1", "file write etc/PROCESS 3"}, {"initial", "level 1"}, "= (0|-1) level 1;"},
    {{"level 1", "file remove etc/PROCESS", "file write etc/plx 4"}, {"initial", "level 1"}, "= (0|-1) level 1;"},
    {{"switch 0", "file write switch 44"}, {"open_shell", "switch 0"}, "= .*fp 9 commands, switch (0|2c);"},
    {{"open_shell", "file write switch 1", "switch 511"},
     {"shell fp_udp_debug_save", "file show switch"},
     "= [-0-9]+;1\\|;"},
};

class faults : public session {
  protected:
    void TestBody() override {}
    // What the application sees.
    std::string run(const lines &verbs)
    {
        std::string text;
        for (const std::string &line : verbs)
            for (const std::string &one : expanded(line)) {
                const std::string result = perform(one);
                for (const lines &seen : {lines{result}, std::exchange(shown, {}), app.take()})
                    for (const std::string &said : seen)
                        text += said.empty() ? "" : said + ";";
            }
        return text;
    }
    void wipe();
    // Runs an operation from scratch with `fault` armed for the n-th time, until there is no n-th time.
    template <class Fault> int loop(const operation &op, Fault fault);
};

// Takes everything away, down to tables as a process that has just started has them: their growth can fail, too.
void faults::wipe()
{
    entry.reset();
    fp_udp_debug_sw = 0;
    run({"del acl[my_app,2]", "del acl[security_app,{1,3}]", "seconds 60"});
    EXPECT_EQ(broken(), "");
    EXPECT_EQ(fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size(), 0U);
    EXPECT_EQ(pending() + list_length(g_fp_service.nodes) + fake::store.unreleased.size(), 0U);
    const auto empty = [](auto &table) {
        free(table.flags);
        free(static_cast<void *>(table.keys));
        table = {};
    };
    empty(*fp_udp_acl_node_list);
    empty(*fp_udp_ace_node_list);
    empty(*fp_udp_apply_node_list);
    std::exchange(fake::shell.commands, {});
    forget_everything();
}

template <class Fault> int faults::loop(const operation &op, Fault fault)
{
    const std::string name = op.run.front();
    wipe();
    run(op.prepare);
    const std::string usual = run(op.run);
    wipe();
    const long blocks = fake::live_blocks();
    const size_t files = fake::open_files();
    for (int n = 1;; n++) {
        bool failed = false;
        {
            run(op.prepare);
            forget_calls();
            std::string call, seen;
            failed = fault(n, call, [&] { seen = run(op.run); });
            // What is interrupted or cut short goes on.
            const bool goes_on = call == "write with 4 " || call.find(" with -1 ") != std::string::npos;
            EXPECT_TRUE(seen == usual || (!goes_on && std::regex_match(seen, std::regex(op.outcomes))))
                << name << ", " << call << n << ": " << seen;
            EXPECT_EQ(broken(), "") << name << ", " << call << n;
            EXPECT_TRUE(fake::store.unreleased.empty()) << name << ", " << call << n;
            run(op.prepare); // the fault may have taken what the operation needs
            EXPECT_EQ(run(op.run), usual) << name << " after " << call << n;
        }
        wipe();
        EXPECT_EQ(std::pair(fake::live_blocks(), fake::open_files()), std::pair(blocks, files)) << name << ", " << n;
        if (!failed)
            return n;
    }
}

TEST_F(faults, memory_may_be_short_at_any_site_once_and_from_there_on)
{
    start();
    int sites = 0;
    for (const operation &op : operations)
        for (const fake::lasts how_long : {fake::once, fake::from_then_on})
            sites += loop(op,
                          [&](int n, std::string &, auto work) {
                              fake::failing_allocation fail(n, how_long);
                              work();
                              return fake::failing_allocation::seen() >= n;
                          }) -
                     1;
    EXPECT_GT(sites, 90);
}

TEST_F(faults, each_store_call_may_fail)
{
    start();
    int calls = 0;
    for (const operation &op : operations)
        for (const int kind : {9, fake::store_double::no_answer, fake::store_double::no_record})
            calls += loop(op,
                          [&](int n, std::string &call, auto work) {
                              fake::store.fail_at(n, kind);
                              work();
                              call = fake::store.turn_operation;
                              return std::exchange(fake::store.turn, 0) <= fake::store.asked;
                          }) -
                     1;
    EXPECT_GT(calls, 80);
}

TEST_F(faults, each_file_call_may_fail)
{
    start();
    int calls = 0;
    for (const operation &op : file_operations)
        for (const int error : {ENOSPC, EMFILE, EACCES, EINTR, fake::failing_file_call::short_count})
            for (const fake::lasts how_long : {fake::once, fake::from_then_on})
                if (error != EINTR || how_long == fake::once) // what is interrupted for ever is tried for ever
                    calls += loop(op,
                                  [&](int n, std::string &call, auto work) {
                                      fake::failing_file_call fail(n, error, how_long);
                                      work();
                                      call = fake::failing_file_call::failed() + format(" with %d ", error);
                                      return fake::failing_file_call::seen() >= n;
                                  }) -
                             1;
    EXPECT_GT(calls, 300);
}

// More calls than a bracket holds, one of which the store refuses.
TEST_F(faults, each_result_is_told_to_its_own_call_and_a_bracket_does_not_grow)
{
    start();
    perform("set acl[other,1]");
    const fp_udp_acl_key key = make_key("other", 1);
    const owned_ace ace = make_ace(mgr, 0);
    // The first and the last of a full bracket, and some between.
    for (uint64_t refused = 1; refused <= 256; refused += 17) {
        forget_calls();
        perform("bulk begin");
        const fake::failing_allocation counted(0);
        fake::store.fail_at(static_cast<int>(refused), 9);
        lines expected;
        for (ace->sn = 1; ace->sn <= 258; ace->sn++) {
            mgr->set_ace(&context, &key, ace.get());
            expected.push_back(format("ace %s other/1/%x%s <0:32>", ace->sn == refused ? "fail" : "ok",
                                      static_cast<unsigned>(ace->sn), ace->sn == refused ? " 9" : ""));
        }
        EXPECT_TRUE(refused == 1 || fake::failing_allocation::seen() <= 1) << "more than the entry that is new again";
        EXPECT_EQ(perform("bulk end"), "= 9");
        fake::store.turn = 0;
        ASSERT_TRUE(app.take() == expected) << refused;
        EXPECT_EQ(fp_udp_ace_node_hash_size(), 257U);
    }
}

// A registration is a process's first, so each has a process of its own.
TEST(registration_faults, each_is_survived_and_the_next_registration_works)
{
    const auto registered = [](int store_turn, int memory_turn, fake::lasts how_long) {
        struct : session {
            void TestBody() override {}
        } s;
        for (const std::string &line : stored)
            s.perform(line);
        s.perform("type security_app");
        fake::store.fail_at(store_turn, 9);
        std::string result;
        {
            fake::failing_allocation fail(memory_turn, how_long);
            result = s.perform("register 5 all");
        }
        fake::store.turn = 0;
        const std::string call = store_turn && fake::store.asked >= store_turn ? fake::store.turn_operation : "nothing";
        const bool memory_failed = memory_turn && fake::failing_allocation::seen() >= memory_turn;
        const bool last_call = call == "subscribe" && fake::store.asked == store_turn;
        if (result != (call == "connect" ? "= -1" : last_call ? "= 9" : "= 0") || !broken().empty())
            return "result " + result + ", " + call + " failed, " + broken();
        if (s.perform("register 5 all") != "= 0" || s.perform("deliver 24 service_node null")[2] == '-')
            return std::string("the next registration");
        for (int again = 0; again < 2; again++) // also in a cache that could not be made
            for (const char *line : {"del acl[security_app,1]", "set acl[security_app,1]", "set ace[security_app,1,1]",
                                     "set apply[my_app,1,security_app,1,0,0]", "seconds 200"})
                s.perform(line);
        if (memory_turn == 0 && (!s.cached_ace("security_app", 3, 5) || !s.cached_ace("security_app", 1, 1)))
            return std::string("the cache");
        return std::string(call == "nothing" && !memory_failed ? "no more" : "");
    };
    const auto all = [](const char *what, auto one) {
        int turns = 0;
        for (std::string outcome; outcome.empty() && turns < 1000; turns++) {
            outcome = in_child([&] { return one(turns + 1); });
            EXPECT_TRUE(outcome.empty() || outcome == "no more") << what << " " << turns + 1 << ": " << outcome;
        }
        return turns;
    };
    EXPECT_GT(all("store call", [&](int turn) { return registered(turn, 0, fake::once); }), 8);
    for (const fake::lasts how_long : {fake::once, fake::from_then_on})
        EXPECT_GT(all("allocation", [&](int turn) { return registered(0, turn, how_long); }), 5);
}

} // namespace
