// See background.hpp.
#include "background.hpp"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace plx::tool {

namespace {

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void redirect(int fd, const std::string &path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, fd) < 0)
        _exit(125);
}

bool wait_until(int seconds, const std::function<bool()> &done)
{
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > give_up)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace

Background::Background(const std::string &program, std::vector<std::string> arguments,
                       const std::map<std::string, std::string> &environment)
{
    arguments.insert(arguments.begin(), program);
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect(STDOUT_FILENO, directory_.path() + "/out");
    redirect(STDERR_FILENO, directory_.path() + "/err");
    for (const auto &[name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    if (getppid() == parent)
        execv(program.c_str(), argv.data());
    _exit(126);
}

Background::~Background()
{
    if (!running())
        return;
    signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Background::signal(int number) const
{
    if (pid_ > 0)
        kill(pid_, number);
}

bool Background::running()
{
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == 0)
        return pid_ > 0;
    pid_ = 0;
    exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return false;
}

int Background::wait(int seconds)
{
    EXPECT_TRUE(wait_until(seconds, [this] { return !running(); })) << "it still runs: " << err();
    return exit_code_;
}

bool Background::says(const std::string &text)
{
    const auto said = [&] { return err().find(text) != std::string::npos; };
    return wait_until(20, [&] { return said() || !running(); }) && said();
}

std::string Background::out() const
{
    return content_of(directory_.path() + "/out");
}

std::string Background::err() const
{
    return content_of(directory_.path() + "/err");
}

} // namespace plx::tool
