// See loop_bell.hpp.
#include "loop_bell.hpp"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace mom {

loop_bell::loop_bell(tq_thread_master *master, tq_loop_func func, void *arg)
    : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ >= 0)
        watch_ = tq_loop_watch_fd(master, fd_, TQ_LOOP_READABLE, func, arg);
    if (watch_ == nullptr) {
        const int error = errno;
        close(fd_);
        throw std::system_error(error, std::generic_category());
    }
}

loop_bell::~loop_bell()
{
    tq_loop_unwatch(watch_);
    close(fd_);
}

void loop_bell::ring()
{
    if (!rung_)
        rung_ = eventfd_write(fd_, 1) == 0;
}

void loop_bell::silence()
{
    eventfd_t count = 0;
    eventfd_read(fd_, &count);
    rung_ = false;
}

} // namespace mom
