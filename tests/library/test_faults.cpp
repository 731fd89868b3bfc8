// Faults at every place where one can happen, one at a time: each allocation (once, and all from there on), and each
// store call with each kind of failure.
//
// An operation is one row: what it needs, what it does, and what the application sees when a certain call fails ("#" is
// that call's result). Where no row says otherwise it sees what it sees without a fault. After each fault the cache is
// whole, the same call without a fault works, and once all is taken away again no block is left.
#include "records.h"

namespace {

using fake::format;
using fake::store_double;

struct operation {
    const char *name;
    std::function<void()> prepare;
    std::function<std::string()> run; // what the application sees: a result, and events
    // By "get" (any of its failures), "get=-1" (one of them), "subscribe 3" (the third call), "memory".
    std::map<std::string, lines> outcomes;
};

// What the application sees of a call.
std::string seen(const std::string &result)
{
    std::string text = result;
    for (const std::string &event : app.take())
        text += "; " + event;
    return text;
}

std::string seen(int32_t result)
{
    return seen(std::to_string(result));
}

std::string filled(std::string text, int result)
{
    const size_t at = text.find('#');
    return at == std::string::npos ? text : text.replace(at, 1, std::to_string(result));
}

class faults : public operations_case {
  protected:
    static constexpr int kinds[] = {9, store_double::no_answer, store_double::no_record};

    // An entry in database 8, and its ACL.
    static void store_entry()
    {
        fake::store.put(8, acl_record("security_app", 3).record.base);
        fake::store.put(8, ace_record("security_app", 3, 5).record.base);
    }

    std::string answered()
    {
        for (uint32_t i = 1; i <= 8; i++) {
            set_ace("security_app", 1, i);
            set_apply("security_app", 1, "my_app", i);
        }
        heartbeat(1);
        answer_ace("security_app", 1, 1, 0, now());
        fake::clock.advance_seconds(200);
        app.take();
        return "any";
    }

    std::vector<operation> operations();
    lines allowed(const operation &op, const std::string &usual, const std::string &call, int index, int result);
    void wipe();
    void check(const operation &op, const std::string &usual, const lines &outcomes, const std::string &fault,
               const std::string &saw);

    // Runs an operation from scratch with `fault` armed for the n-th time, until there is no n-th time.
    template <class Fault> void loop(const operation &op, Fault fault)
    {
        const auto prepared = [&] {
            op.prepare();
            forget_calls();
        };
        wipe();
        prepared();
        const std::string usual = op.run();
        wipe();
        const long blocks = fake::live_blocks();
        for (int n = 1, more = 1; more; n++) {
            prepared();
            more = fault(n, usual);
            prepared(); // the fault may have taken what the operation needs
            EXPECT_EQ(op.run(), usual) << op.name << " after fault " << n;
            wipe();
            ASSERT_EQ(fake::live_blocks(), blocks) << op.name << ", fault " << n;
        }
    }
};

std::vector<operation> faults::operations()
{
    const auto nothing = [] {};
    const auto with_acl = [this] { set_acl("security_app", 1, 0, 40); };
    const auto with_all = [this, with_acl] {
        with_acl();
        set_ace("security_app", 1, 1, 40);
        set_apply("security_app", 1, "my_app", 1, 0, 40);
    };
    const auto set_an_ace = [this] { return seen(set_ace("security_app", 1, 1, 40)); };
    const auto set_an_apply = [this] { return seen(set_apply("security_app", 1, "my_app", 1, 0, 40)); };
    const auto set_an_acl = [this] { return seen(set_acl("security_app", 1, 0, 40)); };
    const std::map<std::string, lines> acl_outcomes = {{"hmset", {"7; acl fail security_app/1 # <40:32>"}},
                                                       {"memory", {"7; acl fail security_app/1 -2 <40:32>"}}};
    const std::map<std::string, lines> ace_outcomes = {{"hmset", {"7; ace fail security_app/1/1 # <40:32>"}},
                                                       {"memory", {"7; ace fail security_app/1/1 -2 <40:32>", "-2"}}};
    const std::map<std::string, lines> apply_outcomes = {
        {"hmset", {"7; apply fail security_app/1@my_app/1/0/0 # <40:32>"}},
        {"memory", {"7; apply fail security_app/1@my_app/1/0/0 -2 <40:32>", "-2"}}};
    const auto bracket = [this](auto first, auto second) {
        return [this, first, second] {
            const std::string begun = seen((mgr->*first)(&context, "my_app"));
            return begun + ", " + seen((mgr->*second)(&context, "my_app"));
        };
    };
    return {
        {"set an ACL", nothing, set_an_acl, acl_outcomes},
        {"set an ACL again", with_all, set_an_acl, acl_outcomes},
        {"set an entry", with_acl, set_an_ace, ace_outcomes},
        {"set an entry again", with_all, set_an_ace, ace_outcomes},
        {"set an entry that needs no answer",
         [this] { set_acl("my_app", 2); },
         [this] { return seen(set_ace("my_app", 2, 1, 40)); },
         {{"hmset", {"7; ace fail my_app/2/1 # <40:32>"}}, {"memory", {"7; ace fail my_app/2/1 -2 <40:32>"}}}},
        {"set an apply", nothing, set_an_apply, apply_outcomes},
        {"set an apply again", with_all, set_an_apply, apply_outcomes},
        {"delete",
         with_all,
         [this] {
             const std::string text = seen(del_ace("security_app", 1, 1));
             return text + seen(del_apply("security_app", 1, "my_app", 1)) + seen(del_acl("security_app", 1));
         },
         {}},
        {"rewrite all ACLs",
         with_acl,
         bracket(&fp_udp_mgr::expire_acl, &fp_udp_mgr::del_expire_acl),
         {{"dsbegin", {"#, 5"}}, {"dsend", {"0, #"}}}},
        {"rewrite all entries",
         with_all,
         bracket(&fp_udp_mgr::expire_ace, &fp_udp_mgr::del_expire_ace),
         {{"dsbegin", {"#, 5"}}, {"dsend", {"0, #"}}}},
        {"rewrite all applies",
         with_all,
         bracket(&fp_udp_mgr::expire_apply, &fp_udp_mgr::del_expire_apply),
         {{"dsbegin 2", {"#, 5"}}, {"dsend 4", {"0, #"}}}},
        {"hear of a service node", nothing, [this] { return seen(heartbeat(1)); }, {{"memory", {"-2"}}}},
        {"resynchronise ACLs",
         store_entry,
         [] { return seen(fake::store.deliver("acl", 29, nullptr)); },
         {{"scan", {"0"}}}},
        {"resynchronise entries",
         store_entry,
         [] { return seen(fake::store.deliver("ace", 29, nullptr)); },
         {{"scan", {"0"}}, {"memory", {"0"}}}},
        {"grow, be answered and age", with_acl, [this] { return answered(); }, {}},
    };
}

lines faults::allowed(const operation &op, const std::string &usual, const std::string &call, int index, int result)
{
    for (const std::string &name : {call + format(" %d", index), call + format("=%d", result), call})
        if (const auto at = op.outcomes.find(name); at != op.outcomes.end()) {
            lines texts;
            for (const std::string &text : at->second)
                texts.push_back(filled(text, result));
            return texts;
        }
    return {usual};
}

// Takes everything away, down to tables as a process that has just started has them: their growth can fail, too.
void faults::wipe()
{
    del_acl("my_app", 2);
    for (uint32_t id : {1U, 3U})
        del_acl("security_app", id);
    fake::clock.advance_seconds(60);
    EXPECT_EQ(broken(), "");
    EXPECT_EQ(fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size(), 0U);
    EXPECT_EQ(pending() + list_length(g_fp_service.nodes) + fake::store.unreleased.size(), 0U);
    const fp_udp_acl_table acls = std::exchange(*fp_udp_acl_node_list, {});
    const fp_udp_ace_table aces = std::exchange(*fp_udp_ace_node_list, {});
    const fp_udp_apply_table applies = std::exchange(*fp_udp_apply_node_list, {});
    for (void *block :
         {static_cast<void *>(acls.flags), static_cast<void *>(acls.keys), static_cast<void *>(aces.flags),
          static_cast<void *>(aces.keys), static_cast<void *>(applies.flags), static_cast<void *>(applies.keys)})
        free(block);
    fake::store.records.clear();
    fake::store.marks.clear();
    fake::store.stale.clear();
    fake::clock.inserted = {};
    forget_calls();
}

void faults::check(const operation &op, const std::string &usual, const lines &outcomes, const std::string &fault,
                   const std::string &saw)
{
    EXPECT_GT(std::count(outcomes.begin(), outcomes.end(), saw), 0)
        << op.name << ", " << fault << " failed: " << saw << "\nwithout a fault: " << usual;
    EXPECT_EQ(broken(false), "") << op.name << ", " << fault;
    EXPECT_TRUE(fake::store.unreleased.empty()) << op.name << ", " << fault;
}

TEST_F(faults, memory_may_be_short_at_any_site_once_and_from_there_on)
{
    start();
    app.result = 7;
    int sites = 0;
    for (const operation &op : operations())
        for (const fake::lasts how_long : {fake::once, fake::from_then_on})
            loop(op, [&](int n, const std::string &usual) {
                fake::failing_allocation fail(n, how_long);
                const std::string saw = op.run();
                const bool failed = fake::failing_allocation::seen() >= n;
                lines outcomes = {usual};
                if (const auto at = op.outcomes.find("memory"); failed && at != op.outcomes.end())
                    outcomes.insert(outcomes.end(), at->second.begin(), at->second.end());
                const fake::failing_allocation::pause pause;
                check(op, usual, outcomes, format("allocation %d", n), saw);
                sites += failed;
                return failed;
            });
    EXPECT_GT(sites, 90);
}

TEST_F(faults, each_store_call_may_fail)
{
    start();
    app.result = 7;
    int calls = 0;
    for (const operation &op : operations())
        for (const int kind : kinds)
            loop(op, [&](int n, const std::string &usual) {
                fake::store.asked = 0;
                fake::store.turn = n;
                fake::store.turn_result = kind;
                const std::string saw = op.run();
                fake::store.turn = 0;
                const bool failed = fake::store.asked >= n;
                const std::string call = failed ? fake::store.turn_operation : "nothing";
                check(op, usual, failed ? allowed(op, usual, call, n, kind) : lines{usual},
                      call + format(" = %d", kind), saw);
                calls += failed;
                return failed;
            });
    EXPECT_GT(calls, 80);
}

// A registration is a process's first, so each has a process of its own.
TEST_F(faults, a_registration_survives_each_fault_and_the_next_one_works)
{
    const auto registered = [this](int store_turn, int memory_turn, fake::lasts how_long) {
        store_entry();
        fp_udp_register_app_type("security_app");
        const fp_udp_acl_handler handler = application::handler();
        int32_t result = 0;
        fake::store.asked = 0;
        fake::store.turn = store_turn;
        fake::store.turn_result = 9;
        {
            fake::failing_allocation fail(memory_turn, how_long);
            result = fp_udp_register_acl_handler(&context, 5, &handler);
        }
        fake::store.turn = 0;
        const std::string call = store_turn && fake::store.asked >= store_turn ? fake::store.turn_operation : "nothing";
        const bool memory_failed = memory_turn && fake::failing_allocation::seen() >= memory_turn;
        const bool last_call = call == "subscribe" && fake::store.asked == store_turn;
        if (result != (call == "connect" ? -1 : last_call ? 9 : 0) || !broken(false).empty())
            return format("result %d, ", result) + call + " failed, " + broken(false);
        if (fp_udp_register_acl_handler(&context, 5, &handler) != 0 ||
            fake::store.deliver("service_node", 1, nullptr) < 0)
            return std::string("the next registration");
        mgr = fp_udp_get_mgr();
        for (int again = 0; again < 2; again++) { // also in a cache that could not be made
            del_acl("security_app", 1);
            set_acl("security_app", 1);
            set_ace("security_app", 1, 1);
            set_apply("security_app", 1, "my_app", 1);
            fake::clock.advance_seconds(200);
        }
        if (memory_turn == 0 && (!cached_ace("security_app", 3, 5) || !cached_ace("security_app", 1, 1)))
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
