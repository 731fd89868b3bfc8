// A program of ours beside the test: started, waited for, ended by a signal.
//
// Its output goes to files of the object's own, and can be read while it runs. It is killed with the object, and with a
// test that dies.
#pragma once

#include "tools/process.hpp"
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace plx::tool {

class Background {
  public:
    Background(const std::string &program, std::vector<std::string> arguments,
               const std::map<std::string, std::string> &environment);
    ~Background();
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;

    void signal(int number) const;

    // Waits until it ends and returns its exit code, minus the signal's number when one ended it; fails the test when
    // it still runs after so many seconds.
    int wait(int seconds = 60);
    bool running();

    // Waits for a text on its standard error; false when it does not come in 20 s or before the program ends.
    bool says(const std::string &text);

    std::string out() const;
    std::string err() const;

  private:
    TemporaryDirectory directory_;
    pid_t pid_ = -1;
    int exit_code_ = 0;
};

} // namespace plx::tool
