// See process.hpp.
#include "process.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

namespace plx::tool {

namespace {

[[noreturn]] void exec(const std::string &program, const std::vector<std::string> &arguments,
                       const std::map<std::string, std::string> &environment)
{
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    unsetenv("PLX_STORE");
    for (const auto &[name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    execvp(program.c_str(), argv.data());
    _exit(126);
}

void redirect(int fd, const std::string &path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, fd) < 0)
        _exit(125);
}

int exit_code_of(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

struct Descriptor {
    int fd;
    ~Descriptor() { close(fd); }
};

} // namespace

Process::Process(const std::string &program, const std::vector<std::string> &arguments,
                 const std::map<std::string, std::string> &environment)
{
    start([&] {
        redirect(STDOUT_FILENO, files_.path() + "/out");
        redirect(STDERR_FILENO, files_.path() + "/err");
        exec(program, arguments, environment);
    });
}

Process::Process(const std::function<void()> &body)
{
    start(body);
}

void Process::start(const std::function<void()> &body)
{
    const pid_t parent = getpid();
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("fork");
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent)
        body();
    _exit(125);
}

Process::~Process()
{
    if (!running())
        return;
    signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Process::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

bool Process::running()
{
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == 0)
        return pid_ > 0;
    pid_ = 0;
    exit_code_ = exit_code_of(status);
    return false;
}

int Process::wait(int seconds)
{
    if (!wait_for([this] { return !running(); }, seconds))
        throw std::runtime_error("it still runs: " + err());
    return exit_code_;
}

bool Process::wait_for(const std::function<bool()> &done, int seconds, const std::string &directory)
{
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const Descriptor changes{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    inotify_add_watch(changes.fd, (directory.empty() ? files_.path() : directory).c_str(), IN_CREATE | IN_MODIFY);
    while (!done()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(give_up - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !running())
            return done();
        const Descriptor end{static_cast<int>(syscall(SYS_pidfd_open, pid_, 0))};
        pollfd events[] = {{changes.fd, POLLIN, 0}, {end.fd, POLLIN, 0}};
        poll(events, std::size(events), static_cast<int>(left.count()));
        for (char buffer[4096]; read(changes.fd, buffer, sizeof buffer) > 0;)
            continue;
    }
    return true;
}

bool Process::says(const std::string &text)
{
    return wait_for([&] { return err().find(text) != std::string::npos; });
}

std::ostream &operator<<(std::ostream &stream, const Result &result)
{
    return stream << result.exit_code << " out \"" << result.out << "\" err \"" << result.err << '"';
}

Result run_program(const std::string &program, const std::vector<std::string> &arguments,
                   const std::map<std::string, std::string> &environment)
{
    Process process(program, arguments, environment);
    const int exit_code = process.wait();
    return {exit_code, process.out(), process.err()};
}

bool has_terminals()
{
    int terminal = -1;
    int other = -1;
    if (openpty(&terminal, &other, nullptr, nullptr, nullptr) != 0)
        return false;
    close(terminal);
    close(other);
    return true;
}

Terminal::Terminal(const std::string &program, const std::vector<std::string> &arguments)
{
    int other = -1;
    if (openpty(&fd_, &other, nullptr, nullptr, nullptr) != 0)
        throw std::runtime_error("openpty");
    process_.emplace([&] {
        close(fd_);
        login_tty(other);
        exec(program, arguments, {});
    });
    close(other);
}

Terminal::~Terminal()
{
    close(fd_);
}

std::string Terminal::read_until(const std::string &wanted)
{
    std::string text;
    char buffer[256];
    for (pollfd waiting{fd_, POLLIN, 0}; text.find(wanted) == text.npos && poll(&waiting, 1, 10000) > 0;) {
        const ssize_t got = read(fd_, buffer, sizeof buffer);
        if (got <= 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

void Terminal::type(const std::string &keys) const
{
    if (write(fd_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
        throw std::runtime_error("typing");
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string pattern = std::filesystem::temp_directory_path() / "plx-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::write(const std::string &name, const std::string &content) const
{
    const std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string TemporaryDirectory::read(const std::string &name) const
{
    std::ifstream file(path_ + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace plx::tool
