// Running plx as its users do, and files for it.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace plx::tool {

struct Result {
    int exit_code = -1; // minus the signal's number when one ended it
    std::string out;
    std::string err;

    bool operator==(const Result &) const = default;
};
std::ostream &operator<<(std::ostream &stream, const Result &result);

// PLX_STORE is taken out of the environment unless it is given here.
Result run_plx(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment = {});
Result run_program(const std::string &program, const std::vector<std::string> &arguments,
                   const std::map<std::string, std::string> &environment = {});

// False where no pseudo-terminal can be had, as in a root without /dev/pts.
bool has_terminals();

// Everything that plx writes to a terminal that it stands on with all of its outputs.
Result run_plx_on_terminal(const std::vector<std::string> &arguments);

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

} // namespace plx::tool
