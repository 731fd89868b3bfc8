// Start-up: the registration of types, topics and callbacks, and the operation table.
#include <filesystem>
#include <fstream>
#include <support/application.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

class registration : public library_case {
  protected:
    static int32_t register_handler(const fp_udp_acl_handler &handler, uint32_t db = 5)
    {
        return fp_udp_register_acl_handler(&context, db, &handler);
    }
};

// What a registration of two types with every callback asks of the store, in order.
const lines connection = {"connect 8"};
const lines scans = {"scan 8 acl[security_app,0] 1 'scan acl'", "scan 8 ace[security_app,0,0] 1 'scan ace'"};
const lines acl_changes = {"subscribe 8 acl[security_app,0] 1 0"};
const lines ace_changes = {"subscribe 8 ace[security_app,0,0] 1 0"};
const lines ace_statuses = {"subscribe 5 ace_psta[b_app,0,0] 1 0", "subscribe 5 ace_psta[a_app,0,0] 1 0"};
const lines apply_statuses = {"subscribe 5 apply_psta[b_app,0,,0,0,0] 1 0",
                              "subscribe 5 apply_psta[a_app,0,,0,0,0] 1 0"};
const lines counters = {"subscribe 5 ace_counter[b_app,0,0] 1 0", "subscribe 5 ace_counter[a_app,0,0] 1 0"};
const lines service_nodes = {"subscribe 5 service_node[0,0,0] 0 0"};

lines operator+(lines a, const lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(registration, each_callback_brings_its_subscriptions)
{
    fp_udp_register_app_type("b_app");
    fp_udp_register_app_type("a_app");
    const fp_udp_acl_handler all = application::handler();
    fp_udp_acl_handler acl_only{}, ace_only{}, rest{};
    acl_only.acl_change_cb = all.acl_change_cb;
    ace_only.ace_change_cb = all.ace_change_cb;
    rest.ace_fail_cb = all.ace_fail_cb;
    rest.apply_fail_cb = all.apply_fail_cb;
    rest.ace_counter_cb = all.ace_counter_cb;
    struct {
        const fp_udp_acl_handler &handler;
        lines calls;
    } const rows[] = {
        {rest, ace_statuses + apply_statuses + counters + service_nodes}, // no connection
        {acl_only, scans + acl_changes + service_nodes},
        {ace_only, ace_changes + service_nodes},
        {{}, service_nodes},
        {all, scans + acl_changes + ace_changes + ace_statuses + apply_statuses + counters + service_nodes},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(register_handler(row.handler), 0);
        EXPECT_EQ(fake::store.take(), row.calls);
        EXPECT_EQ(g_req_para.handler->acl_change_cb, row.handler.acl_change_cb) << "the copy is new every time";
    }
    EXPECT_EQ(fake::log.take("E"), lines{});
    EXPECT_EQ(fake::clock.inserted.size(), 2U) << "timers start once";
}

TEST_F(registration, set_up_happens_once)
{
    EXPECT_EQ(register_handler(application::handler()), 0);
    EXPECT_EQ(fake::store.take(), connection + scans + acl_changes + ace_changes + service_nodes);
    const fp_udp_acl_table *table = fp_udp_acl_node_list;
    const size_t commands = fake::shell.commands.size();
    fp_udp_acl_info acl = make_info("my_app", 1);
    fp_udp_acldb_add_acl(&acl);
    EXPECT_EQ(register_handler(application::handler()), 0);
    EXPECT_EQ(fp_udp_acl_node_list, table);
    EXPECT_NE(cached_acl("my_app", 1), nullptr);
    EXPECT_EQ(fake::shell.commands.size(), commands);
}

TEST_F(registration, no_callback_table_or_a_refused_connection_ends_it_before_anything_exists)
{
    EXPECT_EQ(fp_udp_register_acl_handler(&context, 5, nullptr), -4);
    EXPECT_EQ(fake::store.take(), lines{});
    fake::store.script["connect"] = {3};
    EXPECT_EQ(register_handler(application::handler()), -1);
    EXPECT_EQ(fake::log.take(), lines{"E sync connect db fail.\n"});
    EXPECT_EQ(fake::store.take(), connection);
    EXPECT_EQ(fake::shell.opened, "");
    EXPECT_EQ(fake::clock.inserted, lines{});
    EXPECT_EQ(register_handler(application::handler()), 0) << "and may be tried again";
}

TEST_F(registration, a_refused_service_node_subscription_is_the_result_and_the_next_one_connects_and_subscribes_again)
{
    fake::store.script = {{"subscribe", {0, 0, 9}}};
    EXPECT_EQ(register_handler(application::handler()), 9);
    EXPECT_EQ(fake::log.take("E"), lines{"E service_node_subscribe fail. rv = 9."});
    fp_udp_acl_info acl = make_info("my_app", 1);
    fp_udp_acldb_add_acl(&acl);
    fake::store.take();
    EXPECT_EQ(register_handler(application::handler()), 0);
    EXPECT_EQ(fake::store.take(), connection + scans + acl_changes + ace_changes + service_nodes);
    EXPECT_NE(cached_acl("my_app", 1), nullptr);
    EXPECT_EQ(fake::clock.inserted.size(), 2U);
}

TEST_F(registration, the_operation_table_has_every_slot_but_two)
{
    const fp_udp_mgr *table = fp_udp_get_mgr();
    EXPECT_EQ(fp_udp_get_mgr(), table);
    const auto *slots = reinterpret_cast<void *const *>(table);
    for (int i = 0; i < 35; i++)
        EXPECT_EQ(slots[i] == nullptr, i == 20 || i == 21) << i;
}

TEST_F(registration, fifty_types_are_kept_in_order_each_once)
{
    const std::string tall(32, 'x'), taller(33, 'x');
    EXPECT_EQ(fp_udp_register_app_type(nullptr), -1);
    EXPECT_EQ(fp_udp_register_app_type(taller.c_str()), -1);
    EXPECT_EQ(fake::log.take(), (lines{"E invalid app_type.\n", "E invalid app_type.\n"}));
    {
        fake::failing_allocation fail(1);
        EXPECT_EQ(fp_udp_register_app_type("a"), -1);
        EXPECT_EQ(fake::log.take(), lines{"E regist_app_type malloc fail, app_type = a \n"});
    }
    EXPECT_EQ(fp_udp_register_app_type(""), 0);
    EXPECT_EQ(fp_udp_register_app_type(tall.c_str()), 0);
    EXPECT_EQ(fp_udp_register_app_type("A"), 0);
    for (const char *again : {"", "A"})
        EXPECT_EQ(fp_udp_register_app_type(again), 0);
    EXPECT_EQ(fake::log.take("EIN"), lines(2, "N app_type has registered,return.\n"));
    EXPECT_EQ(fp_udp_register_app_type("a"), 0);
    for (int i = 4; i < 50; i++)
        EXPECT_EQ(fp_udp_register_app_type(std::to_string(i).c_str()), 0);
    EXPECT_EQ(fake::log.take("N"), lines{});
    EXPECT_EQ(fp_udp_register_app_type("one more"), -1);
    EXPECT_EQ(fp_udp_register_app_type("A"), -1) << "the limit comes first";
    const std::string full = "N regist_app_type has reach maximum,return!.\n";
    EXPECT_EQ(fake::log.take("N"), (lines{full, full}));
    EXPECT_STREQ(regist_app_type[0], "");
    EXPECT_EQ(regist_app_type[1], tall);
    EXPECT_STREQ(regist_app_type[2], "A");
    EXPECT_STREQ(regist_app_type[3], "a");
    EXPECT_STREQ(regist_app_type[49], "49");
}

TEST_F(registration, three_tables_are_topics_and_the_first_refusal_ends_it)
{
    const std::string who = fake::format(" %p 7 me", static_cast<void *>(&context));
    const lines calls = {"init" + who, "topic" + who + " acl[,0] 0", "topic" + who + " ace[,0,0] 0",
                         "topic" + who + " apply[,0,,0,0,0] 0"};
    const std::string messages[] = {"E me cgst init fail.\n", "E libcgstctrl_acl_reg fail. rv[6]",
                                    "E libcgstctrl_ace_reg fail. rv[6]", "E libcgstctrl_apply_reg fail. rv[6]"};
    for (size_t refused = 0; refused <= 4; refused++) {
        fake::topics.script.assign(refused, 0);
        fake::topics.script.push_back(6);
        EXPECT_EQ(fp_udp_cgst_register(&context, 7, "me"), refused < 4 ? -17 : 0);
        EXPECT_EQ(std::exchange(fake::topics.calls, {}),
                  lines(calls.begin(), calls.begin() + static_cast<long>(std::min<size_t>(refused + 1, 4))));
        EXPECT_EQ(fake::log.take(), refused < 4 ? lines{messages[refused]} : lines{});
    }
    EXPECT_EQ(fp_udp_cgst_register(nullptr, 7, "me"), -4);
    EXPECT_EQ(fp_udp_cgst_register(&context, 7, nullptr), -4);
    EXPECT_EQ(fake::log.take(), (lines{"E para error.\n", "E para error.\n"}));
    EXPECT_EQ(fake::topics.calls, lines{});
}

// A directory of this process alone in the place of /etc/plx_dbg.
class level_files : public library_case {
  protected:
    level_files() { std::filesystem::create_directories(root + "/etc"); }
    ~level_files() override { std::filesystem::remove_all(root); }

    // The level after a start with 2 before it.
    uint32_t level()
    {
        g_policy_plx_zlog_level = 2;
        EXPECT_EQ(plx_initial(), 0);
        return g_policy_plx_zlog_level;
    }
    const std::string root = testing::TempDir() + process;
    const fake::led_elsewhere etc{"/etc/plx_dbg/", root + "/etc/"};
};

TEST_F(level_files, a_level_is_taken_from_1_to_5_and_is_1_otherwise)
{
    EXPECT_EQ(level(), 2U) << "there is no file";
    const std::pair<std::string, uint32_t> rows[] = {{"5", 5},
                                                     {"3\n", 3},
                                                     {" 4 of 5", 4},
                                                     {"", 2},
                                                     {"0", 1},
                                                     {"6", 1},
                                                     {"-3", 1},
                                                     {"level", 1},
                                                     {"\n", 1},
                                                     {"99999999999999999999999", 1},
                                                     {std::string(300, '0') + "5", 5},
                                                     {std::string(301, '0') + "5", 1}}; // 301 bytes are read
    for (const auto &[text, expected] : rows) {
        std::ofstream(root + "/etc/" + process) << text;
        EXPECT_EQ(level(), expected) << text;
    }
}

TEST_F(level_files, the_process_has_its_own_file_before_the_common_one)
{
    std::ofstream(root + "/etc/plx") << "4";
    EXPECT_EQ(level(), 4U);
    std::ofstream(root + "/etc/" + process) << "";
    EXPECT_EQ(level(), 2U) << "an empty file of its own is its own";
    std::ofstream(root + "/secret") << "5";
    prctl(PR_SET_NAME, "../secret");
    EXPECT_EQ(level(), 4U) << "a name does not leave the directory";
}

TEST_F(level_files, without_a_log_no_file_is_read)
{
    std::ofstream(root + "/etc/plx") << "4";
    fake::log.opens = false;
    EXPECT_EQ(level(), 2U);
    EXPECT_EQ(g_policy_plx_zlog_category, nullptr);
    fake::log.opens = true;
    EXPECT_EQ(level(), 4U);
    EXPECT_EQ(fake::log.category, "policy_plx");
    EXPECT_EQ(g_policy_plx_zlog_category, &fake::log);
    EXPECT_EQ(fake::log.take(), lines{"I plx zlog ready!\n"});
}

TEST_F(level_files, the_process_name_comes_from_its_status_file)
{
    const std::string status = fake::format("/proc/%d/status", getpid());
    char name[100] = "untouched";
    EXPECT_EQ(fp_udp_dbg_get_proc_name(name), 0);
    EXPECT_EQ(name, process);
    std::ofstream(root + "/status") << "Name:\t" + std::string(200, 'x') + "\n";
    const fake::led_elsewhere proc(status, root + "/status");
    EXPECT_EQ(fp_udp_dbg_get_proc_name(name), 0);
    EXPECT_EQ(name, std::string(93, 'x')) << "99 characters of the line";
    std::filesystem::resize_file(root + "/status", 0);
    EXPECT_EQ(fp_udp_dbg_get_proc_name(name), -1);
    EXPECT_EQ(plx_initial(), -1);
    EXPECT_EQ(fp_udp_op_log_init(), -1);
    EXPECT_EQ(fake::log.take("E"), lines{"E fp_udp_op_log_init fail.\n"});
    std::filesystem::remove(root + "/status");
    name[0] = '\0';
    EXPECT_EQ(fp_udp_dbg_get_proc_name(name), 0);
    EXPECT_STREQ(name, "");
}

} // namespace
