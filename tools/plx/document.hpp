// A YAML document as a tree that knows where each of its parts stands in the file.
//
// The tree is built from the parser's events under limits, since a policy file may come from anywhere: bytes of the
// file, depth, and parts after aliases have been replaced by copies of what they name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plx::tool {

struct Position { // counted from 1; 0 stands for the file as a whole
    int line = 0;
    int column = 0;
    auto operator<=>(const Position &) const = default;
};

struct Part {
    enum class Kind : uint8_t { null, scalar, list, map };

    Kind kind = Kind::null;
    Position at;
    std::string text{};        // of a scalar
    std::vector<Part> parts{}; // of a list: its items; of a map: key, value, key, value ...
};

// What is wrong with a file. Errors are gathered, so that one run shows all of them.
class Errors {
  public:
    void add(Position at, std::string message) { errors_.push_back({at, std::move(message)}); }
    bool empty() const { return errors_.empty(); }
    size_t size() const { return errors_.size(); }
    // One "file:line:column: message" each, in the order of the file.
    std::vector<std::string> lines(std::string_view file) const;

  private:
    struct Error {
        Position at;
        std::string message;
    };
    std::vector<Error> errors_;
};

// The text in quotes, with bytes that a terminal might act on escaped and cut where it gets long.
std::string quoted(std::string_view text);

// Reads a file whole. False, with an error, when it cannot be read or is larger than a policy may be.
bool read_file(const std::string &path, std::string &content, Errors &errors);

// The only document of `content`. On false the errors tell why, and `root` is not to be used.
bool parse_document(const std::string &content, Part &root, Errors &errors);

} // namespace plx::tool
