// ACE operations: what they write, cache, report and answer. Which writes are tracked, and what a set over an earlier
// one leaves, is the model's to tell.
#include "records.h"

namespace {

class ace_operations : public operations_case {};

TEST_F(ace_operations, a_set_caches_writes_and_starts_to_wait)
{
    start();
    set_acl("security_app", 4);
    forget_calls();
    const fp_udp_acl_key key = make_key("security_app", 4);
    owned_ace ace = make_ace(mgr, 0xA00000001, 40, 77, 1);
    push(ace, "fwd", 2, {1});
    EXPECT_EQ(mgr->set_ace(&context, &key, ace.get()), 0);
    EXPECT_EQ(
        fake::store.take(),
        lines{"hmset 5 ace[security_app,4,42949672961] 6,7,8,9,10,11 value=020200000100000001 c_status=0 req_uuid=" +
              std::to_string(now()) + " default_ace=1 priv=<40:32> ace_pri=77"});
    EXPECT_EQ(fake::log.take(), lines{"D ace info, app_type : security_app, acl_id : 4, sn : a00000001\n"});
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(pending(), 1U);
    const fp_udp_ace_node *node = cached_ace("security_app", 4, ace->sn);
    EXPECT_EQ(std::tuple(node->ace.def, node->ace.uuid, node->ace.is_req), std::tuple(1, now(), 0));
    EXPECT_EQ(fake::hex(node->ace.priv, 32), "<40:32>");
    ace->default_ace = 0;
    mgr->set_ace(&context, &key, ace.get());
    EXPECT_EQ(cached_ace("security_app", 4, ace->sn), node);
    EXPECT_EQ(node->ace.def, 1) << "as of the first set";
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

TEST_F(ace_operations, a_set_that_cannot_be_cached_writes_nothing_and_a_failed_write_is_reported)
{
    start();
    EXPECT_EQ(set_ace("my_app", 4, 0xAB, 40), 0);
    const std::string failed = "E plx reply set ace fail, app_type : my_app, acl_id : 4, sn : ab\n";
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(fake::log.take(), (lines{"D ace info, app_type : my_app, acl_id : 4, sn : ab\n",
                                       "E can find acl while add ace, app_type:my_app acl_id:4 sn:ab\n",
                                       "I get&add ace to acldb failed while set ace, rv:-7!\n", failed}));
    set_acl("my_app", 4);
    fake::store.script["hmset"] = {9};
    set_ace("my_app", 4, 0xAB);
    EXPECT_EQ(fake::log.take("EI"), (lines{"E ace entry hmset failed.\n", failed}));
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

TEST_F(ace_operations, an_entry_or_apply_without_attributes_or_buffer_has_an_empty_value)
{
    start();
    set_acl("my_app", 4);
    owned_ace ace = make_ace(mgr, 1);
    owned_apply apply = make_apply(mgr, "my_app", 1);
    const fp_udp_acl_key key = make_key("my_app", 4);
    const fp_udp_acl_info acl = make_info("my_app", 4);
    for (int i = 0; i < 2; i++) {
        forget_calls();
        EXPECT_EQ(mgr->set_ace(&context, &key, ace.get()), 0);
        EXPECT_NE(fake::store.take().at(0).find("value= c_status"), std::string::npos);
        EXPECT_EQ(mgr->set_apply(&context, &acl, 0, apply.get()), 0);
        EXPECT_NE(fake::store.take().back().find("value= c_status"), std::string::npos);
        free(std::exchange(ace->tlv, nullptr));
        free(std::exchange(apply->tlv, nullptr));
    }
}

TEST_F(ace_operations, an_entry_is_read_back_from_database_8)
{
    start();
    owned_ace ace = make_ace(mgr, 11, 40, 77);
    push(ace, "src_l4port", 1, {1, 2, 3, 4});
    push(ace, "dst_mac", 1, {1, 2, 3, 4, 5, 6});
    ace_record stored("my_app", 4, 11, true);
    stored.record.value = {ace->tlv->len, ace->tlv->data};
    stored.record.ace_pri = 77;
    stored.record.priv = {32, ace->priv};
    fake::store.put(8, stored.record.base);

    owned_ace read = get_ace("my_app", 4, 11);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(fake::store.take(), lines{"get 8 ace[my_app,4,11]"});
    EXPECT_EQ(fake::log.take(), lines{"D ace info, app_type : my_app, acl_id : 4, sn : 11\n"});
    EXPECT_EQ(fake::hex(read->tlv->data, read->tlv->len), fake::hex(ace->tlv->data, 26));
    EXPECT_EQ(std::tuple(read->sn, read->default_ace, read->ace_pri, read->priv[3]), std::tuple(11U, 1, 0U, 0));
    push(read, "vid", 1, {1}); // it is an entry like any other
    EXPECT_EQ(read->tlv->len, 35);

    std::vector<uint8_t> large(0x10003, 5); // only 16 bits of the length are kept
    stored.record.value = {large.size(), large.data()};
    fake::store.put(8, stored.record.base);
    EXPECT_EQ(get_ace("my_app", 4, 11)->tlv->len, 3);

    struct {
        uint64_t sn;
        int read, failing_site;
        std::string message;
    } const rows[] = {
        {12, 0, 0, "N get ace found ace entry empty.\n"},
        {11, 3, 0, "E Get ace entry by sn error_code:3.\n"},
        {11, fake::store_double::no_answer, 0, "E Get ace entry by sn fail.\n"},
        {11, 0, 1, "E alloc ace fail, sn : 11.\n"},
        {11, 0, 2, "E alloc ace tlv fail, sn : 11.\n"},
        {11, 0, 3, "E realloc ace memory fail for get ace.\n"},
    };
    for (const auto &row : rows) {
        forget_calls();
        fake::store.script["get"] = {row.read};
        const long blocks = fake::live_blocks();
        {
            fake::failing_allocation fail(row.failing_site);
            EXPECT_EQ(get_ace("my_app", 4, row.sn), nullptr);
        }
        EXPECT_EQ(fake::log.take("EIN"), lines{row.message});
        forget_calls();
        EXPECT_EQ(fake::live_blocks(), blocks) << row.message;
    }
}

} // namespace
