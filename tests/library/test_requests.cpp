// Pending requests, their ageing and timers, and the service nodes whose number decides outcomes. That requests keep
// their order, and what becomes of them when service nodes come and go, is the model's to tell.
#include "records.h"

namespace {

class requests : public library_case {
  protected:
    requests()
    {
        start();
        set_acl("security_app", 4);
        set_ace("security_app", 4, 1, 40);
        set_apply("security_app", 4, "my_app", 0x101, 9, 50);
        ace = cached_ace("security_app", 4, 1);
        apply = cached_apply("security_app", 4, "my_app", 0x101, 9);
        forget_calls();
    }
    fp_udp_ace_node *ace;
    fp_udp_apply_node *apply;
};

const std::string ace_ok = "ace ok security_app/4/1 <40:32>", ace_fail = "ace fail security_app/4/1 ",
                  apply_ok = "apply ok security_app/4@my_app/101/9/0 <50:32>",
                  apply_fail = "apply fail security_app/4@my_app/101/9/0 ";

TEST_F(requests, registration_starts_both_timers_on_the_contexts_master)
{
    EXPECT_EQ(fake::clock.inserted, (lines{"fp_udp_api 0s 15000000us", "fp_udp_api 0s 10000000us"}));
    for (const fake::timer &timer : fake::clock.timers)
        EXPECT_EQ(timer.master, context.master);
    EXPECT_EQ(fake::clock.timers.front().handle, &g_service_expire_thread);
    EXPECT_EQ(fake::clock.timers.back().handle, &g_req_check_thread);
    EXPECT_EQ(g_req_para.g_ssd_fp_global, &context);
    EXPECT_EQ(g_req_para.handler->ace_reply_ok_cb, application::handler().ace_reply_ok_cb);
}

TEST_F(requests, timers_insert_themselves_again_whatever_becomes_of_it)
{
    fake::clock.inserted.clear();
    fake::clock.insertions = {0, 0, 7}; // 10 s, 15 s, 20 s
    fake::clock.advance_seconds(31);
    EXPECT_EQ(fake::clock.inserted.size(), 4U) << "10, 15, 20 (refused) and 30 seconds";
    EXPECT_EQ(fake::log.take("E"), lines{});
}

TEST_F(requests, only_a_refused_first_insertion_is_reported)
{
    fake::clock.insertions = {7, 8, 5, 6};
    EXPECT_EQ(fp_udp_expire(), 7);
    EXPECT_EQ(fp_udp_req_check(), 8);
    EXPECT_EQ(fake::log.take(), (lines{"E set expire timer failed. rv = 7", "E set req_check timer failed. rv = 8"}));
    const fp_udp_acl_handler handler{};
    EXPECT_EQ(fp_udp_req_init(&context, &handler), 6);
    fp_udp_req_init(&context, &handler);
    EXPECT_EQ(pending(), 0U);
}

TEST_F(requests, only_entries_and_applies_can_wait)
{
    for (auto [type, node] : {std::pair<uint8_t, void *>{0, ace}, {3, ace}, {1, nullptr}, {2, nullptr}}) {
        EXPECT_EQ(fp_udp_req_node_add(type, node), -4);
        EXPECT_EQ(fp_udp_req_node_del(type, node), -4);
        EXPECT_EQ(fake::log.take(), lines(2, fake::format("E input para error, type %d.", type)));
    }
    EXPECT_EQ(fp_udp_ace_req_stat_proc(nullptr, 0, 0), -4);
    EXPECT_EQ(fp_udp_apply_req_stat_proc(nullptr, 0, 0), -4);
    EXPECT_EQ(fake::log.take(), (lines{"E ace_node is NULL.", "E apply_node is NULL."}));
    EXPECT_EQ(pending(), 2U);
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(fp_udp_req_node_del(FP_UDP_REQ_ACE, ace), 0) << "waiting or not";
}

// One step of status processing, from the counts before to what is heard.
TEST_F(requests, outcomes_follow_the_answers)
{
    struct {
        const char *what;
        int32_t nodes;
        uint8_t req_count, is_req;
        int32_t stat, status, final;
        char outcome; // '+' success, '-' failure, ' ' none
        uint8_t count_after, is_req_after;
        int32_t stat_after; // which a failure reports
    } const rows[] = {
        {"the first success suffices without service nodes", 0, 0, 0, 0, 0, 0, '+', 1, 1, 0},
        {"the first of two waits", 2, 0, 0, 0, 0, 0, ' ', 1, 0, 0},
        {"the second of two completes", 2, 1, 0, 0, 0, 0, '+', 2, 1, 0},
        {"a success clears the status", 2, 1, 0, 5, 0, 0, '+', 2, 1, 0},
        {"a success after the outcome only counts", 1, 1, 1, 0, 0, 0, ' ', 2, 1, 0},
        {"150 service nodes can be waited for", 150, 149, 0, 0, 0, 0, '+', 150, 1, 0},
        {"the count wraps at 256", 255, 255, 0, 0, 0, 0, ' ', 0, 0, 0},
        {"the count wraps at 256 and meets no nodes", 0, 255, 0, 0, 0, 0, '+', 0, 1, 0},
        {"a failure ends the wait", 2, 0, 0, 0, 5, 0, '-', 0, 1, 5},
        {"a failure after the outcome is reported too", 1, 1, 1, 0, -9, 0, '-', 1, 1, -9},
        {"age is success", 2, 1, 0, 0, -9, 1, '+', 1, 1, 0},
        {"age after a failure is that failure", 2, 1, 0, 5, -9, 1, '-', 1, 1, 5},
        {"age with enough answers is success", 2, 2, 0, 5, -9, 1, '+', 2, 1, 0},
    };
    auto check = [&](auto &row, auto &info, auto step, const std::string &ok, const std::string &failed,
                     const std::string &message) {
        g_fp_service.count = row.nodes;
        info.req_count = row.req_count;
        info.is_req = row.is_req;
        info.stat = row.stat;
        app.on_event = [&](const std::string &) { // set before the callback runs
            EXPECT_EQ(std::pair(info.is_req, info.stat), std::pair(uint8_t{1}, row.stat_after)) << row.what;
        };
        EXPECT_EQ(step(), 0);
        const std::string failure = failed + std::to_string(row.stat_after) + ok.substr(ok.rfind(' '));
        EXPECT_EQ(app.take(), row.outcome == ' ' ? lines{} : lines{row.outcome == '+' ? ok : failure}) << row.what;
        EXPECT_EQ(std::tuple(info.req_count, info.is_req, info.stat),
                  std::tuple(row.count_after, row.is_req_after, row.stat_after))
            << row.what;
        EXPECT_EQ(fake::log.take("E"), row.outcome == '-' ? lines{message} : lines{});
    };
    for (const auto &row : rows) {
        const auto ace_step = [&] { return fp_udp_ace_req_stat_proc(ace, row.status, row.final); };
        const auto apply_step = [&] { return fp_udp_apply_req_stat_proc(apply, row.status, row.final); };
        check(row, ace->ace, ace_step, ace_ok, ace_fail,
              "E service node reply set ace fail! app_type:security_app acl_id:4 sn:1.\n");
        check(row, apply->apply, apply_step, apply_ok, apply_fail,
              fake::format("E reply apply failed! status:%d app:[my_app] phyid:[0x101] prior:[9] direction:[0] "
                           "acl_type:[security_app] acl_id:[4].\n",
                           row.stat_after));
    }
    EXPECT_EQ(pending(), 2U) << "processing leaves the request to its caller";
}

TEST_F(requests, without_callbacks_outcomes_are_silent)
{
    const fp_udp_acl_handler none{};
    g_req_para.handler = &none;
    for (int32_t status : {0, 5}) {
        EXPECT_EQ(fp_udp_ace_req_stat_proc(ace, status, 0), 0);
        EXPECT_EQ(fp_udp_apply_req_stat_proc(apply, status, 0), 0);
        EXPECT_EQ(std::pair(ace->ace.stat, ace->ace.is_req), std::pair(status, uint8_t{1}));
    }
    EXPECT_EQ(fake::log.take("E"), lines{});
}

TEST_F(requests, a_request_ages_at_180_whole_seconds_and_when_time_runs_backwards)
{
    ace->ace.sn = 0x500000001; // only printed here
    for (auto [us, aged] :
         {std::pair{179'999'999, false}, {180'000'000, true}, {-1, true}, {-1'000'000, true}, {0, false}}) {
        fp_udp_req_node_add(FP_UDP_REQ_ACE, ace);
        fp_udp_req_node_add(FP_UDP_REQ_APPLY, apply);
        ace->ace.is_req = 0;
        g_fp_service.count = 1;
        forget_calls();
        fake::clock.now_us += static_cast<uint64_t>(us);
        fp_udp_req_check_proc(0);
        EXPECT_EQ(pending(), aged ? 0U : 2U) << us;
        EXPECT_EQ(app.take(), aged ? (lines{"ace ok security_app/4/500000001 <40:32>", apply_ok}) : lines{});
        EXPECT_EQ(fake::log.take("E"), aged ? (lines{"E Ace aged app:[security_app] aclid:[4] sn:[1] sub_sn:[5].\n",
                                                     "E Apply aged app:[my_app] phyid:[0x101] prior:[9] "
                                                     "direction:[0].\n"})
                                            : lines{});
    }
    ace->ace.sn = 1;
}

TEST_F(requests, the_timers_pass_is_bounded_and_the_forced_one_is_not)
{
    const size_t many = 5100;
    for (uint64_t sn = 2; sn < many; sn++) // with the entry and the apply of the fixture: 5100
        set_ace("security_app", 4, sn);
    fake::clock.now_us += 180'000'000;
    fp_udp_req_check_proc(0);
    EXPECT_EQ(pending(), many - 5000);
    fp_udp_req_check_proc(0);
    EXPECT_EQ(pending(), 0U);
    for (uint64_t sn = 1; sn <= many; sn++)
        set_ace("security_app", 4, sn);
    g_fp_service.count = 1;
    for (uint64_t sn = 1; sn <= many; sn++)
        cached_ace("security_app", 4, sn)->ace.req_count = sn != 3;
    fp_udp_req_check_proc(0);
    EXPECT_EQ(pending(), many) << "answers end a request in the forced pass only";
    fp_udp_req_check_proc(1);
    EXPECT_EQ(pending(), 1U);
    EXPECT_NE(cached_ace("security_app", 4, 3)->req, nullptr);
}

TEST_F(requests, the_check_runs_every_ten_seconds)
{
    fake::clock.advance_seconds(179);
    EXPECT_EQ(pending(), 2U);
    fake::clock.advance_seconds(1);
    EXPECT_EQ(app.take(), (lines{ace_ok, apply_ok}));
    fake::clock.advance_seconds(400);
    EXPECT_EQ(app.take(), lines{}) << "an outcome is reported once";
}

TEST_F(requests, service_nodes_are_known_by_device_slot_and_id)
{
    for (int again = 0; again < 2; again++) {
        fake::clock.advance(1);
        for (auto [dev, slot, id] : {std::tuple{1U, 2U, 3U}, {1U, 2U, 4U}, {1U, 3U, 3U}, {2U, 2U, 3U}})
            EXPECT_EQ(heartbeat(dev, slot, id), 0);
    }
    EXPECT_EQ(g_fp_service.count, 4);
    fp_udp_service_node_key key{1, 2, 4};
    const fp_udp_service_node *node = fp_udp_fp_service_node_search(&key);
    EXPECT_EQ(&node->links, g_fp_service.nodes.next->next) << "first heard of first";
    EXPECT_EQ(tq_timeval_to_us(&node->up_time), now());
    key.id = 5;
    EXPECT_EQ(fp_udp_fp_service_node_search(&key), nullptr);
    fake::failing_allocation fail(1);
    EXPECT_EQ(fp_udp_fp_service_node_add(&key), -2);
    EXPECT_EQ(fake::log.take("E"), lines{"E malloc for fp node fail."});
    EXPECT_EQ(broken(), "");
}

TEST_F(requests, other_service_node_notifications_change_nothing)
{
    SPolicy__ServiceNode record = S_POLICY__SERVICE_NODE__INIT;
    const tq_mom_callback callback = fake::store.subscriptions.back().callback;
    ASSERT_EQ(fake::store.subscriptions.back().table, "service_node");
    EXPECT_EQ(callback(&context, nullptr, nullptr), 4);
    EXPECT_EQ(fake::store.deliver("service_node", 24, nullptr), 4);
    EXPECT_EQ(fake::store.deliver("service_node", 3, nullptr), 4);
    EXPECT_EQ(fake::log.take(), lines(3, "E msg para ERROR."));
    SPolicy__ServiceNodeIndex key = S_POLICY__SERVICE_NODE_INDEX__INIT;
    record.index = &key;
    for (int32_t event : {1, 3, 4, 29})
        EXPECT_EQ(fake::store.deliver("service_node", event, &record.base), 0);
    record.index = nullptr;
    fake::store.deliver("service_node", 24, &record.base); // hostile: any result, no node
    const acl_record foreign("a", 1);
    fake::store.deliver("service_node", 24, &foreign.record.base);
    EXPECT_EQ(g_fp_service.count, 0);
}

TEST_F(requests, a_service_node_silent_for_more_than_19_seconds_is_dropped)
{
    for (auto [us, dropped] : {std::pair{19'999'999, false}, {20'000'000, true}, {-1, true}, {0, false}}) {
        heartbeat(1, 2, 3);
        forget_calls();
        fake::clock.now_us += static_cast<uint64_t>(us);
        fp_udp_fp_service_node_expire();
        EXPECT_EQ(g_fp_service.count, !dropped) << us;
        lines reports = fake::log.take("E");
        reports.resize(std::min<size_t>(reports.size(), 1));
        EXPECT_EQ(reports, dropped ? lines{"E service node expired:dev[1] slot[2] id[3] might be wrong with fe.fp "
                                           "or lc offline. The current total number of service node is: 0\n"}
                                   : lines{});
    }
}

} // namespace
