// One connection to a module: lines in, answers out, never more than one of either in memory.
//
// While an answer waits for its reader nothing more is read, so a client that does not read costs one bounded answer.
// Each pass of the loop runs at most one command of a session. A broken connection ends the session and nothing else.
#ifndef PLX_SSAT_SESSION_HPP
#define PLX_SSAT_SESSION_HPP

#include "owned_fd.hpp"
#include "tq_loop.h"

#include <cstddef>
#include <string>

namespace ssat {

class module;

constexpr size_t longest_line = 4096; // bytes, without the line end

// What goes back: a text (with the header), then what a command printed.
struct answer {
    std::string text;
    owned_fd output;
    size_t output_size = 0;
    size_t sent = 0;

    size_t size() const { return text.size() + output_size; }
    bool done() const { return sent == size(); }
};

answer make_answer(const char *status, const std::string &body);

class session {
  public:
    session(module &owner, owned_fd connection) : module_(owner), connection_(std::move(connection)) {}
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    [[nodiscard]] bool start(tq_thread_master *master);

  private:
    static void on_event(tq_loop_watch *watch, int fd, int events, void *arg);
    [[nodiscard]] bool advance(bool readable); // false: the session is over
    [[nodiscard]] bool receive();
    [[nodiscard]] bool send_more();
    void answer_line();
    bool has_line() const { return input_.find('\n') != std::string::npos; }

    module &module_;
    owned_fd connection_;
    tq_loop_watch *watch_ = nullptr;
    std::string input_;
    answer answer_;
    bool overlong_ = false; // the rest of a line that is too long is being skipped
    bool ended_ = false;    // the client sends no more
};

} // namespace ssat

#endif
