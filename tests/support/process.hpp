// Programs and children of the test, and files for them: the one place that starts, awaits and ends a process.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <vector>

namespace plx::tool {

// A directory that goes away with its object.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    std::string write(const std::string &name, const std::string &content) const;
    std::string read(const std::string &name) const; // "" without such a file
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// A process beside the test. It is killed with the object, and with a test that dies.
class Process {
  public:
    // A program, looked for in the path, whose output goes to files of the object's own and can be read while it runs.
    // PLX_STORE is taken out of the environment unless it is given here.
    Process(const std::string &program, const std::vector<std::string> &arguments,
            const std::map<std::string, std::string> &environment = {});
    // A child that runs a function, on the outputs of the test.
    explicit Process(const std::function<void()> &body);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    bool running();

    // Waits until it ends; returns its exit code, minus the signal that ended it. Throws when it still runs
    // after so many seconds.
    int wait(int seconds = 280);

    // Waits until something is so, looking whenever a file of `directory` changes (of its outputs when none is given).
    // False when it does not become so in time or before the process ends.
    bool wait_for(const std::function<bool()> &done, int seconds = 60, const std::string &directory = "");
    // Waits for a text on its standard error.
    bool says(const std::string &text);

    std::string out() const { return files_.read("out"); }
    std::string err() const { return files_.read("err"); }

  private:
    void start(const std::function<void()> &body);

    TemporaryDirectory files_;
    pid_t pid_ = 0;
    int exit_code_ = 0;
};

struct Result {
    int exit_code = -1; // minus the signal's number when one ended it
    std::string out;
    std::string err;

    bool operator==(const Result &) const = default;
};
std::ostream &operator<<(std::ostream &stream, const Result &result);

Result run_program(const std::string &program, const std::vector<std::string> &arguments,
                   const std::map<std::string, std::string> &environment = {});

// False where no pseudo-terminal can be had, as in a root without /dev/pts.
bool has_terminals();

// A program on a terminal of its own, with all of its outputs.
class Terminal {
  public:
    Terminal(const std::string &program, const std::vector<std::string> &arguments);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    // What it shows until `wanted` appears among it, or it ends or is silent for ten seconds.
    std::string read_until(const std::string &wanted);
    void type(const std::string &keys) const;
    int wait() { return process_->wait(); }

  private:
    int fd_ = -1;
    std::optional<Process> process_;
};

} // namespace plx::tool
