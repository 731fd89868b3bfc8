// Apply operations: what they write, which class they write, and what they answer.
#include <cstring>
#include <support/application.h>

namespace {

class apply_operations : public library_case {
  protected:
    // An ACL record as the class lookup finds it.
    static void put_acl(uint32_t db, const char *type, uint32_t id, uint32_t cls)
    {
        SPolicy__AclKey key = S_POLICY__ACL_KEY__INIT;
        key.t_app_type = const_cast<char *>(type);
        key.acl_id = id;
        SPolicy__Acl record = S_POLICY__ACL__INIT;
        record.index = &key;
        record.acl_cls = cls;
        fake::store.put(db, record.base);
    }
    // The line of a written apply of ACL 4 of security_app.
    static std::string written(uint32_t pri, uint32_t cls, int priv, const char *value = "")
    {
        return fake::format(
            "hmset 5 apply[my_app,4,security_app,257,%u,0] 6,7,8,9,10 value=%s c_status=0 req_uuid=%llu "
            "acl_cls=%u priv=<%d:32>",
            pri, value, static_cast<unsigned long long>(now()), cls, priv);
    }
};

const std::string info = "D apply info, acl_apptype : security_app, acl_id : 4, apply_apptype : my_app, phyid : "
                         "0x101,priority : 9, direction : 0\n";

TEST_F(apply_operations, a_set_caches_writes_and_starts_to_wait)
{
    start();
    put_acl(8, "security_app", 4, 3);
    const fp_udp_acl_info acl = make_info("security_app", 4);
    owned_apply apply = make_apply(mgr, "my_app", 0x101, 9, 0, 40);
    push(apply, "vid", 1, {1});
    EXPECT_EQ(mgr->set_apply(&context, &acl, 0x103, apply.get()), 0) << "classes are compared as bytes";
    EXPECT_EQ(fake::store.take(),
              (lines{"state 8", "get 8 acl[security_app,4]", written(9, 3, 40, "010500000100000001")}));
    EXPECT_EQ(fake::log.take(), lines{info});
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(pending(), 1U);
    const fp_udp_apply_node *node = cached_apply("security_app", 4, "my_app", 0x101, 9);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(std::tuple(node->apply.value_pri, node->apply.stat, node->apply.uuid, node->apply.dir),
              std::tuple(9U, 0, now(), 0U));
    EXPECT_EQ(fake::hex(node->apply.priv, 32), "<40:32>");
    EXPECT_EQ(cached_acl("security_app", 4)->ace_count, 0U);
}

TEST_F(apply_operations, setting_an_apply_again_starts_over_in_its_place)
{
    start();
    set_apply("security_app", 4, "my_app", 0x101, 9, 40);
    fp_udp_apply_node *node = cached_apply("security_app", 4, "my_app", 0x101, 9);
    node->apply.stat = 3;
    node->apply.req_count = 4;
    node->apply.is_req = 1;
    fake::clock.advance(5);
    EXPECT_EQ(set_apply("security_app", 4, "my_app", 0x101, 9, 50), 0);
    EXPECT_EQ(std::tuple(node->apply.stat, node->apply.req_count, node->apply.is_req, node->apply.uuid),
              std::tuple(0, 0, 0, now()));
    EXPECT_EQ(fake::hex(node->apply.priv, 32), "<50:32>");
    EXPECT_EQ(list_length(cached_acl("security_app", 4)->apply_list), 1U);
    EXPECT_EQ(pending(), 1U);
}

TEST_F(apply_operations, the_stores_class_wins_and_the_callers_fills_in)
{
    start();
    const std::string tail = "app:security_app acl:4 apply:my_app acl_cls:258 acl_cls_real:";
    struct {
        uint32_t stored, written;
        lines messages;
    } const rows[] = {
        {0,
         2,
         {"E acl entry is empty app:security_app acl:4",
          "E udp db failed to get security acl_cls! app:security_app acl:4", "E acl_cls get failed! " + tail + "2"}},
        {7, 7, {"E acl_cls is not match! " + tail + "7"}},
        {2, 2, {}},
    };
    for (const auto &row : rows) {
        forget_calls();
        if (row.stored)
            put_acl(8, "security_app", 4, row.stored);
        EXPECT_EQ(set_apply("security_app", 4, "my_app", 0x101, 9, 0, 258), 0);
        EXPECT_EQ(fake::store.take().back(), written(9, row.written, 0));
        EXPECT_EQ(fake::log.take("E"), row.messages);
    }
}

TEST_F(apply_operations, other_types_classes_are_asked_from_the_registered_database)
{
    start();
    EXPECT_EQ(set_apply("my_app", 4, "my_app", 1, 0, 0, 6), 0);
    EXPECT_EQ(fake::store.take().size(), 1U) << "database 5 keeps no classes: nothing is read";
    const lines messages = fake::log.take("E");
    EXPECT_EQ(messages.at(0).find("E invalid param acl_cls:0x"), 0U);
    EXPECT_NE(messages.at(0).find(" db:5"), std::string::npos);
    EXPECT_EQ(messages.at(1), "E acl_cls get failed! app:my_app acl:4 apply:my_app acl_cls:6 acl_cls_real:6");
    for (uint32_t db : {0U, 8U}) {
        put_acl(db, "my_app", 4, 7);
        const fp_udp_acl_handler handler = application::handler();
        fp_udp_register_acl_handler(&context, db, &handler);
        forget_calls();
        EXPECT_EQ(set_apply("my_app", 4, "my_app", 1, 0, 0, 7), 0);
        EXPECT_EQ(fake::log.take("E"), lines{});
        EXPECT_EQ(fake::store.take().at(1), fake::format("get %u acl[my_app,4]", db));
    }
}

TEST_F(apply_operations, a_changed_priority_takes_the_old_binding_out_of_the_store_first)
{
    fp_udp_set_cmp_apply_skip_prio();
    start();
    put_acl(8, "security_app", 4, 0);
    set_apply("security_app", 4, "my_app", 0x101, 7, 40);
    fp_udp_apply_node *node = cached_apply("security_app", 4, "my_app", 0x101, 7);
    forget_calls();
    fake::store.script["del"] = {3, 4};
    EXPECT_EQ(set_apply("security_app", 4, "my_app", 0x101, 9, 40), 0);
    EXPECT_EQ(fake::store.take(),
              (lines{"del 5 apply[my_app,4,security_app,257,7,0]", "del 5 apply_psta[my_app,4,security_app,257,7,0]",
                     "state 8", "get 8 acl[security_app,4]", written(9, 0, 40)}));
    EXPECT_EQ(fake::log.take(), (lines{info, "E apply entry del failed.\n", "E apply pstate entry del failed.\n"}));
    EXPECT_EQ(cached_apply("security_app", 4, "my_app", 0x101, 9), node);
    EXPECT_EQ(std::pair(node->apply.value_pri, node->apply.pri), std::pair(9U, 0U));
    EXPECT_EQ(list_length(cached_acl("security_app", 4)->apply_list), 1U);
}

TEST_F(apply_operations, a_failed_write_forgets_the_apply)
{
    start();
    app.result = 12;
    for (bool again : {false, true}) {
        if (again)
            set_apply("security_app", 4, "my_app", 0x101, 9);
        forget_calls();
        fake::store.script["hmset"] = {6};
        EXPECT_EQ(set_apply("security_app", 4, "my_app", 0x101, 9, 40), 12);
        EXPECT_EQ(app.take(), lines{"apply fail security_app/4@my_app/101/9/0 6 <40:32>"});
        EXPECT_EQ(fake::log.take("E").back(), "E apply entry hmset failed.\n");
        EXPECT_EQ(cached_apply("security_app", 4, "my_app", 0x101, 9), nullptr);
        EXPECT_EQ(pending(), 0U);
    }
    forget_calls();
    fake::failing_allocation fail(2);
    EXPECT_EQ(set_apply("my_app", 5, "my_app", 0x101, 9, 40), 12);
    EXPECT_EQ(app.take(), lines{"apply fail my_app/5@my_app/101/9/0 -2 <40:32>"});
    EXPECT_EQ(fake::store.take(), lines{});
}

TEST_F(apply_operations, without_callbacks_the_librarys_own_results_are_returned)
{
    start({});
    EXPECT_EQ(set_apply("security_app", 4, "my_app", 1), 0);
    EXPECT_EQ(pending(), 0U);
    fake::store.script["hmset"] = {6};
    EXPECT_EQ(set_apply("security_app", 4, "my_app", 1), 0);
    EXPECT_EQ(cached_apply("security_app", 4, "my_app", 1), nullptr);
    const fp_udp_acl_info acl = make_info("security_app", 4);
    owned_apply apply = make_apply(mgr, "my_app", 2);
    fake::failing_allocation fail(1);
    EXPECT_EQ(mgr->set_apply(&context, &acl, 0, apply.get()), -2);
}

TEST_F(apply_operations, a_delete_takes_record_status_and_cache)
{
    start();
    set_apply("security_app", 4, "my_app", 0x101, 9);
    owned_apply apply = make_apply(mgr, "my_app", 0x101, 9);
    const fp_udp_acl_info acl = make_info("security_app", 4);
    forget_calls();
    fake::store.script["del"] = {3, 4};
    EXPECT_EQ(mgr->del_apply(&context, &acl, apply.get()), 0);
    EXPECT_EQ(fake::store.take(),
              (lines{"del 5 apply[my_app,4,security_app,257,9,0]", "del 5 apply_psta[my_app,4,security_app,257,9,0]"}));
    EXPECT_EQ(fake::log.take(), (lines{info, "E apply entry del failed.\n", "E apply pstate entry del failed.\n"}));
    EXPECT_EQ(cached_apply("security_app", 4, "my_app", 0x101, 9), nullptr);
    EXPECT_EQ(pending(), 0U);
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(apply_operations, rewrites_bracket_records_and_statuses)
{
    start();
    struct {
        int32_t (*fp_udp_mgr::*operation)(void *, const char *);
        std::string call, first, second;
    } const rows[] = {
        {&fp_udp_mgr::expire_apply, "dsbegin", "E Expire apply fail.\n", "E Expire apply pstate fail.\n"},
        {&fp_udp_mgr::del_expire_apply, "dsend", "E Expire del apply fail.\n", "E Expire del apply pstate fail.\n"},
    };
    for (const auto &row : rows) {
        for (auto [one, two] : {std::pair{0, 0}, {3, 0}, {0, 4}, {3, 4}}) {
            forget_calls();
            fake::store.script[row.call] = {one, two};
            fake::store.marks = {"5 apply[my_app,", "5 apply_psta[my_app,"};
            const int32_t result = (mgr->*row.operation)(&context, "my_app");
            EXPECT_EQ(result == 0, two == 0);
            EXPECT_EQ(fake::store.take(), (lines{row.call + " 5 apply[my_app,0,,0,0,0] 1 1000",
                                                 row.call + " 5 apply_psta[my_app,0,,0,0,0] 1 1000"}));
            lines messages{"D app_type : my_app\n"};
            if (one)
                messages.push_back(row.first);
            if (two)
                messages.push_back(row.second);
            EXPECT_EQ(fake::log.take(), messages);
        }
        EXPECT_EQ((mgr->*row.operation)(&context, nullptr), 0);
        EXPECT_EQ(fake::store.take(), lines{});
    }
}

TEST_F(apply_operations, null_objects_do_nothing)
{
    start();
    const fp_udp_acl_info acl = make_info("security_app", 4);
    owned_apply apply = make_apply(mgr, "my_app", 1);
    EXPECT_EQ(mgr->set_apply(&context, nullptr, 0, apply.get()), 0);
    EXPECT_EQ(mgr->set_apply(&context, &acl, 0, nullptr), 0);
    EXPECT_EQ(mgr->del_apply(&context, nullptr, apply.get()), 0);
    EXPECT_EQ(mgr->del_apply(&context, &acl, nullptr), 0);
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(fake::log.take(), lines{});
}

TEST_F(apply_operations, an_apply_without_buffer_is_written_with_an_empty_value)
{
    start();
    owned_apply apply = make_apply(mgr, "my_app", 1);
    free(std::exchange(apply->tlv, nullptr));
    const fp_udp_acl_info acl = make_info("my_app", 4);
    EXPECT_EQ(mgr->set_apply(&context, &acl, 0, apply.get()), 0);
    EXPECT_NE(fake::store.take().back().find("value= c_status"), std::string::npos);
}

} // namespace
