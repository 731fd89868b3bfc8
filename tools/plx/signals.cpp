// See signals.hpp.
#include "signals.hpp"

#include <csignal>
#include <stdexcept>
#include <sys/signalfd.h>
#include <unistd.h>

namespace plx::tool {

namespace {

int signal_descriptor(bool again)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (again)
        sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

StopOnSignal::StopOnSignal(tq_thread_master *master, std::function<void()> again)
    : master_(master), again_(std::move(again)), fd_(signal_descriptor(static_cast<bool>(again_))),
      watch_(fd_ < 0 ? nullptr : tq_loop_watch_fd(master, fd_, TQ_LOOP_READABLE, &StopOnSignal::on_signal, this))
{
    if (watch_ == nullptr) {
        close(fd_);
        throw std::runtime_error("cannot watch for signals");
    }
}

StopOnSignal::~StopOnSignal()
{
    tq_loop_unwatch(watch_);
    close(fd_);
}

void StopOnSignal::on_signal(tq_loop_watch *, int fd, int, void *arg)
{
    auto *self = static_cast<StopOnSignal *>(arg);
    signalfd_siginfo info;
    if (read(fd, &info, sizeof info) != sizeof info)
        return;
    if (info.ssi_signo == SIGHUP)
        return self->again_();
    if (self->signal_ == 0)
        self->signal_ = static_cast<int>(info.ssi_signo);
    tq_loop_stop(self->master_);
}

} // namespace plx::tool
