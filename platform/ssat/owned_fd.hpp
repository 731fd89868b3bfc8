// A descriptor that is closed with its owner.
#ifndef PLX_SSAT_OWNED_FD_HPP
#define PLX_SSAT_OWNED_FD_HPP

#include <unistd.h>
#include <utility>

namespace ssat {

class owned_fd {
  public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd) {}
    owned_fd(owned_fd &&other) noexcept : fd_(other.release()) {}
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~owned_fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

} // namespace ssat

#endif
