// Apply operations: what they write, which class they write, and what they answer.
#include "records.h"

namespace {

class apply_operations : public operations_case {
  protected:
    // The apply that most cases are about, of ACL 4 of security_app.
    int32_t set(uint8_t priv = 0, uint32_t cls = 0)
    {
        return set_apply("security_app", 4, "my_app", 0x101, 9, priv, cls);
    }
    fp_udp_apply_node *cached() { return cached_apply("security_app", 4, "my_app", 0x101, 9); }
    // The line of its write.
    static std::string written(uint32_t cls, int priv, const char *value = "")
    {
        return fake::format("hmset 5 apply[my_app,4,security_app,257,9,0] 6,7,8,9,10 value=%s c_status=0 req_uuid=%llu "
                            "acl_cls=%u priv=<%d:32>",
                            value, static_cast<unsigned long long>(now()), cls, priv);
    }
};

const std::string info = "D apply info, acl_apptype : security_app, acl_id : 4, apply_apptype : my_app, phyid : "
                         "0x101,priority : 9, direction : 0\n";

TEST_F(apply_operations, a_set_caches_writes_and_starts_to_wait)
{
    start();
    fake::store.put(8, acl_record("security_app", 4, 3).record.base);
    const fp_udp_acl_info acl = make_info("security_app", 4);
    owned_apply apply = make_apply(mgr, "my_app", 0x101, 9, 0, 40);
    push(apply, "vid", 1, {1});
    EXPECT_EQ(mgr->set_apply(&context, &acl, 0x103, apply.get()), 0) << "classes are compared as bytes";
    EXPECT_EQ(fake::store.take(),
              (lines{"state 8", "get 8 acl[security_app,4]", written(3, 40, "010500000100000001")}));
    EXPECT_EQ(fake::log.take(), lines{info});
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(pending(), 1U);
    ASSERT_NE(cached(), nullptr);
    const fp_udp_apply_info &cached_info = cached()->apply;
    EXPECT_EQ(std::tuple(cached_info.value_pri, cached_info.stat, cached_info.uuid, cached_info.dir),
              std::tuple(9U, 0, now(), 0U));
    EXPECT_EQ(fake::hex(cached_info.priv, 32), "<40:32>");
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
            fake::store.put(8, acl_record("security_app", 4, row.stored).record.base);
        EXPECT_EQ(set(0, 258), 0);
        EXPECT_EQ(fake::store.take().back(), written(row.written, 0));
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
        fake::store.put(db, acl_record("my_app", 4, 7).record.base);
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
    fake::store.put(8, acl_record("security_app", 4).record.base);
    set_apply("security_app", 4, "my_app", 0x101, 7, 40);
    fp_udp_apply_node *node = cached();
    forget_calls();
    fake::store.script["del"] = {3, 4};
    EXPECT_EQ(set(40), 0);
    EXPECT_EQ(fake::store.take(),
              (lines{"del 5 apply[my_app,4,security_app,257,7,0]", "del 5 apply_psta[my_app,4,security_app,257,7,0]",
                     "state 8", "get 8 acl[security_app,4]", written(0, 40)}));
    EXPECT_EQ(fake::log.take(), (lines{info, "E apply entry del failed.\n", "E apply pstate entry del failed.\n"}));
    EXPECT_EQ(cached(), node);
    EXPECT_EQ(std::pair(node->apply.value_pri, node->apply.pri), std::pair(9U, 0U));
}

TEST_F(apply_operations, a_failed_write_is_reported_and_an_apply_that_cannot_be_cached_is_not_written)
{
    start();
    app.result = 12;
    fake::store.script["hmset"] = {6};
    EXPECT_EQ(set(40), 12);
    EXPECT_EQ(fake::log.take("E").back(), "E apply entry hmset failed.\n");
    forget_calls();
    fake::failing_allocation fail(2);
    EXPECT_EQ(set_apply("my_app", 5, "my_app", 0x101, 9, 40), 12);
    EXPECT_EQ(app.take(), lines{"apply fail my_app/5@my_app/101/9/0 -2 <40:32>"});
    EXPECT_EQ(fake::store.take(), lines{});
}

TEST_F(apply_operations, without_callbacks_the_librarys_own_results_are_returned)
{
    start({});
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(pending(), 0U);
    fake::store.script["hmset"] = {6};
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(cached(), nullptr);
    fake::failing_allocation fail(1);
    EXPECT_EQ(set(), -2);
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
            EXPECT_EQ((mgr->*row.operation)(&context, "my_app") == 0, two == 0);
            EXPECT_EQ(fake::store.take(), (lines{row.call + " 5 apply[my_app,0,,0,0,0] 1 1000",
                                                 row.call + " 5 apply_psta[my_app,0,,0,0,0] 1 1000"}));
            EXPECT_EQ(fake::log.take(), said(said({"D app_type : my_app\n"}, one, row.first), two, row.second));
        }
    }
}

} // namespace
