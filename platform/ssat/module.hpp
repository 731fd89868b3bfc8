// A module of the shell: its commands, its listening socket and the people connected to it.
//
// Modules live as long as the process, as their commands do. Everything runs from the application's event loop, one
// command at a time over all modules, because standard output is taken while a command runs.
#ifndef PLX_SSAT_MODULE_HPP
#define PLX_SSAT_MODULE_HPP

#include "command.hpp"
#include "owned_fd.hpp"
#include "session.hpp"
#include "tq_loop.h"

#include <list>
#include <map>
#include <memory>
#include <string>

namespace ssat {

// A command is running, and has standard output: nothing else of the shell may.
bool busy();

class module {
  public:
    // None, with errno set, when the socket cannot be had.
    static std::unique_ptr<module> open(void *context, const char *name);
    ~module();
    module(const module &) = delete;
    module &operator=(const module &) = delete;

    const void *context() const { return context_; }
    void remove_socket();
    [[nodiscard]] int add(command &&added); // 0 or an errno value

    // Runs one line. The answer to a blank line is empty.
    answer run(std::string_view line);

    void drop(const session &gone);
    void touch(const session &active); // the others are dropped before it when connections run out

  private:
    explicit module(void *context) : context_(context) {}
    static void on_connection(tq_loop_watch *watch, int fd, int events, void *arg);
    static int on_pause_end(tq_thread *timer);
    void accept_one();
    void pause_listening();
    answer help(std::span<const word> names) const;
    std::list<std::unique_ptr<session>>::iterator place_of(const session &wanted);

    void *context_;
    tq_thread_master *master_ = nullptr;
    std::string file_name_;
    owned_fd directory_, listener_;
    pid_t owner_ = 0; // a forked child does not remove its parent's socket
    tq_loop_watch *watch_ = nullptr;
    std::map<std::string, command, std::less<>> commands_;
    std::list<std::unique_ptr<session>> sessions_; // least recently active first
};

} // namespace ssat

#endif
