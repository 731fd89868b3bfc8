#include "session.hpp"

#include "module.hpp"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace ssat {

namespace {

bool would_block()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// The next piece of an answer: its text, then its output, through `buffer`.
std::string_view next_piece(const answer &answer, char *buffer, size_t size)
{
    if (answer.sent < answer.text.size())
        return std::string_view(answer.text).substr(answer.sent);
    const size_t offset = answer.sent - answer.text.size();
    const ssize_t got =
        pread(answer.output.get(), buffer, std::min(size, answer.output_size - offset), static_cast<off_t>(offset));
    return {buffer, got > 0 ? static_cast<size_t>(got) : 0};
}

} // namespace

answer make_answer(const char *status, const std::string &body)
{
    answer answer;
    answer.text = std::string(status) + ' ' + std::to_string(body.size()) + '\n' + body;
    return answer;
}

session::~session()
{
    tq_loop_unwatch(watch_);
}

bool session::start(tq_thread_master *master)
{
    watch_ = tq_loop_watch_fd(master, connection_.get(), TQ_LOOP_READABLE, on_event, this);
    return watch_;
}

void session::on_event(tq_loop_watch *, int, int events, void *arg)
{
    auto *self = static_cast<session *>(arg);
    bool alive = false;
    try {
        alive = self->advance(events & TQ_LOOP_READABLE);
    } catch (...) {
        // This client is given up; what the module holds is untouched.
    }
    if (!alive)
        self->module_.drop(*self);
}

bool session::advance(bool readable)
{
    if (busy())
        return true; // a command that runs the loop: its own session, and everybody else's, waits for it
    module_.touch(*this);
    if (readable && !receive())
        return false;
    if (answer_.done() && has_line())
        answer_line();
    if (!send_more())
        return false;
    const bool to_do = !answer_.done() || has_line();
    if (!to_do && ended_)
        return false;
    return tq_loop_watch_events(watch_, to_do ? TQ_LOOP_WRITABLE : TQ_LOOP_READABLE) == 0;
}

bool session::receive()
{
    char buffer[longest_line + 1];
    const ssize_t got = recv(connection_.get(), buffer, sizeof buffer - input_.size(), MSG_DONTWAIT);
    if (got < 0)
        return would_block();
    ended_ = got == 0;
    input_.append(buffer, static_cast<size_t>(got));
    if (!has_line() && input_.size() > longest_line) {
        overlong_ = true;
        input_.clear();
    }
    return true;
}

void session::answer_line()
{
    const size_t end = input_.find('\n');
    std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    if (line.ends_with('\r'))
        line.pop_back();
    if (std::exchange(overlong_, false))
        answer_ = make_answer("usage", "a line has at most " + std::to_string(longest_line) + " bytes\n");
    else
        answer_ = module_.run(line);
}

bool session::send_more()
{
    char buffer[16384];
    while (!answer_.done()) {
        const std::string_view piece = next_piece(answer_, buffer, sizeof buffer);
        if (piece.empty())
            return false;
        const ssize_t sent = send(connection_.get(), piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0)
            return would_block();
        answer_.sent += static_cast<size_t>(sent);
    }
    answer_ = answer();
    return true;
}

} // namespace ssat
