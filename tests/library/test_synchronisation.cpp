// What is in the store at start, and what changes nothing later. Changes that count are the model's to tell.
#include "records.h"

namespace {

class synchronisation : public library_case {
  protected:
    int32_t acl_event(int32_t event, acl_record &acl, int32_t result = 0, int32_t flag = 0)
    {
        return fake::store.deliver("acl", event, &acl.record.base, result, flag);
    }
    int32_t ace_event(int32_t event, ace_record &ace, int32_t result = 0, int32_t flag = 0)
    {
        return fake::store.deliver("ace", event, &ace.record.base, result, flag);
    }
};

TEST_F(synchronisation, the_start_finds_what_is_in_the_store)
{
    fake::store.put(8, acl_record("security_app", 1).record.base);
    fake::store.put(8, ace_record("security_app", 1, 0x500000001, true).record.base);
    fake::store.put(8, ace_record("security_app", 2, 3).record.base); // its ACL is in no record
    fake::store.put(8, acl_record("my_app", 1).record.base);
    fake::store.put(5, acl_record("security_app", 7).record.base);
    start();
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 2U);
    EXPECT_EQ(fp_udp_ace_node_hash_size(), 2U);
    ASSERT_NE(cached_ace("security_app", 1, 0x500000001), nullptr);
    EXPECT_EQ(cached_ace("security_app", 1, 0x500000001)->ace.def, 1);
    EXPECT_EQ(cached_acl("security_app", 2)->ace_count, 1U);
    EXPECT_EQ(app.take(), lines{}) << "a scan is no change";
    const fp_udp_acl_handler handler = application::handler();
    fp_udp_register_acl_handler(&context, 5, &handler);
    EXPECT_EQ(cached_acl("security_app", 2)->ace_count, 1U) << "a second scan adds nothing twice";
}

TEST_F(synchronisation, scan_entries_may_be_anything)
{
    const acl_record tall(std::string(32, 'x'), 1);
    acl_record nameless("", 1), good("security_app", 1);
    nameless.key.t_app_type = nullptr;
    const ace_record tall_ace(std::string(5000, 'x'), 1, 1);
    SPolicy__Acl keyless = S_POLICY__ACL__INIT;
    SPolicy__Ace keyless_ace = S_POLICY__ACE__INIT;
    fake::store.scan_entries = {{"acl", {4, nullptr, 0, 0}},
                                {"acl", {4, &good.record.base, 1, 0}},
                                {"acl", {3, &good.record.base, 0, 0}},
                                {"acl", {4, &keyless.base, 0, 0}},
                                {"acl", {4, &nameless.record.base, 0, 0}},
                                {"acl", {4, &tall.record.base, 0, 0}},
                                {"ace", {4, nullptr, 0, 0}},
                                {"ace", {4, &keyless_ace.base, 0, 0}},
                                {"ace", {4, &tall_ace.record.base, 0, 0}}};
    start();
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
    EXPECT_EQ(fp_udp_ace_node_hash_size(), 0U);
    fake::store.scan_entries.clear();
    for (int32_t event : {3, 4, 29, 77}) {
        fake::store.deliver("acl", event, nullptr);
        fake::store.deliver("acl", event, &keyless.base);
        fake::store.deliver("acl", event, &nameless.record.base);
        fake::store.deliver("ace", event, nullptr);
        fake::store.deliver("ace", event, &keyless_ace.base);
    }
    EXPECT_EQ(fake::store.deliver("acl", 4, &tall.record.base), -4);
    EXPECT_EQ(fake::store.deliver("ace", 4, &tall_ace.record.base), -4);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(synchronisation, echoes_other_events_and_unreadable_records_change_nothing)
{
    start();
    acl_record acl("security_app", 4);
    ace_record ace("security_app", 4, 1);
    for (int32_t event : {3, 4}) {
        EXPECT_EQ(acl_event(event, acl, 0, 1), 0);
        EXPECT_EQ(ace_event(event, ace, 0, 1), 0);
    }
    for (int32_t event : {0, 1, 24}) {
        EXPECT_EQ(acl_event(event, acl), 0);
        EXPECT_EQ(ace_event(event, ace), 0);
    }
    EXPECT_EQ(fake::log.take("E"), lines{});
    EXPECT_EQ(acl_event(4, acl, 6), 0);
    EXPECT_EQ(ace_event(4, ace, 6), 0);
    EXPECT_EQ(fake::store.deliver("acl", 4, nullptr), 0);
    EXPECT_EQ(fake::store.deliver("ace", 4, nullptr), 0);
    EXPECT_EQ(fake::log.take("E"), lines(4, "E Hash error happen\n"));
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
}

TEST_F(synchronisation, a_resynchronisation_scans_through_the_change_handler)
{
    start();
    set_acl("security_app", 1);
    fake::store.put(8, acl_record("security_app", 2).record.base);
    fake::store.put(8, ace_record("security_app", 2, 5).record.base);
    forget_calls();
    EXPECT_EQ(fake::store.deliver("acl", 29, nullptr), 0);
    EXPECT_EQ(fake::store.deliver("ace", 29, nullptr), 0);
    EXPECT_EQ(fake::store.take(),
              (lines{"scan 8 acl[security_app,0] 1 'scan acl'", "scan 8 ace[security_app,0,0] 1 'scan ace'"}));
    EXPECT_EQ(app.take(), (lines{"acl change security_app/2 0", "ace change security_app/2/5 0"}));
    EXPECT_NE(cached_acl("security_app", 1), nullptr) << "nothing is removed";
    EXPECT_NE(cached_ace("security_app", 2, 5), nullptr);

    fake::log.kept.clear();
    fake::store.script["scan"] = {3, 3};
    EXPECT_EQ(fake::store.deliver("acl", 29, nullptr), 0);
    EXPECT_EQ(fake::log.kept.at(0).func, "fp_udp_acl_data_check");
    EXPECT_EQ(fake::store.deliver("ace", 29, nullptr), 0);
    EXPECT_EQ(fake::log.kept.at(1).func, "fp_udp_ace_data_check");
    EXPECT_EQ(fake::log.take("E"), (lines{"E scan acl entry fail.\n", "E scan ace entry fail.\n"}));
    fake::store.script["scan"] = {3};
    const fp_udp_acl_handler handler = application::handler();
    fp_udp_register_acl_handler(&context, 5, &handler);
    EXPECT_EQ(fake::log.kept.at(0).func, "fp_udp_cache_all_secu_acl_info");
}

TEST_F(synchronisation, exhausted_memory_skips_the_entry)
{
    start();
    acl_record acl("security_app", 4);
    ace_record ace("security_app", 4, 1);
    const auto says = [](auto deliver, int32_t result, const lines &messages) {
        const fake::failing_allocation fail(1);
        EXPECT_EQ(deliver(), result);
        EXPECT_EQ(fake::log.take("E"), messages);
    };
    const lines no_acl = {"E malloc for acl node fail.", "E udp add acl to db fail"};
    says([&] { return acl_event(4, acl); }, 0, no_acl);
    says([&] { return ace_event(4, ace); }, -1,
         {"E can find acl while add ace, app_type:security_app acl_id:4 sn:1\n", "E udp add ace to db fail", no_acl[0],
          no_acl[1]});
    EXPECT_EQ(app.take(), lines{"acl change security_app/4 0"});
    acl_event(4, acl);
    says([&] { return ace_event(4, ace); }, 0, {"E malloc for ace node fail.", "E udp add ace to db fail"});
}

} // namespace
