// Awkward moments: callbacks that write and free, memory that ends, links in the way, nulls.
#include "records.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fake::format;

class awkward : public operations_case {
  protected:
    // Three requests that wait: entries 1 and 2 of an ACL, and an apply of it.
    void write_three()
    {
        for (uint64_t sn = 1; sn <= 2; sn++)
            set_ace("security_app", 4, sn);
        set_apply("security_app", 4, "my_app", 7);
    }
    // What an ageing pass tells.
    size_t told(int32_t force = 0)
    {
        app.take();
        fp_udp_req_check_proc(force);
        return app.take().size();
    }
};

// Each time from tables that have yet to grow.
TEST_F(awkward, a_node_that_its_table_has_no_room_for_is_refused_and_nothing_is_left)
{
    start();
    const fp_udp_acl_info acl = make_info("my_app", 1), other = make_info("my_app", 2);
    const fp_udp_ace_info ace = make_ace_info(7);
    const fp_udp_apply_info apply = make_apply_info("my_app", 7);
    fp_udp_ace_node *entry;
    fp_udp_apply_node *binding;
    const std::string no_acl = "E malloc for acl node fail.", no_acl_room = "E insert acl node fail.",
                      no_room = "E insert apply node fail";
    const std::pair<std::function<int32_t()>, lines> rows[] = {
        {[&] { return fp_udp_acldb_add_acl(&other); }, {no_acl, no_acl_room, no_acl_room}},
        {[&] { return fp_udp_acldb_add_ace(&acl, &ace, &entry); },
         {"E malloc for ace node fail.", "E insert ace node fail", "E insert ace node fail"}},
        {[&] { return fp_udp_acldb_add_apply(&other, &apply, &binding); },
         {no_acl, no_acl_room, no_acl_room, no_acl, no_room, no_room}},
    };
    for (const auto &[add, messages] : rows)
        for (size_t n = 0; n < messages.size(); n++)
            EXPECT_EQ(in_child([&, &add = add] {
                          const bool needs_acl = messages[n].find("ace") != std::string::npos;
                          if (needs_acl)
                              fp_udp_acldb_add_acl(&acl);
                          int32_t result;
                          {
                              fake::failing_allocation fail(static_cast<int>(n) + 1);
                              result = add();
                          }
                          const uint32_t left = fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() +
                                                fp_udp_apply_node_hash_size() - needs_acl;
                          return format("%d %u ", result, left) + fake::log.take("E").at(0) + broken() +
                                 format(" %d", add());
                      }),
                      "-2 0 " + messages[n] + " 0");
}

TEST_F(awkward, a_debug_command_without_its_arguments_does_nothing)
{
    start();
    fp_udp_debug_sw = 5;
    ssat_value all{};
    all.s = "all";
    const std::pair<const char *, std::vector<ssat_value>> rows[] = {
        {"fp_udp_set_sw", {}}, {"fp_udp_at_set_zlog_level", {}}, {"fp_udp_dump_acl", {}}, {"fp_udp_dump_acl", {all}}};
    for (const auto &[command, arguments] : rows)
        EXPECT_EQ(printed([&, name = command, &values = arguments] { EXPECT_EQ(fake::shell.run(name, values), -4); }),
                  "");
    for (const char *command : {"fp_udp_set_sw", "fp_udp_at_set_zlog_level", "fp_udp_dump_acl"})
        for (const fake::shell_command &known : fake::shell.commands)
            EXPECT_TRUE(known.name != command || known.handler(2, nullptr) == -4) << command;
    EXPECT_EQ(std::pair(fp_udp_debug_sw, g_policy_plx_zlog_level), std::pair(5U, 5U));
}

fp_udp_mgr *operations;
fp_udp_ace *doomed;

TEST_F(awkward, a_callback_may_free_what_was_passed)
{
    fp_udp_acl_handler handler = application::handler();
    handler.ace_fail_cb = [](void *, const fp_udp_acl_info *, uint64_t, int32_t, const uint8_t *) {
        operations->free_ace(doomed);
        return 3;
    };
    start(handler);
    operations = mgr;
    doomed = make_ace(mgr, 7).release();
    const fp_udp_acl_key key = make_key("my_app", 1);
    EXPECT_EQ(mgr->set_ace(&context, &key, doomed), 3) << "its ACL is not known";
    EXPECT_EQ(fake::log.take("E").back(), "E plx reply set ace fail, app_type : my_app, acl_id : 1, sn : 7\n");
}

// The failed write deletes the node that the descriptor lies in; what takes its place in memory is not what is told.
TEST_F(awkward, a_descriptor_within_a_node_may_be_passed)
{
    start();
    set_acl("my_app", 1);
    set_apply("my_app", 1, "my_app", 7);
    fake::store.failing = "hmset";
    std::vector<std::unique_ptr<std::string>> in_its_place;
    app.on_event = [&](const std::string &) {
        for (int i = 0; i < 8; i++)
            in_its_place.push_back(std::make_unique<std::string>(sizeof(fp_udp_apply_node) - 1, 'x'));
    };
    app.take();
    mgr->set_apply(&context, &cached_apply("my_app", 1, "my_app", 7)->acl, 0, make_apply(mgr, "my_app", 7).get());
    EXPECT_EQ(app.take(), lines{"apply fail my_app/1@my_app/7/0/0 9 <0:32>"});
}

// A message on the console is one call: on a stream without a buffer, one write.
TEST_F(awkward, a_message_reaches_the_console_whole)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    fp_udp_debug_sw = FP_UDP_DEBUG_ERROR;
    fp_udp_register_app_type(nullptr);
    dup2(before, STDOUT_FILENO);
    char text[200];
    const std::string heard(text, static_cast<size_t>(std::max<ssize_t>(0, read(ends[0], text, sizeof text))));
    EXPECT_EQ(heard.find("\n [Error] fp_udp_register_app_type["), 0U);
    EXPECT_NE(heard.find("]:invalid app_type.\n"), std::string::npos) << heard;
    EXPECT_EQ(recv(ends[0], text, sizeof text, MSG_DONTWAIT), -1);
    for (const int end : {ends[0], ends[1], before})
        close(end);
}

// With /tmp led to a directory of the case's own.
class awkward_log : public awkward {
  protected:
    awkward_log()
    {
        std::filesystem::create_directories(directory);
        fake::runs_commands = false;
        start();
        fp_udp_debug_sw = FP_UDP_DEBUG_OP_LOG;
    }
    ~awkward_log() override { std::filesystem::remove_all(root); }
    static lines record()
    {
        fp_udp_log_op_acl(nullptr, "my_app", nullptr, FP_UDP_OP_EXPIRE);
        return fake::log.take("E");
    }

    const std::string root = "/var/tmp/" + process + "." + std::to_string(getpid()); // not below /tmp
    const std::string directory = root + "/zlog/udp_fp_log", file = directory + "/" + process + ".log";
    const fake::led_elsewhere tmp{"/tmp", root};
};

TEST_F(awkward_log, behind_a_link_nothing_is_kept_and_the_start_says_so)
{
    for (const std::string &path : {root + "/zlog", directory}) {
        std::filesystem::rename(path, root + "/aside");
        std::filesystem::create_symlink(root + "/aside", path);
        EXPECT_EQ(fp_udp_op_log_init(), -1);
        EXPECT_EQ(fake::log.take("E"),
                  lines{"E a link is in the way of /tmp/zlog/udp_fp_log, no operation is logged.\n"});
        EXPECT_EQ(record(), lines{}) << "said once";
        std::filesystem::remove(path);
        std::filesystem::rename(root + "/aside", path);
        EXPECT_TRUE(std::filesystem::is_empty(directory));
    }
    EXPECT_EQ(fp_udp_op_log_init(), 0);
    EXPECT_EQ(record(), lines{});
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(awkward_log, a_record_takes_few_calls)
{
    record();
    fake::failing_file_call count(0, 0);
    record();
    EXPECT_EQ(fake::failing_file_call::seen(), 8);
}

TEST_F(awkward_log, the_files_are_made_together_or_not_at_all)
{
    const std::string second = directory + "/" + process + "_1.log";
    for (const auto &[in_the_way, other] : {std::pair{file, second}, {second, file}}) {
        std::filesystem::create_directory(in_the_way);
        for (int again = 0; again < 2; again++)
            EXPECT_EQ(record().size(), 1U);
        EXPECT_FALSE(std::filesystem::exists(other));
        std::filesystem::remove(in_the_way);
    }
    std::ofstream(file) << "earlier";
    std::filesystem::create_directory(second);
    record();
    EXPECT_EQ(std::filesystem::file_size(file), 7U) << "another run's records stay, without a new header each time";
}

} // namespace
