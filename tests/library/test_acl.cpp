// ACL operations: what they write, cache, report and answer.
#include <cstring>
#include <support/application.h>

namespace {

class acl_operations : public library_case {};

std::string written(const fp_udp_acl &acl, uint64_t uuid)
{
    return fake::format("hmset 5 acl[%s,%u] 6,7,8,9 acl_cls=%u c_status=0 req_uuid=%llu priv=%s", acl.app_type,
                        acl.acl_id, acl.acl_cls, static_cast<unsigned long long>(uuid),
                        fake::hex(acl.priv, sizeof acl.priv).c_str());
}

TEST_F(acl_operations, a_set_caches_writes_and_calls_back)
{
    start();
    app.result = 12;
    const fp_udp_acl acl = make_acl("my_app", 4, 3, 40);
    EXPECT_EQ(mgr->set_acl(&context, &acl), 12);
    EXPECT_EQ(fake::store.take(), lines{written(acl, now())});
    EXPECT_EQ(fake::log.take(), lines{"D acl info, app_type : my_app, acl_id : 4, acl_cls : 3\n"});
    EXPECT_EQ(app.take(), lines{"acl ok my_app/4/3 <40:32>"});
    fp_udp_acl_info cached = make_info("my_app", 4);
    cached.uuid = now();
    put_priv(cached.priv, sizeof cached.priv, 40);
    EXPECT_EQ(memcmp(&cached_acl("my_app", 4)->acl, &cached, sizeof cached), 0);
}

TEST_F(acl_operations, setting_an_acl_again_renews_it_and_keeps_its_entries)
{
    start();
    set_acl("my_app", 4, 3, 40);
    set_ace("my_app", 4, 9);
    fp_udp_acl_node *node = cached_acl("my_app", 4);
    node->acl.stat = 5;
    fake::clock.advance(1);
    set_acl("my_app", 4, 3, 50);
    EXPECT_EQ(cached_acl("my_app", 4), node);
    EXPECT_EQ(node->acl.stat, 0);
    EXPECT_EQ(node->acl.uuid, now());
    EXPECT_EQ(node->acl.priv[0], 50);
    EXPECT_EQ(list_length(node->ace_list), 1U);
}

TEST_F(acl_operations, a_failed_write_forgets_the_acl_and_calls_back_with_the_stores_result)
{
    start();
    app.result = 12;
    set_acl("my_app", 4);
    forget_calls();
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(set_acl("my_app", 4, 0, 40), 12);
    EXPECT_EQ(fake::log.take("E"), lines{"E acl entry hmset failed.\n"});
    EXPECT_EQ(app.take(), lines{"acl fail my_app/4 9 <40:32>"});
    EXPECT_EQ(cached_acl("my_app", 4), nullptr);

    fake::failing_allocation fail(1);
    EXPECT_EQ(set_acl("my_app", 4, 0, 40), 12);
    EXPECT_EQ(app.take(), lines{"acl fail my_app/4 -2 <40:32>"});
    EXPECT_EQ(fake::store.take().size(), 1U) << "only the first of the two sets reached the store";
}

TEST_F(acl_operations, without_callbacks_the_librarys_own_results_are_returned)
{
    start({});
    EXPECT_EQ(set_acl("my_app", 4), 0);
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(set_acl("my_app", 4), 0);
    EXPECT_EQ(cached_acl("my_app", 4), nullptr);
    forget_calls();
    fake::failing_allocation fail(1);
    EXPECT_EQ(set_acl("my_app", 4), 0);
    EXPECT_EQ(fake::store.take().size(), 1U) << "not cached, yet written";
    EXPECT_EQ(cached_acl("my_app", 4), nullptr);
}

TEST_F(acl_operations, a_delete_leaves_the_cache_whatever_the_store_says)
{
    start();
    for (int result : {0, 9}) {
        set_acl("my_app", 4);
        set_ace("my_app", 4, 1);
        forget_calls();
        fake::store.script["del"] = {result};
        const fp_udp_acl_key key = make_key("my_app", 4);
        EXPECT_EQ(mgr->del_acl(&context, &key), 0);
        EXPECT_EQ(fake::store.take(), lines{"del 5 acl[my_app,4]"});
        lines messages{"D acl key, app_type : my_app, acl_id : 4\n"};
        if (result)
            messages.push_back("E acl entry del failed.\n");
        EXPECT_EQ(fake::log.take(), messages);
        EXPECT_EQ(cached_acl("my_app", 4), nullptr);
        EXPECT_EQ(cached_ace("my_app", 4, 1), nullptr);
        EXPECT_EQ(app.take(), lines{});
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
            EXPECT_EQ(fake::log.take(),
                      result ? (lines{"D app_type : my_app\n", row.message}) : lines{"D app_type : my_app\n"});
            EXPECT_EQ(app.take(), lines{});
        }
    }
    EXPECT_NE(cached_ace("my_app", 4, 1), nullptr);
}

TEST_F(acl_operations, iterating_lists_sequence_numbers_newest_first)
{
    start();
    set_acl("my_app", 4);
    const fp_udp_acl_key key = make_key("my_app", 4), unknown = make_key("my_app", 5);
    uint64_t *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 99;
    auto iterate = [&](const fp_udp_acl_key &which) {
        forget_calls();
        uint64_t *result = mgr->iterator_ace(&context, &which, &sns, &count);
        EXPECT_EQ(result, sns);
        std::vector<uint64_t> listed(result, result + count);
        free(result);
        return listed;
    };
    EXPECT_EQ(iterate(key), (std::vector<uint64_t>{}));
    for (uint64_t sn : std::vector<uint64_t>{3, 1, 2})
        set_ace("my_app", 4, sn);
    EXPECT_EQ(iterate(key), (std::vector<uint64_t>{2, 1, 3}));
    EXPECT_EQ(fake::log.take(), lines{"D acl key, app_type : my_app, acl_id : 4\n"});
    cached_acl("my_app", 4)->ace_count = 2; // the count bounds the list
    EXPECT_EQ(iterate(key).size(), 2U);
    cached_acl("my_app", 4)->ace_count = 5; // and the list the count
    mgr->iterator_ace(&context, &key, &sns, &count);
    EXPECT_EQ(sns[2], 3U);
    free(sns);
    cached_acl("my_app", 4)->ace_count = 3;
    EXPECT_EQ(iterate(unknown), (std::vector<uint64_t>{}));
    EXPECT_EQ(sns, nullptr);
    EXPECT_EQ(fake::log.take(), (lines{"D acl key, app_type : my_app, acl_id : 5\n", "D acl not exist."}));
    fake::failing_allocation fail(1);
    EXPECT_EQ(iterate(key), (std::vector<uint64_t>{}));
    EXPECT_EQ(sns, nullptr);
    EXPECT_EQ(fake::log.take("E"), lines{"E acl get ace sn malloc fail.\n"});
}

TEST_F(acl_operations, the_class_of_a_security_acl_is_read_from_database_8)
{
    start();
    SPolicy__AclKey key = S_POLICY__ACL_KEY__INIT;
    key.t_app_type = const_cast<char *>("security_app");
    key.acl_id = 4;
    SPolicy__Acl record = S_POLICY__ACL__INIT;
    record.index = &key;
    record.acl_cls = 0x305;
    fake::store.put(8, record.base);
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
