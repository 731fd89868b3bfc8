#include "module.hpp"

#include "capture.hpp"
#include "counters.hpp"
#include "directory.hpp"
#include "log.hpp"
#include "tq_context.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>

namespace ssat {

namespace {

constexpr size_t most_sessions = 8;
bool command_runs = false;

struct running {
    running() { command_runs = true; }
    ~running() { command_runs = false; }
};

// No exception of a handler may reach the loop.
int call(ssat_handler handler, const std::vector<ssat_value> &values)
{
    const running now;
    try {
        return handler(static_cast<int>(values.size()), values.data());
    } catch (...) {
        return -1;
    }
}

answer call_captured(ssat_handler handler, const std::vector<ssat_value> &values)
{
    capture output;
    if (!output)
        return make_answer("failed", std::string("standard output cannot be taken: ") + strerror(errno) + '\n');
    const int result = call(handler, values);

    answer answer;
    bool cut = false;
    ++counted().commands;
    answer.output = output.finish(answer.output_size, cut);
    counted().cut += cut;
    answer.text = (result == 0 ? "ok " : "failed ") + std::to_string(answer.output_size) + (cut ? " cut\n" : "\n");
    return answer;
}

std::string help_line(const command &command)
{
    return usage(command) + '\t' + command.description + '\n';
}

answer unknown(const std::string &name)
{
    return make_answer("unknown", "no command is named '" + name + "'; help lists the commands\n");
}

void refuse(int connection, const char *reason)
{
    const answer denied = make_answer("denied", reason);
    send(connection, denied.text.data(), denied.text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

bool may_enter(int connection)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == geteuid() || peer.uid == 0))
        return true;
    ++counted().denied;
    refuse(connection, "this module belongs to another user\n");
    const std::string who = "uid " + std::to_string(peer.uid) + ", pid " + std::to_string(peer.pid);
    log(TQ_ZLOG_WARN, __func__, ("refused a connection of " + who).c_str());
    return false;
}

// A shell must not take what the store needs to come back: a connection for calls, one for changes, and a file.
bool descriptors_to_spare(int connection)
{
    std::array<owned_fd, 3> spare;
    for (auto &each : spare)
        each = owned_fd(fcntl(connection, F_DUPFD_CLOEXEC, 0));
    return static_cast<bool>(spare.back());
}

} // namespace

bool busy()
{
    return command_runs;
}

std::unique_ptr<module> module::open(void *context, const char *name)
{
    std::unique_ptr<module> opened(new module(context));
    opened->master_ = static_cast<tq_context *>(context)->master;
    opened->directory_ = open_directory(true);
    if (!opened->directory_)
        return nullptr;
    opened->listener_ = listen_as(opened->directory_.get(), name, opened->file_name_);
    if (!opened->listener_)
        return nullptr;
    opened->owner_ = getpid();
    opened->watch_ =
        tq_loop_watch_fd(opened->master_, opened->listener_.get(), TQ_LOOP_READABLE, on_connection, opened.get());
    errno = ENOMEM;
    return opened->watch_ ? std::move(opened) : nullptr;
}

module::~module()
{
    remove_socket();
    tq_loop_unwatch(watch_);
}

void module::remove_socket()
{
    if (owner_ == getpid())
        unlinkat(directory_.get(), file_name_.c_str(), 0);
}

int module::add(command &&added)
{
    std::string name = added.name;
    return commands_.try_emplace(std::move(name), std::move(added)).second ? 0 : EEXIST;
}

answer module::run(std::string_view line)
{
    std::vector<word> words;
    if (const std::string error = split_line(line, words); !error.empty())
        return make_answer("usage", error + '\n');
    if (words.empty())
        return {};
    const std::string &name = words.front().text;
    const auto arguments = std::span<const word>(words).subspan(1);
    if (name == "help")
        return help(arguments);
    const auto found = commands_.find(name);
    if (found == commands_.end() && name == "counters" && arguments.empty())
        return make_answer("ok", list_counters(context_));
    if (found == commands_.end())
        return unknown(name);

    std::vector<ssat_value> values;
    if (const std::string error = bind_arguments(found->second, arguments, values); !error.empty())
        return make_answer("usage", error + "\nusage: " + usage(found->second) + '\n');
    return call_captured(found->second.handler, values);
}

answer module::help(std::span<const word> names) const
{
    if (names.size() > 1)
        return make_answer("usage", "usage: help [COMMAND]\n");
    std::string text;
    for (const auto &[name, command] : commands_)
        if (names.empty() || names.front().text == name)
            text += help_line(command);
    if (text.empty() && !names.empty() && names.front().text == "counters")
        text = counters_help;
    return text.empty() && !names.empty() ? unknown(names.front().text) : make_answer("ok", text);
}

std::list<std::unique_ptr<session>>::iterator module::place_of(const session &wanted)
{
    return std::ranges::find(sessions_, &wanted, [](const auto &held) { return held.get(); });
}

void module::drop(const session &gone)
{
    sessions_.erase(place_of(gone));
}

void module::touch(const session &active)
{
    sessions_.splice(sessions_.end(), sessions_, place_of(active));
}

void module::on_connection(tq_loop_watch *, int, int, void *arg)
try {
    if (!busy())
        static_cast<module *>(arg)->accept_one();
} catch (...) {
    log(TQ_ZLOG_ERROR, __func__, "no memory for another connection");
}

void module::accept_one()
{
    owned_fd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!connection) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
            pause_listening();
        return;
    }
    if (!may_enter(connection.get()))
        return;
    if (!descriptors_to_spare(connection.get()))
        return refuse(connection.get(), "no file descriptor is free for another session\n");
    if (sessions_.size() == most_sessions) {
        sessions_.pop_front();
        ++counted().dropped;
    }
    sessions_.push_back(std::make_unique<session>(*this, std::move(connection)));
    if (!sessions_.back()->start(master_))
        sessions_.pop_back();
}

// The waiting connection stays readable: without a pause the loop would spin until a descriptor is free.
void module::pause_listening()
{
    constexpr timeval pause{1, 0};
    if (tq_thread_insert_timer_timeval(master_, nullptr, on_pause_end, this, &pause, "ssat") == 0)
        tq_loop_watch_events(watch_, 0);
}

int module::on_pause_end(tq_thread *timer)
{
    return tq_loop_watch_events(static_cast<module *>(tq_thread_arg(timer))->watch_, TQ_LOOP_READABLE);
}

} // namespace ssat
