// Port and interface state, and commit markers: what is written, what is answered, and each failure's own text.
#include "records.h"

namespace {

class port_state : public library_case {
  protected:
    port_state() { put_priv(uplink.priv, sizeof uplink.priv, 40); }
    std::string uuid() const { return " req_uuid=" + std::to_string(now()); }
    fp_udp_uplink uplink{0x101, 2, {}};
};

// A setting with its status record.
struct setting {
    const char *what;
    std::function<int32_t(bool on)> run; // 0 where the operation has no result
    std::string on_detail, off_detail, record, status, fields, status_fields;
    std::string on_failed, on_status_failed, off_failed, off_status_failed;
    std::string ok, failed; // the callbacks
    bool has_result;
};

TEST_F(port_state, a_setting_is_written_and_removed_with_its_status)
{
    start();
    const setting rows[] = {
        {"port",
         [&](bool on) { return on ? mgr->set_port_disable(&context, 0x101) : mgr->del_port_disable(&context, 0x101); },
         "D port off, phyid : 0x101\n", "D port off del, phyid : 0x101\n", "port_off[257]", "port_off_psta[257]",
         " 6,7 c_status=0" + uuid(), " 6,7 p_status=0 rep_uuid=0", "E port disable hmset failed.\n",
         "E port disable pstate hmset failed.\n", "E port disable del failed.\n", "E port disable pstate del failed.\n",
         "port ok 101", "port fail 101 3", true},
        {"svi", [&](bool on) { return mgr->svi_router_enable(&context, uplink.priv, on); }, "D svi router enable : 1\n",
         "D svi router enable : 0\n", "svi_router[]", "svi_router_psta[]",
         " 5,6,7 c_status=0" + uuid() + " priv=<40:8>", " 5,6 p_status=0 rep_uuid=0",
         "E svi router entry hmset failed.\n", "E svi router pstate entry hmset failed.\n",
         "E svi router entry del failed.\n", "E svi router pstate entry del failed.\n", "svi ok <40:8>",
         "svi fail 3 <40:8>", true},
        {"uplink",
         [&](bool on) {
             mgr->uplink_enable(&context, &uplink, on);
             return 0;
         },
         "D uplink info, phyid : 0x101, type : 2\n", "D uplink info, phyid : 0x101, type : 2\n", "uplink[257,2]",
         "uplink_psta[257,2]", " 6,7,8 c_status=0" + uuid() + " priv=<40:8>", " 6,7 p_status=0 rep_uuid=0",
         "E uplink entry hmset failed.\n", "E uplink entry hmset failed.\n", "E uplink entry del failed.\n",
         "E uplink pstate entry del failed.\n", "uplink ok 101 2 <40:8>", "uplink fail 101 2 3 <40:8>", false},
    };
    for (const setting &row : rows) {
        for (auto [one, two] : {std::pair{0, 0}, {0, 4}, {3, 0}, {3, 4}}) {
            for (bool heard : {true, false}) {
                const fp_udp_acl_handler handler = heard ? application::handler() : fp_udp_acl_handler{};
                fp_udp_register_acl_handler(&context, 5, &handler);
                forget_calls();
                app.result = 12;
                fake::store.script = {{"hmset", {one, two}}, {"del", {one, two}}};
                const int32_t set = row.run(true);
                EXPECT_EQ(set, !row.has_result ? 0 : heard ? 12 : two) << row.what;
                EXPECT_EQ(app.take(), heard ? lines{one ? row.failed : row.ok} : lines{}) << row.what;
                EXPECT_EQ(fake::store.take(),
                          (lines{"hmset 5 " + row.record + row.fields, "hmset 5 " + row.status + row.status_fields}));
                EXPECT_EQ(fake::log.take(), said(said({row.on_detail}, one, row.on_failed), two, row.on_status_failed));

                const int32_t removed = row.run(false);
                EXPECT_EQ(removed == 0, two == 0 || !row.has_result) << row.what;
                EXPECT_EQ(app.take(), lines{});
                EXPECT_EQ(fake::store.take(), (lines{"del 5 " + row.record, "del 5 " + row.status}));
                EXPECT_EQ(fake::log.take(),
                          said(said({row.off_detail}, one, row.off_failed), two, row.off_status_failed));
            }
        }
    }
}

TEST_F(port_state, a_missing_uplink_writes_nothing_and_missing_private_bytes_are_zero)
{
    start();
    for (uint32_t on : {0U, 1U})
        mgr->uplink_enable(&context, nullptr, on);
    EXPECT_EQ(fake::log.take(), lines(2, "E uplink enable invalid para.\n"));
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(app.take(), lines{});
    fp_udp_acl_handler none{};
    fp_udp_register_acl_handler(&context, 5, &none);
    EXPECT_EQ(mgr->svi_router_enable(&context, nullptr, 1), 0);
}

TEST_F(port_state, rewrites_bracket_whole_tables)
{
    start();
    struct {
        int32_t (*fp_udp_mgr::*operation)(void *);
        std::string call, record, text;
    } const rows[] = {
        {&fp_udp_mgr::expire_uplink, "dsbegin", "uplink", "E Expire uplink "},
        {&fp_udp_mgr::del_expire_uplink, "dsend", "uplink", "E Expire del uplink "},
        {&fp_udp_mgr::expire_svi_router_enable, "dsbegin", "svi_router", "E Expire svi router "},
        {&fp_udp_mgr::del_expire_svi_router_enable, "dsend", "svi_router", "E Expire del svi router "},
    };
    for (const auto &row : rows) {
        for (auto [one, two] : {std::pair{0, 0}, {3, 0}, {0, 4}, {3, 4}}) {
            forget_calls();
            fake::store.script[row.call] = {one, two};
            fake::store.marks = {"5 uplink[", "5 uplink_psta[", "5 svi_router[", "5 svi_router_psta["};
            EXPECT_EQ((mgr->*row.operation)(&context) == 0, two == 0);
            const std::string key = row.record == "uplink" ? "[0,0] 0 1000" : "[] 0 1000";
            EXPECT_EQ(fake::store.take(),
                      (lines{row.call + " 5 " + row.record + key, row.call + " 5 " + row.record + "_psta" + key}));
            EXPECT_EQ(fake::log.take(), said(said({}, one, row.text + "fail.\n"), two, row.text + "pstate fail.\n"));
        }
    }
}

TEST_F(port_state, a_binding_is_checked_and_written_whole)
{
    start();
    const std::string record = "port_bindinfo[my_app,6,257,3,9]";
    for (int result : {0, 7}) {
        fake::store.script = {{"set", {result}}, {"del", {result}}};
        EXPECT_EQ(mgr->set_port_bindinfo(&context, "my_app", 6, 0x101, 3, 9), result);
        EXPECT_EQ(mgr->del_port_bindinfo(&context, "my_app", 6, 0x101, 3, 9), result);
        EXPECT_EQ(fake::store.take(), (lines{"set 5 " + record + uuid(), "del 5 " + record}));
        const std::string detail = "D port bindinfo, app_type: my_app, acl_cls: 6, phyid: 0x101, bind_type: ";
        lines messages{detail + "3, bind_ind: 9.\n", detail + "9, bind_ind: 3.\n"}; // reversed, and meant
        if (result != 0)
            messages = {messages[0], "E port bindinfo set failed, rv: 7, db: 5.\n", messages[1],
                        "E port bindinfo del failed, rv: 7, db: 5.\n"};
        EXPECT_EQ(fake::log.take("ED"), messages);
    }
    EXPECT_EQ(app.take(), lines{});
    for (auto [cls, type] : {std::pair{7U, 1U}, {6U, 0U}, {6U, 4U}, {0xFFFFFFFFU, 1U}, {0U, 0xFFFFFFFFU}}) {
        const std::string message =
            fake::format("E error paras acl_cls: %d, bind_type: %d.\n", static_cast<int>(cls), static_cast<int>(type));
        forget_calls();
        EXPECT_EQ(mgr->set_port_bindinfo(&context, "my_app", cls, 1, type, 1), -4);
        EXPECT_EQ(mgr->del_port_bindinfo(&context, "my_app", cls, 1, type, 1), -4);
        EXPECT_EQ(fake::log.take(), lines(2, message));
        EXPECT_EQ(fake::store.take(), lines{});
    }
    EXPECT_EQ(mgr->set_port_bindinfo(&context, "my_app", 0, 1, 1, 1), 0);
    EXPECT_EQ(mgr->del_port_bindinfo(&context, "my_app", 0, 1, 1, 1), 0);
}

TEST_F(port_state, commit_markers_are_written_and_removed)
{
    start();
    struct {
        std::function<int32_t(const char *)> run;
        std::string call, detail, failed;
    } const rows[] = {
        {[&](const char *type) { return mgr->enable_app_commit(&context, type, 60); },
         "set 5 app_commit[my_app,0] tm_val=60", "D app commmit enable, app_type: my_app.\n",
         "E app commit enable hset failed, rv: 7, db: 5.\n"},
        {[&](const char *type) { return mgr->publish_app_commit(&context, type); },
         "set 5 app_commit[my_app,1] tm_val=0", "D app commmit, app_type: my_app.\n",
         "E app commit set failed, rv: 7, db: 5.\n"},
        {[&](const char *type) { return mgr->disable_app_commit(&context, type); }, "del 5 app_commit[my_app,0]",
         "D app commmit disable, app_type: my_app.\n", "E app commmit enable del failed, rv: 7, db: 5.\n"},
    };
    for (const auto &row : rows) {
        for (int result : {7, 0}) {
            fake::store.script = {{"set", {result}}, {"del", {result}}};
            EXPECT_EQ(row.run("my_app"), result);
            EXPECT_EQ(fake::store.take(), lines{row.call});
            EXPECT_EQ(fake::log.take(), said({row.detail}, result, row.failed));
        }
        row.run(std::string(100, 'x').c_str()); // the name is not checked
        EXPECT_EQ(fake::store.take().size(), 1U);
        row.run(nullptr);
        fake::log.take();
        fake::store.take();
    }
    EXPECT_TRUE(fake::store.holds(5, "app_commit[my_app,1]"));
    EXPECT_FALSE(fake::store.holds(5, "app_commit[my_app,0]"));
    for (uint32_t seconds : {61U, 0xFFFFFFFFU}) {
        EXPECT_EQ(mgr->enable_app_commit(&context, "my_app", seconds), -4);
        EXPECT_EQ(fake::log.take(),
                  lines{fake::format("E error paras tm_val: %d s < 0.\n", static_cast<int>(seconds))});
    }
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(app.take(), lines{});
}

} // namespace
