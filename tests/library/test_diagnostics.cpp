// The diagnostic channel's two sides, and the operation log's files.
#include "records.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class channel : public library_case {
  protected:
    channel()
    {
        mgr = fp_udp_get_mgr();
        fp_udp_acldb_init();
        fp_udp_acl_node_hash_insert(&node);
    }
    // At least one message of each severity.
    void say()
    {
        fp_udp_acl_node other{};
        other.acl = make_info("b", 1);
        fp_udp_acl_node_hash_find(&other);
        set_ace("my_app", 9, 1);
    }
    fp_udp_acl_node node = [] {
        fp_udp_acl_node n{};
        n.acl = make_info("a", 1);
        return n;
    }();
};

TEST_F(channel, each_severity_has_its_console_bit_and_log_threshold)
{
    const std::string heard[] = {"", "E", "EI", "EIN", "EIN", "EIND"};
    for (uint32_t level = 0; level <= 5; level++) {
        g_policy_plx_zlog_level = level;
        say();
        std::set<char> letters;
        for (const std::string &line : fake::log.take("EIND?"))
            letters.insert(line[0]);
        EXPECT_EQ(letters, std::set<char>(heard[level].begin(), heard[level].end())) << level;
    }
    EXPECT_EQ(fp_udp_debug_sw, 0U) << "before anybody sets it";
    g_policy_plx_zlog_level = 0;
    fake::log.formatted = 0;
    const std::map<uint32_t, std::string> words = {{0x4, "Impt"}, {0x8, "Error"}, {0x10, "Notice"}, {0x20, "Detail"}};
    for (uint32_t bit = 1; bit < 0x100; bit <<= 1) {
        fp_udp_debug_sw = bit;
        const std::string text = printed([&] { say(); });
        for (const auto &[at, word] : words)
            EXPECT_EQ(text.find("\n [" + word + "] ") != std::string::npos, at == bit) << word << bit;
    }
    EXPECT_EQ(fake::log.formatted, 0) << "the log side is closed";
}

TEST_F(channel, the_sides_are_independent_and_name_the_function)
{
    const auto refuse = [] { fp_udp_register_app_type(nullptr); };
    fp_udp_debug_sw = 0x3C;
    g_policy_plx_zlog_category = nullptr;
    const std::string text = printed(refuse);
    EXPECT_EQ(text.find("\n [Error] fp_udp_register_app_type["), 0U);
    EXPECT_EQ(text.substr(text.find("]:")), "]:invalid app_type.\n");
    EXPECT_TRUE(fake::log.kept.empty());
    g_policy_plx_zlog_category = &fake::log;
    fp_udp_debug_sw = 0;
    EXPECT_EQ(printed(refuse), "");
    EXPECT_EQ(fake::log.kept.at(0).file, "app/fp_udp_mgr.cpp");
    EXPECT_EQ(fake::log.kept.at(0).func, "fp_udp_register_app_type");
    EXPECT_EQ(fake::log.take(), lines{"E invalid app_type.\n"});
}

TEST_F(channel, a_long_message_is_cut_in_the_log_alone_and_a_percent_sign_is_data)
{
    fp_udp_debug_sw = 0x08;
    fp_udp_attr attr{};
    owned_ace ace = make_ace(mgr, 1);
    const std::string name = std::string(2000, 'x') + "%s%n";
    const std::string message = "invalid string name:" + name + ", max_len:18!";
    EXPECT_NE(printed([&] { ace->tlv->construct(&attr, name.c_str(), 1, attr.value, 1); }).find(message),
              std::string::npos);
    EXPECT_EQ(fake::log.take(), lines{"E " + message.substr(0, 1023)});
    printed([&] { ace->tlv->construct(&attr, "%s%s%n%s%s%n%s%s%n%s", 1, attr.value, 1); });
    EXPECT_EQ(fake::log.take(), lines{"E invalid string name:%s%s%n%s%s%n%s%s%n%s, max_len:18!"});
}

class operation_log : public operations_case {
  protected:
    operation_log()
    {
        mgr = fp_udp_get_mgr();
        fp_udp_debug_sw = 0x100;
        acl = make_info("my_app", 4);
        put_priv(priv, sizeof priv, 10);
        remove();
    }
    ~operation_log() override
    {
        remove();
        unlink(elsewhere.c_str());
    }
    void remove()
    {
        unlink(first.c_str());
        unlink(second.c_str());
    }
    static std::string content(const std::string &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void record() { fp_udp_log_op_acl(nullptr, "my_app", nullptr, FP_UDP_OP_EXPIRE); }

    const std::string first = "/tmp/zlog/udp_fp_log/" + process + ".log";
    const std::string second = "/tmp/zlog/udp_fp_log/" + process + "_1.log";
    const std::string elsewhere = "/tmp/" + process + ".elsewhere";
    fp_udp_acl_info acl;
    uint8_t priv[32];
};

const std::string head = "\n--------------log file-------------\n", head1 = "\n--------------log file1-------------\n",
                  expired = "NOW--acl_expire, app :my_app, \n",
                  bytes = "0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 ";

TEST_F(operation_log, nothing_is_made_while_its_bit_is_clear)
{
    fp_udp_debug_sw = 0xFF;
    record();
    EXPECT_NE(access(first.c_str(), F_OK), 0);
    EXPECT_NE(access(second.c_str(), F_OK), 0);
}

TEST_F(operation_log, records_hold_what_they_are_given)
{
    const uint64_t sn = 0xABC, pri = 77;
    fp_udp_apply_info apply = make_apply_info("b_app", 0x101, 0x1F, 1);
    const char *names[] = {"add", "del", "expire", "del_exp", "itera", "get", "success", "fail", ""};
    std::string expected = head;
    for (uint32_t op = 0; op < std::size(names); op++) {
        fp_udp_log_op_acl(&acl, nullptr, nullptr, op);
        expected += fake::format("NOW--acl_%s, app :my_app, acl_id :4, \n", names[op]);
    }
    record();
    fp_udp_log_op_acl(&acl, "x", priv, 0);
    fp_udp_log_op_ace(nullptr, nullptr, nullptr, nullptr, nullptr, 5);
    fp_udp_log_op_ace(&acl, &sn, "x", priv, &pri, 0);
    fp_udp_log_op_apply(nullptr, nullptr, "x", nullptr, 3);
    fp_udp_log_op_apply(&acl, &apply, "x", priv, 0);
    expected += expired + "NOW--acl_add, app :my_app, acl_id :4, app :x, priv, " + bytes + "\nNOW--ace_get, \n" +
                "NOW--ace_add, app :my_app, acl_id :4, sn :abc, app :x, ace_pri :77, priv: " + bytes + "\n" +
                "NOW--apply_del_exp, apply :x, \n" +
                "NOW--apply_add, app :my_app, acl_id :4, apply :b_app, phyid :101, pri :1f, dir :1, apply :x, priv, " +
                bytes + "\n";
    EXPECT_EQ(content(first), expected);
    EXPECT_EQ(content(second), head1);
    EXPECT_EQ(fake::log.take(), lines{});
}

TEST_F(operation_log, a_fetch_of_the_operation_table_starts_anew_in_the_same_files)
{
    record();
    fp_udp_get_mgr();
    record();
    EXPECT_EQ(content(first), head + expired + head + expired);
    EXPECT_EQ(content(second), head1 + head1);
}

TEST_F(operation_log, the_files_take_turns_beyond_5_mib)
{
    record();
    for (const auto &[full, other] : {std::pair{first, second}, {second, first}, {first, second}}) {
        ASSERT_EQ(truncate(full.c_str(), 0x500000), 0);
        record();
        EXPECT_EQ(content(full).size(), 0x500000 + expired.size()) << "5 MiB is not beyond";
        record();
        EXPECT_EQ(content(other), head + expired);
        record();
        EXPECT_EQ(content(other), head + expired + expired);
    }
}

TEST_F(operation_log, a_file_that_32_bits_cannot_measure_takes_its_turn_too)
{
    record();
    if (truncate(first.c_str(), off_t{3} << 30) != 0)
        GTEST_SKIP() << "this file system has no file of 3 GiB: " << strerror(errno);
    record();
    EXPECT_EQ(content(second), head + expired);
    EXPECT_EQ(fake::log.take(), lines{});
}

TEST_F(operation_log, failures_drop_the_record_and_are_reported)
{
    const auto with_directory_at = [this](const std::string &path, const lines &messages) {
        unlink(path.c_str());
        mkdir(path.c_str(), 0700);
        record();
        EXPECT_EQ(fake::log.take("E"), messages);
        rmdir(path.c_str());
    };
    with_directory_at(first, {"E fp_udp_open log fail.\n"});
    with_directory_at(second, {"E fp_udp_open log 1 fail.\n"});
    fake::clock.wall_clock_works = false;
    record();
    EXPECT_EQ(fake::log.take("E"), lines{"E log acl get time failed.\n"});
    fake::clock.wall_clock_works = true;
    with_directory_at(first, {"E log acl open fail.\n"});
    record();
    EXPECT_EQ(content(first), expired);
    ASSERT_EQ(truncate(first.c_str(), 0x500001), 0);
    with_directory_at(second, {"E open file fail", "E log acl open fail.\n"});
    record();
    EXPECT_EQ(content(second), expired) << "the turn stands";
}

TEST_F(operation_log, a_planted_link_is_not_followed)
{
    std::ofstream(elsewhere) << "precious";
    for (const std::string &path : {first, second}) {
        remove();
        fp_udp_get_mgr();
        ASSERT_EQ(symlink(elsewhere.c_str(), path.c_str()), 0);
        record();
        EXPECT_EQ(content(elsewhere), "precious");
    }
    remove();
    mkfifo(first.c_str(), 0600); // must not hang
    record();
}

TEST_F(operation_log, every_operation_leaves_its_record)
{
    fp_udp_debug_sw = 0;
    start();
    const fp_udp_acl_key key = make_key("my_app", 4);
    const auto set_an_ace = [&] { mgr->set_ace(&context, &key, make_ace(mgr, 0xABC, 10, 77).get()); };
    const auto set_an_apply = [&] { set_apply("my_app", 4, "b_app", 0x101, 0x1F, 10); };
    const auto failing = [](auto work) {
        fake::store.script["hmset"] = {9};
        work();
    };
    const std::string of_acl = "app :my_app, acl_id :4, ", with_priv = of_acl + "priv, " + bytes,
                      of_ace = of_acl + "sn :abc, ", ace = of_ace + "ace_pri :77, priv: " + bytes,
                      of_apply = of_acl + "apply :b_app, phyid :101, pri :1f, dir :0, ",
                      apply = of_apply + "priv, " + bytes;
    const std::pair<std::function<void()>, lines> rows[] = {
        {[&] { set_acl("my_app", 4, 0, 10); }, {"acl_add, " + with_priv, "acl_success, " + with_priv}},
        {set_an_ace, {"ace_add, " + ace, "ace_success, " + ace}},
        {set_an_apply, {"apply_add, " + apply, "apply_success, " + apply}},
        {[&] { failing(set_an_ace); }, {"ace_add, " + ace, "ace_fail, " + ace}},
        {[&] { failing(set_an_apply); }, {"apply_add, " + apply, "apply_fail, " + apply}},
        {[&] {
             uint64_t *sns;
             uint32_t count;
             free(mgr->iterator_ace(&context, &key, &sns, &count));
         },
         {"acl_itera, " + of_acl}},
        {[&] { get_ace("my_app", 4, 0xABC); }, {"ace_get, " + of_ace}},
        {[&] { del_ace("my_app", 4, 0xABC); }, {"ace_del, " + of_ace}},
        {[&] { del_apply("my_app", 4, "b_app", 0x101, 0x1F); }, {"apply_del, " + of_apply}},
        {[&] { failing([&] { set_acl("my_app", 4, 0, 10); }); }, {"acl_add, " + with_priv, "acl_fail, " + with_priv}},
        {[&] { del_acl("my_app", 4); }, {"acl_del, " + of_acl}},
        {[&] { mgr->expire_acl(&context, "my_app"); }, {"acl_expire, app :my_app, "}},
        {[&] { mgr->del_expire_acl(&context, "my_app"); }, {"acl_del_exp, app :my_app, "}},
        {[&] { mgr->expire_ace(&context, "my_app"); }, {"ace_expire, app :my_app, "}},
        {[&] { mgr->del_expire_ace(&context, "my_app"); }, {"ace_del_exp, app :my_app, "}},
        {[&] { mgr->expire_apply(&context, "b_app"); }, {"apply_expire, apply :b_app, "}},
        {[&] { mgr->del_expire_apply(&context, "b_app"); }, {"apply_del_exp, apply :b_app, "}},
    };
    fp_udp_debug_sw = 0x100;
    std::string expected = head;
    for (const auto &[work, records] : rows) {
        work();
        for (const std::string &record : records)
            expected += "NOW--" + record + "\n";
        ASSERT_EQ(content(first), expected);
    }
}

TEST_F(operation_log, a_record_that_is_too_long_keeps_its_newline)
{
    const std::string endless(2000, 'x');
    for (const char *type : {endless.c_str(), "b"})
        fp_udp_log_op_acl(nullptr, type, nullptr, FP_UDP_OP_ADD);
    EXPECT_EQ(content(first), head + "NOW--acl_add, app :" + std::string(1003, 'x') + "\nNOW--acl_add, app :b, \n")
        << "1022 bytes, its time included";
}

TEST_F(operation_log, a_success_is_logged_only_where_the_callback_exists)
{
    fp_udp_debug_sw = 0;
    start({});
    fp_udp_debug_sw = 0x100;
    set_acl("my_app", 4);
    set_ace("my_app", 4, 1);
    set_apply("my_app", 4, "b_app", 7);
    fake::store.script["hmset"] = {3};
    set_apply("my_app", 4, "b_app", 7);
    const std::string text = content(first);
    EXPECT_EQ(text.find("success"), std::string::npos);
    EXPECT_EQ(text.find("fail"), std::string::npos);
}

} // namespace
