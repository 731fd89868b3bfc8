// A YAML document as a tree that knows where each of its parts stands in the file.
//
// The tree is built from the parser's events under limits, since a policy file may come from anywhere: bytes of the
// file, depth, parts and their text. An alias shares the items of what it names and spends as if it had copied them, so
// that a tree takes memory in proportion to its file, and reading it takes time within the limits.
#pragma once

#include <cstdint>
#include <memory>
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

    using List = std::vector<Part>;

    // Of a list: its items; of a map: key, value, key, value ...
    const List &parts() const;

    Kind kind = Kind::null;
    Position at;
    std::string text{}; // of a scalar
    std::shared_ptr<const List> shared{};
};

// What is wrong with a file. Errors are gathered, so that one run shows all of them, or the first of very many.
class Errors {
  public:
    static constexpr size_t most_shown = 20;

    void add(Position at, std::string message);
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    // There are as many as are shown: no trouble need be taken over another one's words.
    bool full() const { return count_ >= most_shown; }
    // One "file:line:column: message" each, in the order of the file, and how many more there are.
    std::vector<std::string> lines(std::string_view file) const;

  private:
    struct Error {
        Position at;
        std::string message;
    };
    std::vector<Error> errors_; // the first in the file, in order
    size_t count_ = 0;
};

// The text in quotes, with bytes that a terminal might act on escaped and cut where it gets long.
std::string quoted(std::string_view text);

// Reads a file whole. False, with an error, when it cannot be read or is larger than a policy may be.
bool read_file(const std::string &path, std::string &content, Errors &errors);

// The only document of `content`. On false the errors tell why, and `root` is not to be used.
bool parse_document(const std::string &content, Part &root, Errors &errors);

} // namespace plx::tool
