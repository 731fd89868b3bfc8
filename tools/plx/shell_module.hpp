// A debug shell of a running program, from outside: which there are on this machine, and one that is asked.
#pragma once

#include <string>
#include <vector>

namespace plx::tool {

struct ShellAnswer {
    int status = -1; // enum ssat_status, or -1: `error` tells
    int error = 0;
    int cut = 0;
    std::string text;
};

// A module that is connected to when there is something to say, anew after a connection ended.
class ShellModule {
  public:
    explicit ShellModule(std::string name) : name_(std::move(name)) {}
    ~ShellModule() { hang_up(); }
    ShellModule(const ShellModule &) = delete;
    ShellModule &operator=(const ShellModule &) = delete;

    const std::string &name() const { return name_; }
    ShellAnswer ask(const std::string &line);

  private:
    void hang_up();

    std::string name_;
    int fd_ = -1;
};

// Adds the names of the modules alive, in order. 0 or an errno value.
int shell_modules(std::vector<std::string> &names);

// What an errno value of the shell's client means.
std::string shell_error(int error);

} // namespace plx::tool
