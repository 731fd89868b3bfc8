// ACE operations: what they write, cache, report and answer, and which writes are tracked.
#include <cstring>
#include <support/application.h>

namespace {

class ace_operations : public library_case {};

TEST_F(ace_operations, a_set_caches_writes_and_starts_to_wait)
{
    start();
    set_acl("security_app", 4);
    forget_calls();
    const fp_udp_acl_key key = make_key("security_app", 4);
    owned_ace ace = make_ace(mgr, 0xA00000001, 40, 77, 1);
    push(ace, "fwd", 2, {1});
    EXPECT_EQ(mgr->set_ace(&context, &key, ace.get()), 0);
    EXPECT_EQ(fake::store.take(),
              lines{fake::format("hmset 5 ace[security_app,4,42949672961] 6,7,8,9,10,11 value=020200000100000001 "
                                 "c_status=0 req_uuid=%llu default_ace=1 priv=<40:32> ace_pri=77",
                                 static_cast<unsigned long long>(now()))});
    EXPECT_EQ(fake::log.take(), lines{"D ace info, app_type : security_app, acl_id : 4, sn : a00000001\n"});
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(pending(), 1U);
    const fp_udp_ace_node *node = cached_ace("security_app", 4, ace->sn);
    EXPECT_EQ(node->ace.def, 1);
    EXPECT_EQ(node->ace.uuid, now());
    EXPECT_EQ(fake::hex(node->ace.priv, 32), "<40:32>");
    EXPECT_EQ(node->ace.is_req, 0);
}

TEST_F(ace_operations, setting_an_entry_again_starts_over_in_its_place)
{
    start();
    set_acl("security_app", 4);
    const fp_udp_acl_key key = make_key("security_app", 4);
    mgr->set_ace(&context, &key, make_ace(mgr, 1, 40, 7, 1).get());
    set_ace("security_app", 4, 2);
    fp_udp_ace_node *node = cached_ace("security_app", 4, 1);
    node->ace.stat = 3;
    node->ace.req_count = 4;
    node->ace.is_req = 1;
    fake::clock.advance(5);
    EXPECT_EQ(mgr->set_ace(&context, &key, make_ace(mgr, 1, 50, 7, 0).get()), 0);
    EXPECT_EQ(cached_ace("security_app", 4, 1), node);
    EXPECT_EQ(std::tuple(node->ace.stat, node->ace.req_count, node->ace.is_req, node->ace.uuid, node->ace.priv[0]),
              std::tuple(0, 0, 0, now(), 50));
    EXPECT_EQ(node->ace.def, 1) << "as of the first set";
    EXPECT_EQ(pending(), 2U);
    EXPECT_EQ(reinterpret_cast<fp_udp_req_node *>(g_req_para.pending.next)->node, node) << "keeps its place";
    EXPECT_EQ(cached_acl("security_app", 4)->ace_count, 2U);
}

TEST_F(ace_operations, what_needs_no_confirmation_is_answered_at_once)
{
    start();
    app.result = 12;
    struct {
        const char *type;
        bool applied, tracked;
    } const rows[] = {{"my_app", false, false}, {"my_app", true, true}, {"security_app", false, true}};
    uint32_t id = 0;
    for (const auto &row : rows) {
        set_acl(row.type, ++id);
        if (row.applied)
            set_apply(row.type, id, "my_app", 7);
        const size_t before = pending();
        forget_calls();
        EXPECT_EQ(set_ace(row.type, id, 0x100000002, 40), row.tracked ? 0 : 12);
        EXPECT_EQ(app.take(), row.tracked ? lines{} : lines{"ace ok my_app/1/100000002 <40:32>"});
        EXPECT_EQ(pending() - before, row.tracked);
        EXPECT_EQ(cached_ace(row.type, id, 0x100000002)->ace.is_req, !row.tracked);
    }
}

TEST_F(ace_operations, without_the_success_callback_nothing_is_tracked)
{
    fp_udp_acl_handler handler = application::handler();
    handler.ace_reply_ok_cb = nullptr;
    start(handler);
    set_acl("security_app", 4);
    EXPECT_EQ(set_ace("security_app", 4, 1), 0);
    EXPECT_EQ(pending(), 0U);
    EXPECT_TRUE(fake::store.holds(5, "ace[security_app,4,1]"));
}

TEST_F(ace_operations, a_set_that_cannot_be_cached_writes_nothing)
{
    start();
    app.result = 12;
    EXPECT_EQ(set_ace("my_app", 4, 0xAB, 40), 12);
    EXPECT_EQ(app.take(), lines{"ace fail my_app/4/ab -7 <40:32>"});
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(fake::log.take(), (lines{"D ace info, app_type : my_app, acl_id : 4, sn : ab\n",
                                       "E can find acl while add ace, app_type:my_app acl_id:4 sn:ab\n",
                                       "I get&add ace to acldb failed while set ace, rv:-7!\n",
                                       "E plx reply set ace fail, app_type : my_app, acl_id : 4, sn : ab\n"}));
}

TEST_F(ace_operations, a_failed_write_forgets_the_entry)
{
    start();
    app.result = 12;
    set_acl("security_app", 4);
    set_ace("security_app", 4, 0xAB);
    forget_calls();
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(set_ace("security_app", 4, 0xAB, 40), 12);
    EXPECT_EQ(app.take(), lines{"ace fail security_app/4/ab 9 <40:32>"});
    EXPECT_EQ(fake::log.take("EI"),
              (lines{"E ace entry hmset failed.\n",
                     "E plx reply set ace fail, app_type : security_app, acl_id : 4, sn : ab\n"}));
    EXPECT_EQ(cached_ace("security_app", 4, 0xAB), nullptr);
    EXPECT_EQ(pending(), 0U);
}

TEST_F(ace_operations, without_the_failure_callback_the_fall_back_results_are_returned)
{
    start({});
    EXPECT_EQ(set_ace("my_app", 4, 1), -7);
    set_acl("my_app", 4);
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(set_ace("my_app", 4, 1), 0) << "the removal's result";
    EXPECT_EQ(fake::log.take("EI").back(), "E ace entry hmset failed.\n");
    fake::failing_allocation fail(1);
    EXPECT_EQ(set_ace("my_app", 4, 1), -2);
}

TEST_F(ace_operations, an_exhausted_memory_for_the_request_is_the_result_of_the_set)
{
    start();
    set_acl("security_app", 4);
    set_ace("security_app", 4, 1);
    fake::failing_allocation fail(2);
    EXPECT_EQ(set_ace("security_app", 4, 2), -2);
    EXPECT_EQ(fake::log.take("E"), lines{"E mallc req node fail."});
    EXPECT_EQ(cached_ace("security_app", 4, 2)->req, nullptr);
}

TEST_F(ace_operations, an_entry_without_attributes_or_buffer_has_an_empty_value)
{
    start();
    set_acl("my_app", 4);
    owned_ace ace = make_ace(mgr, 1);
    const fp_udp_acl_key key = make_key("my_app", 4);
    for (int i = 0; i < 2; i++) {
        forget_calls();
        EXPECT_EQ(mgr->set_ace(&context, &key, ace.get()), 0);
        EXPECT_NE(fake::store.take().at(0).find("value= c_status"), std::string::npos);
        free(std::exchange(ace->tlv, nullptr));
    }
}

TEST_F(ace_operations, a_delete_leaves_the_cache_whatever_the_store_says)
{
    start();
    set_acl("security_app", 4);
    for (int result : {0, 9}) {
        set_ace("security_app", 4, 11);
        forget_calls();
        fake::store.script["del"] = {result};
        const fp_udp_acl_key key = make_key("security_app", 4);
        EXPECT_EQ(mgr->delete_ace(&context, &key, 11), 0);
        EXPECT_EQ(fake::store.take(), lines{"del 5 ace[security_app,4,11]"});
        lines messages{"D ace info, app_type : security_app, acl_id : 4, sn : 11\n"};
        if (result)
            messages.push_back("E Del failed.\n");
        EXPECT_EQ(fake::log.take(), messages);
        EXPECT_EQ(cached_ace("security_app", 4, 11), nullptr);
        EXPECT_EQ(pending(), 0U);
        EXPECT_EQ(app.take(), lines{});
    }
}

TEST_F(ace_operations, an_entry_is_read_back_from_database_8)
{
    start();
    owned_ace ace = make_ace(mgr, 11, 40, 77);
    push(ace, "src_l4port", 1, {1, 2, 3, 4});
    push(ace, "dst_mac", 1, {1, 2, 3, 4, 5, 6});
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    key.t_app_type = const_cast<char *>("my_app");
    key.acl_id = 4;
    key.sn = 11;
    SPolicy__Ace record = S_POLICY__ACE__INIT;
    record.index = &key;
    record.value = {ace->tlv->len, ace->tlv->data};
    record.default_ace = 1;
    record.ace_pri = 77;
    record.priv = {32, ace->priv};
    fake::store.put(8, record.base);

    const fp_udp_acl_key acl = make_key("my_app", 4);
    owned_ace read(mgr->get_ace(&context, &acl, 11), mgr->free_ace);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(fake::store.take(), lines{"get 8 ace[my_app,4,11]"});
    EXPECT_EQ(fake::log.take(), lines{"D ace info, app_type : my_app, acl_id : 4, sn : 11\n"});
    EXPECT_EQ(fake::hex(read->tlv->data, read->tlv->len), fake::hex(ace->tlv->data, 26));
    EXPECT_EQ(std::tuple(read->sn, read->default_ace, read->ace_pri, read->priv[3]), std::tuple(11U, 1, 0U, 0));
    push(read, "vid", 1, {1}); // it is an entry like any other
    EXPECT_EQ(read->tlv->len, 35);

    std::vector<uint8_t> large(0x10003, 5); // only 16 bits of the length are kept
    record.value = {large.size(), large.data()};
    fake::store.put(8, record.base);
    EXPECT_EQ(owned_ace(mgr->get_ace(&context, &acl, 11), mgr->free_ace)->tlv->len, 3);

    struct {
        uint64_t sn;
        int read, failing_site;
        lines messages;
    } const rows[] = {
        {12, 0, 0, {"N get ace found ace entry empty.\n"}},
        {11, 3, 0, {"E Get ace entry by sn error_code:3.\n"}},
        {11, fake::store_double::no_answer, 0, {"E Get ace entry by sn fail.\n"}},
        {11, 0, 1, {"E alloc ace fail, sn : 11.\n"}},
        {11, 0, 2, {"E alloc ace tlv fail, sn : 11.\n"}},
        {11, 0, 3, {"E realloc ace memory fail for get ace.\n"}},
    };
    for (const auto &row : rows) {
        forget_calls();
        fake::store.script["get"] = {row.read};
        fake::failing_allocation fail(row.failing_site);
        EXPECT_EQ(mgr->get_ace(&context, &acl, row.sn), nullptr);
        EXPECT_EQ(fake::log.take("EIN"), row.messages);
    }
}

} // namespace
