// What the applications of a type that run on this machine have cached, as their debug shells tell it: sums, and the
// records of a part. A shell is asked that this user may talk to, of an application that has registered the library's
// own commands. Its answers are another program's text, and checked.
#pragma once

#include "records/digest.hpp"
#include "shell_module.hpp"
#include <memory>
#include <optional>

namespace plx::tool {

struct CachedRecord {
    Key key;
    uint64_t request = 0; // identifier of its last write; 0: this program did not write it
};

class Cache {
  public:
    Cache(std::string module, std::string app) : shell_(std::move(module)), app_(std::move(app)) {}

    std::string name() const; // the program's

    // Whether the program has the application's type, and what it has of it; false with a text: it does not answer.
    bool read(std::optional<PartDigests> &sums, std::string &error);
    bool read_part(uint32_t part, std::vector<CachedRecord> &records, std::string &error);

  private:
    bool ask(const std::string &part, ShellAnswer &answer, std::string &error);

    ShellModule shell_;
    std::string app_;
};

// One for each program that may have the type. An errno value.
int find_caches(const std::string &app, std::vector<std::unique_ptr<Cache>> &caches);

} // namespace plx::tool
