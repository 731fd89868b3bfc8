// The debug commands: their registration, the saved switch, and what each prints.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <support/application.h>

namespace {

class commands : public library_case {
  protected:
    commands() { snprintf(lib_plx_debug_path, 64, "%s", saved.c_str()); }
    ~commands() override { std::filesystem::remove(saved); }

    static ssat_value number(int32_t d) { return {.d = d}; }
    static ssat_value text(const char *s) { return {.s = s}; }
    static std::string run(const std::string &name, const std::vector<ssat_value> &arguments = {})
    {
        return printed([&] { EXPECT_EQ(fake::shell.run(name, arguments), 0) << name; });
    }
    const std::string saved = testing::TempDir() + process + ".sw";
};

TEST_F(commands, nine_commands_are_plugged_into_the_processs_shell)
{
    start();
    EXPECT_EQ(fake::shell.opened, process + ".fp");
    EXPECT_EQ(fake::shell.context, &context);
    lines seen;
    for (const auto &command : fake::shell.commands) {
        EXPECT_EQ(command.module, process + ".fp");
        seen.push_back(command.name + ": " + command.description);
    }
    EXPECT_EQ(seen,
              (lines{"fp_udp_set_sw: dbg_flags=%x, $n", "fp_udp_debug_on: open debug", "fp_udp_debug_off: close debug",
                     "fp_udp_debug_save: save debug switch", "fp_udp_debug_show: show debug status",
                     "fp_udp_dump_acl: app_type=%s, acl_id=%d, $n", "fp_udp_refer_all_app_type: $n",
                     "fp_udp_dump_service_node: $n", "fp_udp_at_set_zlog_level: level=%d"}));
}

TEST_F(commands, failures_leave_the_library_without_commands)
{
    fp_udp_debug_sw = 0x4;
    printed([] { fp_udp_at_reg_init(nullptr); });
    EXPECT_EQ(fake::log.take().at(0).find("E g_ssd_fp_global = (nil), module = 0x"), 0U);
    fake::shell.openings = {3};
    printed([] { fp_udp_at_reg_init(&context); });
    EXPECT_EQ(fake::log.take(), lines{"E ssat lib init fail"});
    EXPECT_TRUE(fake::shell.commands.empty());
    EXPECT_EQ(fp_udp_debug_sw, 0x4U);
    std::ofstream(saved + ".status");
    const fake::led_elsewhere proc(fake::format("/proc/%d/status", getpid()), saved + ".status");
    fp_udp_at_reg_init(&context);
    EXPECT_EQ(fake::log.take("E"), lines{"E ssat get proc name fail"});
    EXPECT_EQ(fake::shell.opened, ".fp");
    std::filesystem::remove(saved + ".status");
}

TEST_F(commands, the_switch_is_set_shown_saved_and_found_again)
{
    EXPECT_EQ(std::string(lib_plx_debug_path, 8), saved.substr(0, 8));
    const uint32_t bits[] = {0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100};
    EXPECT_EQ(memcmp(lib_plx_dbg_flag, bits, sizeof bits), 0);
    fp_udp_debug_sw = 77;
    start();
    EXPECT_EQ(fp_udp_debug_sw, 0U) << "no file";
    run("fp_udp_set_sw", {number(0x1200)});
    EXPECT_EQ(fp_udp_debug_sw, 0x1200U);
    run("fp_udp_debug_on");
    EXPECT_EQ(run("fp_udp_debug_show"), fake::format("debug_sw:%d.\n", 0x13FF));
    run("fp_udp_debug_off");
    EXPECT_EQ(fp_udp_debug_sw, 0x1200U);
    run("fp_udp_set_sw", {number(0)});
    run("fp_udp_debug_on");
    run("fp_udp_debug_save");
    std::string text;
    std::getline(std::ifstream(saved), text);
    EXPECT_EQ(text, "511");
    const std::pair<const char *, uint32_t> rows[] = {{"511", 0x1FF},     {"", 0},     {"16\n32", 16},
                                                      {"-1", 0xFFFFFFFF}, {"0x1F", 0}, {"none", 0}};
    for (const auto &[content, expected] : rows) {
        std::ofstream(saved) << content;
        fp_udp_debug_sw = 77;
        printed([] { fp_udp_at_reg_init(&context); });
        EXPECT_EQ(fp_udp_debug_sw, expected) << content;
    }
    fp_udp_debug_sw = 0;
    snprintf(lib_plx_debug_path, 64, "/nowhere/at/all");
    EXPECT_EQ(run("fp_udp_debug_save"), "");
}

TEST_F(commands, the_log_level_is_set_from_0_to_5)
{
    start();
    for (int32_t level : {0, 5, 3}) {
        EXPECT_EQ(run("fp_udp_at_set_zlog_level", {number(level)}), fake::format("zlog level change to %d.\n", level));
        EXPECT_EQ(g_policy_plx_zlog_level, static_cast<uint32_t>(level));
    }
    for (int32_t level : {6, -1})
        EXPECT_EQ(run("fp_udp_at_set_zlog_level", {number(level)}),
                  "invalid level input! g_policy_plx_zlog_level:3.\n");
    EXPECT_EQ(printed([] { EXPECT_EQ(fp_udp_at_set_zlog_level(4), 0); }), "zlog level change to 4.\n");
}

TEST_F(commands, a_dump_shows_an_acl_with_its_entries_and_applies)
{
    start();
    set_acl("my_app", 4);
    set_ace("my_app", 4, 0xABC);
    set_apply("my_app", 4, "b_app", 0x101, 9);
    heartbeat(1);
    answer_apply("my_app", 4, "b_app", 0x101, 9, 3, now());
    const std::string dump = run("fp_udp_dump_acl", {text("my_app"), number(4)});
    EXPECT_EQ(dump, "\n>>acl info\n"
                    "    app_type : my_app                , acl_id : 4   , stat : 0 , uuid : 1000000000\n"
                    "    >>ace info\n"
                    "        sn : 0xabc             , def : 0 , stat : 0 , uuid : 1000000000\n"
                    ", is_req : true,  req_count: 0   \n"
                    "    >>apply info\n"
                    "        KEY={apply_type : b_app                 , phyid : 0x101     , pri : 9       }, "
                    "VALUE={pri : 9       , stat : 3 , uuid : 1000000000}\n"
                    ", is_req : true,  req_count: 0   \n");
}

TEST_F(commands, a_dump_takes_all_a_type_or_one)
{
    start();
    for (const char *type : {"my_app", "security_app"})
        for (uint32_t id : {4U, 5U})
            set_acl(type, id);
    set_ace("security_app", 5, 1);
    set_acl("all", 9);
    struct {
        const char *type;
        int32_t id;
        size_t acls;
    } const rows[] = {{"all", 0, 5},    {"all", 77, 5},  {"my_app", 0, 2}, {"my_app", 5, 1},
                      {"my_app", 9, 0}, {"my_ap", 0, 0}, {"ALL", 0, 0},    {"", 0, 0}};
    for (const auto &row : rows) {
        const std::string dump = run("fp_udp_dump_acl", {text(row.type), number(row.id)});
        size_t acls = 0;
        for (size_t at = 0; (at = dump.find("\n>>acl info\n", at)) != std::string::npos; at++)
            acls++;
        EXPECT_EQ(acls, row.acls) << row.type << row.id;
    }
    EXPECT_NE(run("fp_udp_dump_acl", {text("my_app"), number(4)}).find("    >>ace info\n    >>apply info\n"),
              std::string::npos);
    EXPECT_NE(run("fp_udp_dump_acl", {text("security_app"), number(5)}).find(", is_req : false, req_count: 0   \n"),
              std::string::npos);
    EXPECT_EQ(run("fp_udp_dump_acl", {text(nullptr), number(0)}), "");
    fake::log.take();
    EXPECT_EQ(run("fp_udp_dump_acl", {text(std::string(32, 'x').c_str()), number(0)}), "");
    EXPECT_EQ(fake::log.take("E"), lines{"E app_type is invalid"});
}

TEST_F(commands, types_and_service_nodes_are_listed)
{
    start(application::handler(), {"b_app", "a_app"});
    EXPECT_EQ(run("fp_udp_refer_all_app_type"),
              "----All the app type your process own refer below----\n    b_app\n    a_app\n");
    heartbeat(1, 2, 34567);
    fake::clock.now_us += 16'000'000;
    heartbeat(100, 0, 0);
    EXPECT_EQ(run("fp_udp_dump_service_node"), "---dump service node---\nDEV  SLOT    PID      UP_TIME\n"
                                               "  1     2  34567  0x    f4240(ms)\n"
                                               "100     0      0  0x    f80c0(ms)\n"
                                               "service node num: 2\n");
}

} // namespace
