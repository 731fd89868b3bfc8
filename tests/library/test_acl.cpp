// ACL operations: what they write, cache, report and answer.
#include "records.h"

#include <cstring>

namespace {

class acl_operations : public operations_case {};

TEST_F(acl_operations, a_set_caches_writes_and_calls_back)
{
    start();
    app.result = 12;
    EXPECT_EQ(set_acl("my_app", 4, 3, 40), 12);
    EXPECT_EQ(fake::store.take(), lines{"hmset 5 acl[my_app,4] 6,7,8,9 acl_cls=3 c_status=0 req_uuid=" +
                                        std::to_string(now()) + " priv=<40:32>"});
    EXPECT_EQ(fake::log.take(), lines{"D acl info, app_type : my_app, acl_id : 4, acl_cls : 3\n"});
    EXPECT_EQ(app.take(), lines{"acl ok my_app/4/3 <40:32>"});
    fp_udp_acl_info cached = make_info("my_app", 4);
    cached.uuid = now();
    put_priv(cached.priv, sizeof cached.priv, 40);
    EXPECT_EQ(memcmp(&cached_acl("my_app", 4)->acl, &cached, sizeof cached), 0);
}

TEST_F(acl_operations, setting_an_acl_again_renews_it)
{
    start();
    set_acl("my_app", 4, 3, 40);
    fp_udp_acl_node *node = cached_acl("my_app", 4);
    node->acl.stat = 5;
    fake::clock.advance(1);
    set_acl("my_app", 4, 3, 50);
    EXPECT_EQ(cached_acl("my_app", 4), node);
    EXPECT_EQ(std::tuple(node->acl.stat, node->acl.uuid, node->acl.priv[0]), std::tuple(0, now(), 50));
}

TEST_F(acl_operations, a_failed_write_is_reported_and_without_callbacks_the_librarys_results_are_returned)
{
    for (bool heard : {true, false}) {
        start(heard ? application::handler() : fp_udp_acl_handler{});
        app.result = 12;
        fake::store.script["hmset"] = {0, 9};
        for (int32_t ok_or_failed = 0; ok_or_failed < 2; ok_or_failed++)
            EXPECT_EQ(set_acl("my_app", 4, 0, 40), heard ? 12 : 0);
        EXPECT_EQ(fake::log.take("E"), lines{"E acl entry hmset failed.\n"});
        EXPECT_EQ(app.take().size(), heard ? 2U : 0U);
        EXPECT_EQ(cached_acl("my_app", 4), nullptr);
        forget_calls();
        fake::failing_allocation fail(1);
        EXPECT_EQ(set_acl("my_app", 4, 0, 40), heard ? 12 : 0);
        EXPECT_EQ(app.take(), heard ? lines{"acl fail my_app/4 -2 <40:32>"} : lines{});
        EXPECT_EQ(fake::store.take().size(), heard ? 0U : 1U) << "not cached, written only if nobody can be told";
        EXPECT_EQ(cached_acl("my_app", 4), nullptr);
    }
}

// What leaves the cache with them is the model's to tell.
TEST_F(acl_operations, a_delete_of_an_acl_entry_or_apply_says_which_of_its_records_the_store_kept)
{
    start();
    struct {
        std::function<int32_t()> run;
        lines records, messages, failures;
    } const rows[] = {
        {[&] { return del_acl("my_app", 4); },
         {"del 5 acl[my_app,4]"},
         {"D acl key, app_type : my_app, acl_id : 4\n"},
         {"E acl entry del failed.\n"}},
        {[&] { return del_ace("my_app", 4, 11); },
         {"del 5 ace[my_app,4,11]"},
         {"D ace info, app_type : my_app, acl_id : 4, sn : 11\n"},
         {"E Del failed.\n"}},
        {[&] { return del_apply("my_app", 4, "b_app", 0x101, 9); },
         {"del 5 apply[b_app,4,my_app,257,9,0]", "del 5 apply_psta[b_app,4,my_app,257,9,0]"},
         {"D apply info, acl_apptype : my_app, acl_id : 4, apply_apptype : b_app, phyid : 0x101,priority : 9, "
          "direction : 0\n"},
         {"E apply entry del failed.\n", "E apply pstate entry del failed.\n"}},
    };
    for (const auto &row : rows) {
        for (int result : {0, 9}) {
            set_acl("my_app", 4);
            set_ace("my_app", 4, 11);
            set_apply("my_app", 4, "b_app", 0x101, 9);
            forget_calls();
            fake::store.script["del"] = {result, result};
            EXPECT_EQ(row.run(), 0);
            EXPECT_EQ(fake::store.take(), row.records);
            lines messages = row.messages;
            messages.insert(messages.end(), row.failures.begin(), result ? row.failures.end() : row.failures.begin());
            EXPECT_EQ(fake::log.take(), messages);
            EXPECT_EQ(app.take(), lines{});
            fake::store.script.clear();
        }
    }
}

TEST_F(acl_operations, rewrites_are_bracketed_in_the_store_alone)
{
    start();
    set_acl("my_app", 4);
    set_ace("my_app", 4, 1);
    struct {
        int32_t (*fp_udp_mgr::*operation)(void *, const char *);
        std::string call, message;
    } const rows[] = {
        {&fp_udp_mgr::expire_acl, "dsbegin 5 acl[my_app,0] 1 1000", "E Expire acl fail.\n"},
        {&fp_udp_mgr::del_expire_acl, "dsend 5 acl[my_app,0] 1 1000", "E Expire del acl fail.\n"},
        {&fp_udp_mgr::expire_ace, "dsbegin 5 ace[my_app,0,0] 1 1000", "E Expire ace fail.\n"},
        {&fp_udp_mgr::del_expire_ace, "dsend 5 ace[my_app,0,0] 1 1000", "E Expire del ace fail.\n"},
    };
    for (const auto &row : rows) {
        for (int result : {9, 0}) {
            forget_calls();
            fake::store.script = {{"dsbegin", {result}}, {"dsend", {result}}};
            fake::store.marks = {"5 acl[my_app,", "5 ace[my_app,"};
            EXPECT_EQ((mgr->*row.operation)(&context, "my_app"), result);
            EXPECT_EQ(fake::store.take(), lines{row.call});
            EXPECT_EQ(fake::log.take(), said({"D app_type : my_app\n"}, result, row.message));
            EXPECT_EQ(app.take(), lines{});
        }
    }
    EXPECT_NE(cached_ace("my_app", 4, 1), nullptr);
}

TEST_F(acl_operations, iterating_lists_sequence_numbers_newest_first)
{
    start();
    set_acl("my_app", 4);
    uint64_t *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 99;
    auto iterate = [&](uint32_t id) {
        forget_calls();
        const fp_udp_acl_key key = make_key("my_app", id);
        uint64_t *result = mgr->iterator_ace(&context, &key, &sns, &count);
        EXPECT_EQ(result, sns);
        std::vector<uint64_t> listed(result, result + count);
        free(result);
        return listed;
    };
    using listed = std::vector<uint64_t>;
    EXPECT_EQ(iterate(4), listed{});
    for (uint64_t sn : listed{3, 1, 2})
        set_ace("my_app", 4, sn);
    EXPECT_EQ(iterate(4), (listed{2, 1, 3}));
    EXPECT_EQ(fake::log.take(), lines{"D acl key, app_type : my_app, acl_id : 4\n"});
    cached_acl("my_app", 4)->ace_count = 2; // the count bounds the list
    EXPECT_EQ(iterate(4), (listed{2, 1}));
    cached_acl("my_app", 4)->ace_count = 5; // and the list the count
    iterate(4);
    cached_acl("my_app", 4)->ace_count = 3;
    EXPECT_EQ(iterate(5), listed{});
    EXPECT_EQ(sns, nullptr);
    EXPECT_EQ(fake::log.take(), (lines{"D acl key, app_type : my_app, acl_id : 5\n", "D acl not exist."}));
    fake::failing_allocation fail(1);
    EXPECT_EQ(iterate(4), listed{});
    EXPECT_EQ(sns, nullptr);
    EXPECT_EQ(fake::log.take("E"), lines{"E acl get ace sn malloc fail.\n"});
}

TEST_F(acl_operations, the_class_of_a_security_acl_is_read_from_database_8)
{
    start();
    fake::store.put(8, acl_record("security_app", 4, 0x305).record.base);
    const std::string failed = "E udp db failed to get security acl_cls! app:security_app acl:";
    struct {
        int32_t id;
        int state, read;
        int32_t result;
        lines messages;
    } const rows[] = {
        {4, 0, 0, 0, {}},
        {4, 1, 0, 0, {"E warning! db:8 not connected"}},
        {5, 0, 0, -7, {"E acl entry is empty app:security_app acl:5", failed + "5"}},
        {4, 0, 3, -11, {"E hgetall failed. app:security_app acl:4", failed + "4"}},
        {4, 0, fake::store_double::no_answer, -11, {"E hgetall ret is null. app:security_app acl:4", failed + "4"}},
    };
    for (const auto &row : rows) {
        fake::store.script = {{"state", {row.state}}, {"get", {row.read}}};
        uint8_t cls = 77;
        EXPECT_EQ(mgr->get_acl_cls(&context, row.id, &cls), row.result);
        EXPECT_EQ(cls, row.result ? 77 : 5);
        EXPECT_EQ(fake::store.take(), (lines{"state 8", fake::format("get 8 acl[security_app,%d]", row.id)}));
        EXPECT_EQ(fake::log.take("EIN"), row.messages);
    }
    EXPECT_EQ(mgr->get_acl_cls(&context, 4, nullptr), -4);
    EXPECT_EQ(fake::log.take("E").at(0).find("E invalid param acl_cls:(nil) app_type:0x"), 0U);
    EXPECT_EQ(fake::store.take(), lines{});
}

} // namespace
