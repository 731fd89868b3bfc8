// See process.hpp.
#include "process.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pty.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

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
    execv(program.c_str(), argv.data());
    _exit(126);
}

void redirect(int fd, const std::string &path)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0 || dup2(file, fd) < 0)
        _exit(125);
}

int wait_for(pid_t child)
{
    int status = 0;
    if (waitpid(child, &status, 0) != child)
        throw std::runtime_error("waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

std::ostream &operator<<(std::ostream &stream, const Result &result)
{
    return stream << result.exit_code << " out \"" << result.out << "\" err \"" << result.err << '"';
}

Result run_program(const std::string &program, const std::vector<std::string> &arguments,
                   const std::map<std::string, std::string> &environment)
{
    const TemporaryDirectory directory;
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child == 0) {
        redirect(STDOUT_FILENO, directory.path() + "/out");
        redirect(STDERR_FILENO, directory.path() + "/err");
        exec(program, arguments, environment);
    }
    const int exit_code = wait_for(child);
    return {exit_code, directory.read("out"), directory.read("err")};
}

Result run_plx(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment)
{
    return run_program(PLX_PROGRAM, arguments, environment);
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

Result run_plx_on_terminal(const std::vector<std::string> &arguments)
{
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child < 0)
        throw std::runtime_error("forkpty");
    if (child == 0)
        exec(PLX_PROGRAM, arguments, {});
    Result result;
    std::array<char, 4096> buffer;
    ssize_t got = 0;
    while ((got = read(terminal, buffer.data(), buffer.size())) > 0)
        result.out.append(buffer.data(), static_cast<size_t>(got));
    close(terminal);
    result.exit_code = wait_for(child);
    return result;
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
