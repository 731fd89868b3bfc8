// See small_file.hpp.
#include "small_file.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mom {
namespace {

struct owned_fd {
    explicit owned_fd(int number) : fd(number) {}
    ~owned_fd()
    {
        if (fd >= 0)
            close(fd);
    }
    owned_fd(const owned_fd &) = delete;
    owned_fd &operator=(const owned_fd &) = delete;
    const int fd;
};

} // namespace

std::string read_small_file(const std::string &path, size_t limit, std::string &trouble)
{
    const owned_fd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat found {};
    if (file.fd < 0 || fstat(file.fd, &found) != 0)
        return trouble = std::strerror(errno), std::string();
    if (!S_ISREG(found.st_mode))
        return trouble = "it is no file", std::string();
    std::string text(std::min(limit, static_cast<size_t>(found.st_size)), '\0');
    const ssize_t size = read(file.fd, text.data(), text.size());
    if (size < 0)
        return trouble = std::strerror(errno), std::string();
    text.resize(static_cast<size_t>(size));
    if (text.empty())
        trouble = "it is empty";
    return text;
}

} // namespace mom
