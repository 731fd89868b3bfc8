// A module of the debug shell in a process of its own, with commands that print, fail, flood and misbehave, and a
// client; a directory for both.
//
// The process ends when the server object goes, in an orderly way (so that leak checks see it) unless crash() was
// asked.
#ifndef PLX_TESTS_SSAT_SERVER_HPP
#define PLX_TESTS_SSAT_SERVER_HPP

#include "ssat.h"
#include "ssat_client.h"
#include "support/process.hpp"
#include "tq_context.h"
#include "tq_loop.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char module_name[] = "app.fp";
constexpr uid_t nobody = 65534;
tq_context context;
int calls = 0;

int print_pid(int, const ssat_value *)
{
    printf("%d\n", getpid());
    return 0;
}

int flood(int, const ssat_value *argv)
{
    for (uint32_t i = 0; i < argv[0].x; ++i)
        printf("0123456789abcde\n");
    return 0;
}

int throw_error(int, const ssat_value *)
{
    printf("before");
    throw std::runtime_error("handler");
}

int run_loop(int, const ssat_value *)
{
    printf("in ");
    for (int i = 0; i < 20; ++i)
        tq_loop_run_once(context.master, 1);
    printf("out");
    return 0;
}

int register_commands()
{
    const struct {
        const char *name, *description;
        ssat_handler handler;
    } commands[] = {
        {"values", "name=%s, id=%d, mask=%x, $n",
         [](int n, const ssat_value *v) { return printf("%d:%s,%d,%x\n", n, v[0].s, v[1].d, v[2].x) < 0 ? 1 : 0; }},
        {"pid", "tell the process", print_pid},
        {"count", "$n", [](int, const ssat_value *) { return printf("%d", ++calls) < 0 ? 1 : 0; }},
        {"fail", "$n", [](int, const ssat_value *) { return printf("ok 0\n") < 0 ? 0 : -1; }},
        {"flood", "lines=%x", flood},
        {"throw", "$n", throw_error},
        {"loop", "$n", run_loop},
        {"straight", "$n", [](int, const ssat_value *) { return write(STDOUT_FILENO, "straight", 8) == 8 ? 0 : -1; }}};
    for (const auto &[name, description, handler] : commands)
        if (const int error = ssat_reg_mod_cmd(module_name, name, 0, description, handler))
            return error;
    return 0;
}

void stop_loop(tq_loop_watch *, int, int, void *arg)
{
    tq_loop_stop(static_cast<tq_thread_master *>(arg));
}

// What the module's process does until `until` is closed at its other end. Standard output goes to a file.
[[noreturn]] void serve(const char *module, int until, const std::string &output, uid_t user)
{
    signal(SIGPIPE, SIG_DFL);
    if (!freopen(output.c_str(), "w", stdout) || setuid(user) != 0)
        _exit(2);
    prctl(PR_SET_DUMPABLE, 1); // so that the leak check may look
    printf("begin ");
    context.master = tq_loop_new();
    const int error = ssat_lib_init(&context, module);
    if (error == 0 && strcmp(module, module_name) == 0 && register_commands() != 0)
        _exit(3);
    tq_loop_watch_fd(context.master, until, TQ_LOOP_READABLE, stop_loop, context.master);
    if (write(until, &error, sizeof error) != sizeof error || error != 0)
        exit(1);
    tq_loop_run(context.master);
    printf("end");
    tq_loop_free(context.master);
    exit(0);
}

class server {
  public:
    server(const char *module, const std::string &output, uid_t user = geteuid())
    {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        process_.emplace([&] {
            close(fds[0]);
            serve(module, fds[1], output, user);
        });
        pid = process_->pid();
        close(fds[1]);
        until_ = fds[0];
        EXPECT_EQ(read(until_, &error, sizeof error), static_cast<ssize_t>(sizeof error));
    }
    ~server() { stop(); }
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    void crash() { process_.reset(); }
    // 0 for an orderly end.
    int stop()
    {
        if (until_ >= 0)
            close(until_);
        until_ = -1;
        return process_ ? process_->wait() : 0;
    }

    pid_t pid;
    int error = -1;

  private:
    int until_;
    std::optional<plx::tool::Process> process_;
};

struct connection {
    int fd;
    explicit connection(const std::string &module = module_name) : fd(ssat_client_connect(module.c_str())) {}
    explicit connection(int taken) : fd(taken) {}
    ~connection()
    {
        if (fd >= 0)
            close(fd);
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    // "ok: text", with a mark where output was cut.
    std::string run(const char *line) const
    {
        constexpr const char *names[] = {"ok", "failed", "usage", "unknown", "denied"};
        std::string text;
        int cut = 0;
        const auto append = [](const char *piece, size_t size, void *arg) {
            static_cast<std::string *>(arg)->append(piece, size);
        };
        const int status = ssat_client_run(fd, line, append, &text, &cut);
        if (status < 0)
            return strerror(errno);
        return names[status] + std::string(": ") + text + (cut ? "[cut]" : "");
    }
    void send_raw(std::string_view bytes) const
    {
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    std::string receive_all() const
    {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        std::string text;
        char buffer[4096];
        for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            text.append(buffer, static_cast<size_t>(got));
        return text;
    }
};

// Modules have their sockets in a directory of the case's own.
struct shell_test : testing::Test {
    const plx::tool::TemporaryDirectory files;
    const std::filesystem::path root = files.path(), directory = root / "shell";

    shell_test() { setenv("PLX_SHELL_DIR", directory.c_str(), 1); }
};

} // namespace

#endif
