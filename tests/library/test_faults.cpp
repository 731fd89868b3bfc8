// Faults at every place where one can happen, one at a time: each allocation (once, and all from there on), and each
// store call with each kind of failure.
//
// After each fault the cache is whole, the same call without a fault works, and once all is taken away again no block
// is left. What each fault is answered with stands in the transcripts.
#include "operations.h"

namespace {

using fake::format;
using fake::store_double;

struct operation {
    const char *name;
    std::function<void()> prepare;
    std::function<std::string()> run; // what the application sees: a result, and events
};

// What the application sees of a call.
std::string seen(int32_t result)
{
    std::string text = std::to_string(result);
    for (const std::string &event : app.take())
        text += "; " + event;
    return text;
}

class faults : public operations_case {
  protected:
    static constexpr int kinds[] = {9, store_double::no_answer, store_double::no_record};

    // An entry in database 8, and its ACL.
    static void store_entry()
    {
        fake::store.put(8, *fake::record("acl", {"security_app", "3"}));
        fake::store.put(8, *fake::record("ace", {"security_app", "3", "5"}, {{"value", "0105000001000000aa"}}));
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
    void wipe();
    void check(const operation &op, const std::string &fault);

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
            more = fault(n);
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
    const auto bracket = [this](auto first, auto second) {
        return [this, first, second] {
            const std::string begun = seen((mgr->*first)(&context, "my_app"));
            return begun + ", " + seen((mgr->*second)(&context, "my_app"));
        };
    };
    return {
        {"set an ACL", nothing, set_an_acl},
        {"set an ACL again", with_all, set_an_acl},
        {"set an entry", with_acl, set_an_ace},
        {"set an entry again", with_all, set_an_ace},
        {"set an entry that needs no answer", [this] { set_acl("my_app", 2); },
         [this] { return seen(set_ace("my_app", 2, 1, 40)); }},
        {"set an apply", nothing, set_an_apply},
        {"set an apply again", with_all, set_an_apply},
        {"delete", with_all,
         [this] {
             const std::string text = seen(del_ace("security_app", 1, 1));
             return text + seen(del_apply("security_app", 1, "my_app", 1)) + seen(del_acl("security_app", 1));
         }},
        {"rewrite all ACLs", with_acl, bracket(&fp_udp_mgr::expire_acl, &fp_udp_mgr::del_expire_acl)},
        {"rewrite all entries", with_all, bracket(&fp_udp_mgr::expire_ace, &fp_udp_mgr::del_expire_ace)},
        {"rewrite all applies", with_all, bracket(&fp_udp_mgr::expire_apply, &fp_udp_mgr::del_expire_apply)},
        {"read an entry and copy it", store_entry,
         [this] {
             const fp_udp_acl_key key = make_key("security_app", 3);
             const owned_ace read(mgr->get_ace(&context, &key, 5), mgr->free_ace);
             const owned_ace whole(mgr->copy_ace(read.get(), 1, nullptr), mgr->free_ace);
             const owned_ace part(mgr->copy_ace(read.get(), 0, nullptr), mgr->free_ace);
             return std::string(whole && part ? "copied" : "nothing");
         }},
        {"hear of a service node", nothing, [this] { return seen(heartbeat(1)); }},
        {"resynchronise ACLs", store_entry, [] { return seen(fake::store.deliver("acl", 29, nullptr)); }},
        {"resynchronise entries", store_entry, [] { return seen(fake::store.deliver("ace", 29, nullptr)); }},
        {"grow, be answered and age", with_acl, [this] { return answered(); }},
    };
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

void faults::check(const operation &op, const std::string &fault)
{
    EXPECT_EQ(broken(false), "") << op.name << ", " << fault;
    EXPECT_TRUE(fake::store.unreleased.empty()) << op.name << ", " << fault;
}

TEST_F(faults, memory_may_be_short_at_any_site_once_and_from_there_on)
{
    start();
    int sites = 0;
    for (const operation &op : operations())
        for (const fake::lasts how_long : {fake::once, fake::from_then_on})
            loop(op, [&](int n) {
                fake::failing_allocation fail(n, how_long);
                op.run();
                const bool failed = fake::failing_allocation::seen() >= n;
                const fake::failing_allocation::pause pause;
                check(op, format("allocation %d", n));
                sites += failed;
                return failed;
            });
    EXPECT_GT(sites, 90);
}

TEST_F(faults, each_store_call_may_fail)
{
    start();
    int calls = 0;
    for (const operation &op : operations())
        for (const int kind : kinds)
            loop(op, [&](int n) {
                fake::store.asked = 0;
                fake::store.turn = n;
                fake::store.turn_result = kind;
                op.run();
                fake::store.turn = 0;
                const bool failed = fake::store.asked >= n;
                check(op, fake::store.turn_operation + format(" = %d", kind));
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
