// See shell_module.hpp.
#include "shell_module.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ssat_client.h>
#include <unistd.h>

namespace plx::tool {

namespace {

void append(const char *text, size_t size, void *answer)
{
    static_cast<ShellAnswer *>(answer)->text.append(text, size);
}

} // namespace

ShellAnswer ShellModule::ask(const std::string &line)
{
    ShellAnswer answer;
    if (fd_ < 0)
        fd_ = ssat_client_connect(name_.c_str());
    if (fd_ >= 0)
        answer.status = ssat_client_run(fd_, line.c_str(), append, &answer, &answer.cut);
    answer.error = errno;
    if (answer.status < 0 || answer.status == SSAT_DENIED)
        hang_up();
    return answer;
}

void ShellModule::hang_up()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

std::string shell_error(int error)
{
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return "no such module is alive";
    case EPERM:
        return "the directory of sockets is open to others or not yours";
    case ECONNRESET:
        return "the module went away";
    case ETIMEDOUT:
        return "the module does not answer";
    case EINVAL:
        return "a command is one line and not blank";
    default:
        return std::strerror(error);
    }
}

int shell_modules(std::vector<std::string> &names)
{
    const auto add = [](const char *module, void *arg) {
        static_cast<std::vector<std::string> *>(arg)->emplace_back(module);
    };
    const int error = ssat_client_modules(add, &names);
    std::ranges::sort(names);
    return error;
}

} // namespace plx::tool
