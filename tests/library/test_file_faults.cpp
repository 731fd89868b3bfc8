// Faults of files: each call of the library's with each error, and what may stand where it wants a file to be.
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <support/application.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fake::format;

struct file_operation {
    const char *name;
    std::function<void()> prepare;
    std::function<std::string()> run; // what came of it
    lines outcomes;                   // with a fault, beside that without one
};

std::string seen(int32_t result)
{
    return std::to_string(result);
}

// The files of the library, with /tmp and /etc/plx_dbg led to a directory of the case's own.
class file_faults : public library_case {
  protected:
    file_faults()
    {
        mkdir(root.c_str(), 0700);
        mkdir((root + "/zlog").c_str(), 0700);
        mkdir((root + "/zlog/udp_fp_log").c_str(), 0700);
        snprintf(lib_plx_debug_path, sizeof lib_plx_debug_path, "%s/switch", root.c_str());
        start();
        g_policy_plx_zlog_level = 1;
    }
    ~file_faults() override { std::filesystem::remove_all(root); }

    static std::string content(const std::string &path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static void put(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
    void forget_files()
    {
        unlink(main_log.c_str());
        unlink(second_log.c_str());
        fp_udp_op_log_init();
    }
    std::string record()
    {
        fp_udp_debug_sw = FP_UDP_DEBUG_OP_LOG;
        fp_udp_log_op_acl(nullptr, "my_app", nullptr, FP_UDP_OP_EXPIRE);
        fp_udp_debug_sw = 0;
        for (const std::string &path : {main_log, second_log}) {
            const std::string line = "NOW--acl_expire, app :my_app, \n";
            std::string end(line.size(), ' ');
            std::ifstream file(path);
            file.seekg(-static_cast<int>(line.size()), std::ios::end).read(end.data(), static_cast<int>(line.size()));
            if (end == line)
                return "recorded";
        }
        return fake::log.take("E").empty() ? "lost" : "reported";
    }

    const std::string root = "/var/tmp/" + process + "." + std::to_string(getpid()); // not below /tmp
    const std::string main_log = root + "/zlog/udp_fp_log/" + process + ".log";
    const std::string second_log = root + "/zlog/udp_fp_log/" + process + "_1.log";
    const fake::led_elsewhere tmp{"/tmp", root}, etc{"/etc/plx_dbg", root};
};

TEST_F(file_faults, each_file_call_may_fail)
{
    const std::string own_level = root + "/" + process;
    const auto nothing = [] {};
    const lines of_a_record = {"reported", "lost", "recorded"}; // a size that cannot be told is none
    const auto level = [] {
        g_policy_plx_zlog_level = 1;
        const int32_t result = plx_initial();
        return seen(result) + " " + std::to_string(g_policy_plx_zlog_level);
    };
    const file_operation rows[] = {
        {"the first record", [this] { forget_files(); }, [this] { return record(); }, of_a_record},
        {"a further record",
         [this] {
             forget_files();
             record();
         },
         [this] {
             put(main_log, "");
             return record();
         },
         of_a_record},
        {"a record that takes a turn",
         [this] {
             forget_files();
             record();
             EXPECT_EQ(truncate(main_log.c_str(), 0x500001), 0);
         },
         [this] { return record(); }, of_a_record},
        {"a fetch of the operation table", nothing, [] { return seen(fp_udp_op_log_init()); }, {"-1", "256"}},
        {"the process's own level", [&] { put(own_level, "3"); }, level, {"0 1", "-1 1"}},
        {"the common level",
         [=, this] {
             unlink(own_level.c_str());
             put(root + "/plx", "4");
         },
         level,
         {"0 1", "-1 1"}},
        {"the saved switch",
         [] { put(lib_plx_debug_path, "44"); },
         [] {
             fp_udp_at_reg_init(&context);
             return seen(static_cast<int32_t>(std::exchange(fp_udp_debug_sw, 0)));
         },
         {"0"}},
        {"a switch that is saved",
         [] { put(lib_plx_debug_path, "1"); },
         [] {
             fp_udp_debug_sw = 511;
             fake::shell.run("fp_udp_debug_save", {});
             fp_udp_debug_sw = 0;
             return content(lib_plx_debug_path);
         },
         {"1"}},
    };
    int calls = 0;
    for (const file_operation &op : rows)
        for (const int error : {ENOSPC, EMFILE, EACCES, EINTR, fake::failing_file_call::short_count})
            for (const fake::lasts how_long : {fake::once, fake::from_then_on}) {
                op.prepare();
                const std::string usual = op.run();
                const size_t files = fake::open_files();
                for (int n = 1, more = 1; more; n++) {
                    if (error == EINTR && how_long == fake::from_then_on)
                        break; // a write that is interrupted for ever is tried for ever
                    op.prepare();
                    forget_calls();
                    std::string saw;
                    {
                        fake::failing_file_call fail(n, error, how_long);
                        saw = op.run();
                    }
                    more = fake::failing_file_call::seen() >= n;
                    const std::string call = fake::failing_file_call::failed();
                    lines allowed = op.outcomes;
                    allowed.push_back(usual);
                    EXPECT_GT(std::count(allowed.begin(), allowed.end(), saw), 0)
                        << op.name << ": " << call << " " << n << " failed with " << error << ": " << saw;
                    EXPECT_EQ(fake::open_files(), files) << op.name << ": " << call << " " << n;
                    op.prepare();
                    EXPECT_EQ(op.run(), usual) << op.name << ": after " << call << " " << n;
                    calls += more;
                }
            }
    EXPECT_GT(calls, 300);
}

} // namespace
