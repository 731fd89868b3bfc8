// See signals.hpp.
#include "signals.hpp"

#include <csignal>
#include <stdexcept>
#include <sys/signalfd.h>
#include <unistd.h>

namespace plx::tool {

namespace {

int signal_descriptor(bool others)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    for (const int signal : {SIGHUP, SIGUSR1})
        if (others)
            sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

StopOnSignal::StopOnSignal(tq_thread_master *master, std::function<void(int)> other)
    : master_(master), other_(std::move(other)), fd_(signal_descriptor(static_cast<bool>(other_))),
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
    const int signal = static_cast<int>(info.ssi_signo);
    if (signal == SIGHUP || signal == SIGUSR1)
        return self->other_(signal);
    if (self->signal_ == 0)
        self->signal_ = signal;
    tq_loop_stop(self->master_);
}

} // namespace plx::tool
