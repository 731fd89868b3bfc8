// The debug shell, with a module in a process of its own and clients on its socket.
#include "ssat_server.hpp"
#include "tq_zlog.h"

#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

namespace fs = std::filesystem;

static std::string log_path;

extern "C" void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int level, const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::ofstream(log_path, std::ios::app) << level << ' ' << text << '\n';
}

namespace {

std::set<std::string> alive()
{
    std::set<std::string> modules;
    const auto add = [](const char *module, void *arg) { static_cast<std::set<std::string> *>(arg)->insert(module); };
    EXPECT_EQ(ssat_client_modules(add, &modules), 0);
    return modules;
}

struct ssat_test : shell_test {
    const fs::path output = root / "output";

    ssat_test() { log_path = root / "log"; }
};

struct ssat_session : ssat_test {
    const server app{module_name, output};
    const connection client;
};

TEST_F(ssat_session, a_command_gets_its_values_and_the_client_what_it_prints)
{
    ASSERT_EQ(app.error, 0);
    EXPECT_EQ(client.run("values name=all id=-1 mask=ff"), "ok: 3:all,-1,ff\n");
    EXPECT_EQ(client.run("values \"two words\" 2 0x3"), "ok: 3:two words,2,3\n");
    EXPECT_EQ(client.run("straight"), "ok: straight");
    EXPECT_EQ(client.run("fail"), "failed: ok 0\n");
    EXPECT_EQ(client.run("throw"), "failed: before");
}

TEST_F(ssat_session, a_line_that_does_not_fit_calls_nothing_and_shows_the_usage)
{
    EXPECT_EQ(client.run("count now"), "usage: one argument too many: 'now'\nusage: count\n");
    EXPECT_EQ(client.run("values all"), "usage: 'id' is missing\nusage: values name=%s id=%d mask=%x\n");
    EXPECT_EQ(client.run("cuont"), "unknown: no command is named 'cuont'; help lists the commands\n");
    EXPECT_EQ(client.run("count"), "ok: 1") << "the first call";
}

TEST_F(ssat_session, help_lists_every_command_with_its_usage)
{
    EXPECT_EQ(client.run("help"), "ok: count\t$n\nfail\t$n\nflood lines=%x\tlines=%x\nloop\t$n\n"
                                  "pid\ttell the process\nstraight\t$n\nthrow\t$n\n"
                                  "values name=%s id=%d mask=%x\tname=%s, id=%d, mask=%x, $n\n");
    EXPECT_EQ(client.run("help pid"), "ok: pid\ttell the process\n");
    EXPECT_EQ(client.run("help nothing"), "unknown: no command is named 'nothing'; help lists the commands\n");
}

TEST_F(ssat_session, the_platform_s_counters_are_the_shell_s_own_command)
{
    client.run("fail");
    EXPECT_EQ(client.run("help counters"), "ok: counters\tthe platform's own counters\n");
    const std::string counters = client.run("counters");
    EXPECT_NE(counters.find("0\ttimers\n"), std::string::npos) << counters;
    EXPECT_NE(counters.find("1\tshell commands\n0\tshell answers cut\n"), std::string::npos) << counters;
    EXPECT_EQ(counters.find("store"), std::string::npos) << "the context has no store: " << counters;
    EXPECT_EQ(client.run("counters now"), "unknown: no command is named 'counters'; help lists the commands\n");
}

TEST_F(ssat_test, what_the_application_prints_stays_with_the_application)
{
    server app(module_name, output);
    EXPECT_EQ(connection().run("values a 1 1"), "ok: 3:a,1,1\n");
    EXPECT_EQ(connection().run("throw"), "failed: before");
    EXPECT_EQ(app.stop(), 0);
    EXPECT_EQ(files.read("output"), "begin end");
}

TEST_F(ssat_test, a_command_that_runs_the_loop_is_not_entered_again)
{
    const server app(module_name, output);
    const connection first, second;
    first.send_raw("loop\nloop\n");
    EXPECT_EQ(second.run("count"), "ok: 1");
    shutdown(first.fd, SHUT_WR);
    EXPECT_EQ(first.receive_all(), "ok 6\nin outok 6\nin out");
}

TEST_F(ssat_session, lines_sent_ahead_are_answered_in_order_but_not_one_without_its_end)
{
    client.send_raw("count\r\n\n  \ncount\nflood 1\ncount\ncount");
    shutdown(client.fd, SHUT_WR);
    EXPECT_EQ(client.receive_all(), "ok 1\n1ok 1\n2ok 16\n0123456789abcde\nok 1\n3");
    EXPECT_EQ(connection().run("count"), "ok: 4");
}

TEST_F(ssat_session, hostile_lines_are_refused_and_the_session_goes_on)
{
    const std::string longest = "values " + std::string(4096 - 11, 'x') + " 1 1";
    client.send_raw(longest + '\n' + longest + "1\n" + std::string(100000, 'y') + '\n' + std::string("count\0\n", 7) +
                    "count\n");
    shutdown(client.fd, SHUT_WR);
    const std::string answer = client.receive_all();
    EXPECT_EQ(answer.substr(0, 8), "ok 4092\n") << answer.substr(0, 80);
    EXPECT_EQ(answer.substr(8 + 4092), "usage 30\na line has at most 4096 bytes\nusage 30\na line has at most 4096 "
                                       "bytes\nusage 38\nthe line has control characters in it\nok 1\n1");
}

TEST_F(ssat_session, output_beyond_the_bound_is_cut_and_said_to_be)
{
    const std::string answer = client.run("flood 50000"); // five times 1 MiB
    EXPECT_EQ(answer.size(), 4 + (size_t{4} << 20) + 5);
    EXPECT_EQ(answer.substr(answer.size() - 5), "[cut]");
    EXPECT_EQ(client.run("count"), "ok: 1") << "standard output works again";
}

TEST_F(ssat_session, signals_that_interrupt_a_waiting_client_cost_it_nothing)
{
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    sigaction(SIGALRM, &ignored, nullptr);
    const itimerval often{{0, 1000}, {0, 1000}}, never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(client.run("loop"), "ok: in out");
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST_F(ssat_test, a_client_that_does_not_read_or_goes_away_harms_nobody)
{
    server app(module_name, output);
    const connection patient;
    {
        const connection stalled, gone;
        stalled.send_raw("flood 30000\ncount\n");
        gone.send_raw("flood 30000\ncount\n");
        close(gone.fd);
        const_cast<connection &>(gone).fd = -1;
        EXPECT_EQ(patient.run("count"), "ok: 1");
    }
    EXPECT_EQ(patient.run("count"), "ok: 2");
    EXPECT_EQ(app.stop(), 0);
}

TEST_F(ssat_test, when_connections_run_out_the_one_idle_longest_is_dropped)
{
    const server app(module_name, output);
    const connection clients[8];
    for (int i : {1, 0, 2, 3, 4, 5, 6, 7})
        EXPECT_EQ(clients[i].run("help pid"), "ok: pid\ttell the process\n") << i;
    EXPECT_EQ(connection().run("help pid"), "ok: pid\ttell the process\n");
    EXPECT_EQ(clients[1].receive_all(), "") << "the connection has ended";
    EXPECT_EQ(clients[0].run("count"), "ok: 1");
}

TEST_F(ssat_test, a_dead_process_s_socket_is_replaced)
{
    server dead(module_name, output);
    dead.crash();
    EXPECT_TRUE(fs::exists(directory / module_name));
    EXPECT_EQ(alive(), std::set<std::string>{});
    EXPECT_EQ(ssat_client_connect(module_name), -1);
    EXPECT_EQ(errno, ECONNREFUSED);

    const server app(module_name, output);
    EXPECT_EQ(connection().run("pid"), "ok: " + std::to_string(app.pid) + '\n');
    EXPECT_EQ(alive(), std::set<std::string>{module_name});
}

TEST_F(ssat_test, a_living_process_s_socket_is_not_and_the_second_gets_a_name_of_its_own)
{
    const server first(module_name, output), second(module_name, root / "output2");
    const std::string second_name = std::string(module_name) + '@' + std::to_string(second.pid);
    EXPECT_EQ(alive(), (std::set<std::string>{module_name, second_name}));
    EXPECT_EQ(connection().run("pid"), "ok: " + std::to_string(first.pid) + '\n');
    EXPECT_EQ(connection(second_name).run("pid"), "ok: " + std::to_string(second.pid) + '\n');
}

TEST_F(ssat_test, directory_and_socket_are_their_owner_s_alone_and_an_orderly_end_leaves_no_socket)
{
    server app(module_name, output);
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(directory / module_name).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(app.stop(), 0);
    EXPECT_FALSE(fs::exists(directory / module_name));
    EXPECT_EQ(ssat_client_connect(module_name), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ssat_test, a_module_s_name_cannot_leave_the_directory)
{
    for (const char *name : {"../escaped", "/tmp/absolute", "..", ".lock", "a/b", "50%2F", "line\nend \x01\xff"}) {
        SCOPED_TRACE(name);
        const server app(name, output);
        ASSERT_EQ(app.error, 0);
        EXPECT_EQ(alive(), std::set<std::string>{name});
        EXPECT_EQ(connection(name).run("help"), "ok: ");
    }
    std::set<fs::path> seen;
    for (const auto &entry : fs::directory_iterator(root))
        seen.insert(entry.path().filename());
    EXPECT_EQ(seen, (std::set<fs::path>{"output", "shell"}));
}

TEST_F(ssat_test, a_name_too_long_for_a_socket_is_an_error)
{
    EXPECT_EQ(server(std::string(300, 'x').c_str(), output).error, ENAMETOOLONG);
    EXPECT_EQ(server("", output).error, EINVAL);
}

TEST_F(ssat_test, a_directory_that_is_not_ours_alone_is_refused)
{
    fs::create_directory(root / "other");
    fs::create_directory_symlink(root / "other", directory);
    EXPECT_NE(server(module_name, output).error, 0) << "a symbolic link";
    EXPECT_TRUE(fs::is_empty(root / "other"));

    fs::remove(directory);
    fs::create_directory(directory);
    chmod(directory.c_str(), 0755);
    EXPECT_EQ(server(module_name, output).error, EPERM) << "open to others";
    EXPECT_EQ(files.read("log").find("100 the shell of app.fp does not open"), 0u) << files.read("log");

    chmod(directory.c_str(), 0700);
    if (chown(directory.c_str(), nobody, nobody) == 0) {
        EXPECT_EQ(server(module_name, output).error, EPERM) << "another user's";
    }
}

TEST_F(ssat_test, what_is_no_socket_is_left_alone)
{
    fs::create_directory(directory);
    chmod(directory.c_str(), 0700);
    std::ofstream(directory / module_name) << "kept";
    const server app(module_name, output);
    EXPECT_EQ(app.error, 0);
    EXPECT_EQ(files.read("shell/app.fp"), "kept");
    EXPECT_EQ(alive(), std::set<std::string>{module_name + ('@' + std::to_string(app.pid))});
}

// As another user: connects to the module's socket and says what it is told.
std::string answer_to_uid(uid_t uid, const fs::path &path)
{
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const plx::tool::Process other([&] {
        sockaddr_un address{AF_UNIX, {}};
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const connection client(setuid(uid) == 0 ? socket(AF_UNIX, SOCK_STREAM, 0) : -1);
        std::string text = "no connection";
        if (connect(client.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
            client.send_raw("count\n");
            text = client.receive_all();
        }
        _exit(write(fds[1], text.data(), text.size()) < 0);
    });
    close(fds[1]);
    return connection(fds[0]).receive_all();
}

TEST_F(ssat_test, another_user_is_refused_and_logged)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const server app(module_name, output);
    EXPECT_EQ(answer_to_uid(nobody, directory / module_name), "no connection");
    for (const fs::path &path : {root, directory, directory / module_name})
        chmod(path.c_str(), 0777);
    EXPECT_EQ(answer_to_uid(nobody, directory / module_name), "denied 36\nthis module belongs to another user\n");
    EXPECT_EQ(files.read("log").find("80 refused a connection of uid 65534"), 0u) << files.read("log");
    chmod(directory.c_str(), 0700);
    EXPECT_EQ(connection().run("count"), "ok: 1") << "nothing was called";
}

TEST_F(ssat_test, without_a_chosen_directory_the_user_s_runtime_directory_is_used)
{
    const uid_t user = geteuid() == 0 ? nobody : geteuid(); // root's is /run/plx, which belongs to the machine
    const fs::path runtime = root / "runtime";
    fs::create_directory(runtime);
    chmod(root.c_str(), 0755);
    ASSERT_EQ(chown(runtime.c_str(), user, static_cast<gid_t>(-1)), 0);
    unsetenv("PLX_SHELL_DIR");
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    const server app(module_name, output, user);
    ASSERT_EQ(app.error, 0);
    EXPECT_TRUE(fs::is_socket(runtime / "plx" / module_name));

    setenv("PLX_SHELL_DIR", (runtime / "plx").c_str(), 1);
    EXPECT_EQ(connection().run("count"), "ok: 1") << "root may enter everybody's";
}

TEST_F(ssat_test, registration_refuses_what_cannot_work)
{
    tq_context own{nullptr, tq_loop_new()};
    EXPECT_NE(ssat_lib_init(nullptr, "direct"), 0);
    EXPECT_NE(ssat_lib_init(&own, nullptr), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "pid", 0, "$n", print_pid), 0) << "not opened yet";
    ASSERT_EQ(ssat_lib_init(&own, "direct"), 0);
    EXPECT_EQ(ssat_lib_init(&own, "direct"), 0) << "the same again";
    EXPECT_NE(ssat_lib_init(&context, "direct"), 0) << "another context";
    EXPECT_EQ(ssat_reg_mod_cmd("direct", "pid", 0, "$n", print_pid), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "pid", 0, "$n", print_pid), 0) << "a second of that name";
    EXPECT_NE(ssat_reg_mod_cmd("direct", "help", 0, "$n", print_pid), 0) << "the shell's own";
    EXPECT_NE(ssat_reg_mod_cmd("direct", "two words", 0, "$n", print_pid), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "a", 0, "a=%f", print_pid), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "a", 0, "two\nlines", print_pid), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "a", 0, "$n", nullptr), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", nullptr, 0, "$n", print_pid), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "a", 0, nullptr, print_pid), 0);
    tq_loop_free(own.master);
}

TEST_F(ssat_session, the_client_refuses_lines_that_have_no_single_answer)
{
    for (const char *line : {"", "  \t", "count\ncount", "\r"})
        EXPECT_EQ(client.run(line), strerror(EINVAL)) << line;
    EXPECT_EQ(client.run("count"), "ok: 1");
}

} // namespace
