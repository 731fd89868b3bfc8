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
    std::function<std::string()> run;      // what came of it
    std::map<std::string, lines> outcomes; // by the failing call, or the call and its error ("write=28")
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
        fake::runs_commands = false;
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
    const std::map<std::string, lines> of_a_record = {
        {"open", {"reported", "recorded"}}, // a size that cannot be told is none
        {"openat", {"reported", "recorded"}},
        {"fstat", {"reported", "recorded"}},
        {"ftruncate", {"reported", "recorded"}},
        {format("write=%d", ENOSPC), {"lost", "recorded"}}, // of the header, or of the record
        {format("write=%d", EMFILE), {"lost", "recorded"}},
        {format("write=%d", EACCES), {"lost", "recorded"}}};
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
        {"a fetch of the operation table",
         nothing,
         [] { return seen(fp_udp_op_log_init()); },
         {{"fgets", {"-1"}}, {"system", {"256"}}}},
        {"the process's own level",
         [&] { put(own_level, "3"); },
         level,
         {{"fopen", {"0 1"}},
          {"fgets", {"-1 1"}},
          {"access", {"0 1"}},
          {"open", {"0 1"}},
          {"read", {"0 1"}},
          {format("read=%d", fake::failing_file_call::short_count), {"0 3"}}}},
        {"the common level",
         [=, this] {
             unlink(own_level.c_str());
             put(root + "/plx", "4");
         },
         level,
         {{"fopen", {"0 4"}},
          {"fgets", {"-1 1"}},
          {"open", {"0 1"}},
          {"read", {"0 1"}},
          {format("read=%d", fake::failing_file_call::short_count), {"0 4"}}}},
        {"the saved switch",
         [] { put(lib_plx_debug_path, "44"); },
         [] {
             fp_udp_at_reg_init(&context);
             return seen(static_cast<int32_t>(std::exchange(fp_udp_debug_sw, 0)));
         },
         {{"fopen", {"0", "44"}}, {"fgets", {"0", "44"}}}}, // of the process's name, or of the file
        {"a switch that is saved",
         [] { put(lib_plx_debug_path, "1"); },
         [] {
             fp_udp_debug_sw = 511;
             fake::shell.run("fp_udp_debug_save", {});
             fp_udp_debug_sw = 0;
             return content(lib_plx_debug_path);
         },
         {{"fopen", {"1"}}}},
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
                    lines allowed = {usual};
                    for (const std::string &name : {call + format("=%d", error), call})
                        if (const auto at = op.outcomes.find(name); at != op.outcomes.end()) {
                            allowed = at->second;
                            break;
                        }
                    for (const auto &[name, outcomes] : op.outcomes) // and what the later failures bring about
                        if (how_long == fake::from_then_on && more)
                            allowed.insert(allowed.end(), outcomes.begin(), outcomes.end());
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

TEST_F(file_faults, links_and_directories_in_the_way_are_left_alone)
{
    const std::string elsewhere = root + "/elsewhere", aside = root + "/aside", own_level = root + "/" + process;
    mkdir(elsewhere.c_str(), 0700);
    mkdir((elsewhere + "/udp_fp_log").c_str(), 0700);
    for (const std::string &path : {root + "/zlog", root + "/zlog/udp_fp_log"}) {
        ASSERT_EQ(rename(path.c_str(), aside.c_str()) + symlink(elsewhere.c_str(), path.c_str()), 0);
        EXPECT_EQ(record(), "reported");
        ASSERT_EQ(unlink(path.c_str()) + rename(aside.c_str(), path.c_str()), 0);
        EXPECT_EQ(record(), "recorded");
    }
    EXPECT_EQ(rmdir((elsewhere + "/udp_fp_log").c_str()) + rmdir(elsewhere.c_str()), 0) << "written into";

    ASSERT_EQ(mkdir(own_level.c_str(), 0700) + mkdir(lib_plx_debug_path, 0700), 0);
    g_policy_plx_zlog_level = 3;
    EXPECT_EQ(plx_initial(), 0);
    EXPECT_EQ(g_policy_plx_zlog_level, 3U);
    fp_udp_debug_sw = 511;
    fake::shell.run("fp_udp_debug_save", {});
    fp_udp_at_reg_init(&context);
    EXPECT_EQ(fp_udp_debug_sw, 0U);
}

} // namespace
