// What a change of the library could break without any other case noticing: found by making such changes one at a time.
#include <fstream>
#include <iterator>
#include <support/application.h>
#include <unistd.h>

namespace {

class noticed : public library_case {
  protected:
    noticed() { snprintf(lib_plx_debug_path, sizeof lib_plx_debug_path, "/dev/null"); }
    ~noticed() override
    {
        unlink(log.c_str());
        unlink(("/tmp/zlog/udp_fp_log/" + process + "_1.log").c_str());
    }

    // The records that `work` adds to the operation log, without their time.
    template <class Work> lines logged(Work work)
    {
        unlink(log.c_str());
        fp_udp_debug_sw = FP_UDP_DEBUG_OP_LOG;
        work();
        fp_udp_debug_sw = 0;
        std::ifstream file(log);
        lines records;
        for (std::string line; std::getline(file, line);)
            if (line.compare(0, 5, "NOW--") == 0)
                records.push_back(line.substr(5));
        return records;
    }

    const std::string log = "/tmp/zlog/udp_fp_log/" + process + ".log";
};

std::string priv(uint8_t first)
{
    std::string text;
    for (int i = 0; i < 16; i++)
        text += fake::format("%02x ", first + i);
    return text;
}

TEST_F(noticed, every_debug_command_succeeds)
{
    start();
    ssat_value argument{};
    argument.s = "all";
    for (const auto &command : fake::shell.commands) {
        const bool takes_text = command.description.find("%s") != std::string::npos;
        const std::vector<ssat_value> arguments = {takes_text ? argument : ssat_value{1}, ssat_value{0}};
        int result = -1;
        printed([&] { result = fake::shell.run(command.name, arguments); });
        EXPECT_EQ(result, 0) << command.name;
    }
    int refused = -1;
    printed([&] { refused = fp_udp_at_set_zlog_level(6); });
    EXPECT_EQ(refused, 0);
}

TEST_F(noticed, every_acl_operation_leaves_its_record)
{
    start();
    const fp_udp_acl_key key = make_key("my_app", 4);
    const std::string of = "app :my_app, acl_id :4, ";
    EXPECT_EQ(logged([&] { set_acl("my_app", 4, 0, 10); }),
              (lines{"acl_add, " + of + "priv, " + priv(10), "acl_success, " + of + "priv, " + priv(10)}));
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(logged([&] { set_acl("my_app", 4, 0, 10); }),
              (lines{"acl_add, " + of + "priv, " + priv(10), "acl_fail, " + of + "priv, " + priv(10)}));
    EXPECT_EQ(logged([&] { mgr->del_acl(&context, &key); }), lines{"acl_del, " + of});
    EXPECT_EQ(logged([&] { mgr->expire_acl(&context, "my_app"); }), lines{"acl_expire, app :my_app, "});
    EXPECT_EQ(logged([&] { mgr->del_expire_acl(&context, "my_app"); }), lines{"acl_del_exp, app :my_app, "});
    uint64_t *sn = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(logged([&] { mgr->iterator_ace(&context, &key, &sn, &count); }), lines{"acl_itera, " + of});
}

TEST_F(noticed, every_ace_operation_leaves_its_record)
{
    start();
    set_acl("my_app", 4);
    const fp_udp_acl_key key = make_key("my_app", 4);
    const std::string of = "app :my_app, acl_id :4, sn :abc, ";
    const std::string whole = of + "ace_pri :0, priv: " + priv(10);
    EXPECT_EQ(logged([&] { set_ace("my_app", 4, 0xabc, 10); }), (lines{"ace_add, " + whole, "ace_success, " + whole}));
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(logged([&] { set_ace("my_app", 4, 0xabc, 10); }), (lines{"ace_add, " + whole, "ace_fail, " + whole}));
    EXPECT_EQ(logged([&] { mgr->delete_ace(&context, &key, 0xabc); }), lines{"ace_del, " + of});
    EXPECT_EQ(logged([&] { mgr->get_ace(&context, &key, 0xabc); }), lines{"ace_get, " + of});
    EXPECT_EQ(logged([&] { mgr->expire_ace(&context, "my_app"); }), lines{"ace_expire, app :my_app, "});
    EXPECT_EQ(logged([&] { mgr->del_expire_ace(&context, "my_app"); }), lines{"ace_del_exp, app :my_app, "});
}

TEST_F(noticed, every_apply_operation_leaves_its_record)
{
    start();
    const std::string of = "app :my_app, acl_id :4, apply :b_app, phyid :101, pri :1f, dir :0, ";
    const std::string whole = of + "priv, " + priv(10);
    EXPECT_EQ(logged([&] { set_apply("my_app", 4, "b_app", 0x101, 0x1f, 10); }),
              (lines{"apply_add, " + whole, "apply_success, " + whole}));
    fake::store.script["hmset"] = {9};
    EXPECT_EQ(logged([&] { set_apply("my_app", 4, "b_app", 0x101, 0x1f, 10); }),
              (lines{"apply_add, " + whole, "apply_fail, " + whole}));
    const fp_udp_acl_info acl = make_info("my_app", 4);
    const owned_apply apply = make_apply(mgr, "b_app", 0x101, 0x1f);
    EXPECT_EQ(logged([&] { mgr->del_apply(&context, &acl, apply.get()); }), lines{"apply_del, " + of});
    EXPECT_EQ(logged([&] { mgr->expire_apply(&context, "b_app"); }), lines{"apply_expire, apply :b_app, "});
    EXPECT_EQ(logged([&] { mgr->del_expire_apply(&context, "b_app"); }), lines{"apply_del_exp, apply :b_app, "});
}

TEST_F(noticed, a_record_that_is_too_long_keeps_its_newline)
{
    start();
    const std::string endless(2000, 'x');
    const lines records = logged([&] {
        fp_udp_log_op_acl(nullptr, endless.c_str(), nullptr, FP_UDP_OP_ADD);
        fp_udp_log_op_acl(nullptr, "b", nullptr, FP_UDP_OP_ADD);
    });
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], "acl_add, app :" + std::string(1003, 'x')) << "1022 bytes, its time included";
    EXPECT_EQ(records[1], "acl_add, app :b, ");
}

} // namespace
