// `plx shell` from outside: what it prints, where, and its exit codes; on a terminal too.
#include "ssat_server.hpp"

#include <cstdlib>
#include <poll.h>
#include <pty.h>

namespace {

using plx::tool::Result;

// What a terminal shows until `wanted` appears, or the other end is closed.
std::string read_until(int terminal, const std::string &wanted)
{
    std::string text;
    char buffer[256];
    for (pollfd waiting{terminal, POLLIN, 0}; text.find(wanted) == text.npos && poll(&waiting, 1, 10000) > 0;) {
        const ssize_t got = read(terminal, buffer, sizeof buffer);
        if (got <= 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

void type(int terminal, std::string_view keys)
{
    EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

struct shell_command : shell_test {
    shell_command()
    {
        setenv("HOME", root.c_str(), 1);
        setenv("TERM", "vt100", 1);
    }

    static Result run(const std::string &arguments)
    {
        return plx::tool::run_program("/bin/sh", {"-c", PLX_PROGRAM " shell " + arguments});
    }
};

TEST_F(shell_command, one_command_prints_its_output_and_ends_with_its_answer)
{
    const server app(module_name, root / "app");
    EXPECT_EQ(run("app.fp flood 50000").err, "plx shell: the command printed more than the module keeps\n");
    EXPECT_EQ(run("app.fp values name='two words' -7 mask=ff"), (Result{0, "3:two words,-7,ff\n", ""}));
    EXPECT_EQ(run("app.fp 'values a 1 1'"), (Result{0, "3:a,1,1\n", ""}));
    EXPECT_EQ(run("app.fp fail"), (Result{3, "ok 0\n", ""}));
    EXPECT_EQ(run("app.fp pid now"), (Result{1, "", "one argument too many: 'now'\nusage: pid\n"}));
    EXPECT_EQ(run("app.fp shell"), (Result{1, "", "no command is named 'shell'; help lists the commands\n"}));
    EXPECT_EQ(run("app.fp flood 2"), (Result{0, "0123456789abcde\n0123456789abcde\n", ""}));
}

TEST_F(shell_command, without_a_module_the_living_ones_are_listed)
{
    EXPECT_EQ(run(""), (Result{0, "", "plx shell: no module is alive\n"}));
    const server app(module_name, root / "app"), odd("../\x1b[31m odd", root / "odd");
    server dead("dead.fp", root / "dead");
    dead.crash();
    EXPECT_EQ(run(""), (Result{0, "../?[31m odd\napp.fp\n", ""}));
}

TEST_F(shell_command, a_module_that_is_not_there_is_an_error)
{
    EXPECT_EQ(run("app.fp help"), (Result{5, "", "plx shell: app.fp: no such module is alive\n"}));
    EXPECT_EQ(run("app.fp </dev/null"), (Result{5, "", "plx shell: app.fp: no such module is alive\n"}));
}

TEST_F(shell_command, lines_of_a_pipe_are_run_and_the_first_failure_is_the_exit_code)
{
    const server app(module_name, root / "app");
    EXPECT_EQ(run("app.fp <" + files.write("lines", "count\n\nfail\nnothing\ncount\n")),
              (Result{3, "1ok 0\n2", "no command is named 'nothing'; help lists the commands\n"}));
}

TEST_F(shell_command, a_terminal_gets_completion_and_history)
{
    const server app(module_name, root / "app");
    if (!plx::tool::has_terminals())
        GTEST_SKIP() << "this machine gives no terminals";
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        execl(PLX_PROGRAM, PLX_PROGRAM, "shell", "app.fp", nullptr);
        _exit(127);
    }
    EXPECT_NE(read_until(terminal, "app.fp> ").find("app.fp> "), std::string::npos);
    type(terminal, "va\tna\tx 5 m\t1f\n");
    EXPECT_NE(read_until(terminal, "3:x,5,1f").find("3:x,5,1f"), std::string::npos);
    type(terminal, "f\t\t");
    const std::string listed = read_until(terminal, "flood\r\n");
    EXPECT_NE(listed.find("fail\r\nflood\r\n"), std::string::npos) << listed;
    type(terminal, "\x15\x10\n"); // clear the line, previous line
    EXPECT_NE(read_until(terminal, "3:x,5,1f").find("3:x,5,1f"), std::string::npos);
    type(terminal, "quit\n");
    int status = -1;
    read_until(terminal, "never");
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    close(terminal);
    EXPECT_NE(files.read(".plx_shell_history").find("values"), std::string::npos);
}

} // namespace
