// A YAML document as a stream of events, each of which knows where it stands in the file.
//
// Nothing is kept of what was read but the parts that have an anchor, so that the length of a file has no bound of its
// own. A policy file may come from anywhere: the depth is bounded, and so is what aliases copy, in proportion to the
// file: an alias is delivered as the events of what it names, and costs as many.
#pragma once

#include "place.hpp"
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>
#include <yaml.h>

namespace plx::tool {

struct Position { // counted from 1; 0 stands for the file as a whole
    int line = 0;
    int column = 0;
    auto operator<=>(const Position &) const = default;
};

// What is wrong with a file. Errors are gathered, so that one run shows all of them, or the first of very many.
class Errors {
  public:
    static constexpr size_t most_shown = 20;

    void add(Position at, std::string message) { add(at, {}, 0, std::move(message)); }
    // A fault on a line of another file, which is named at `at`; line 0 stands for that file as a whole.
    void add(Position at, const std::string &file, int line, std::string message);
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    // There are as many as are shown: no trouble need be taken over another one's words.
    bool full() const { return count_ >= most_shown; }
    struct Told {
        Place place;
        std::string message;
    };
    // In the order of the file; behind the last, how many more there are.
    std::vector<Told> told(const std::string &file) const;

  private:
    struct Error {
        Position at;
        std::string file; // another one
        int line;         // in it
        std::string message;
        auto order() const { return std::pair(at, line); }
    };
    std::vector<Error> errors_; // the first in the file, in order
    size_t count_ = 0;
};

// Tells all of them, with their lines where the file can be read again: it is a regular one.
void tell(const Errors &errors, const std::string &file);
// The same for what is no fault.
void tell_warnings(const Errors &warnings, const std::string &file);

// The text in quotes, with bytes that a terminal might act on escaped and cut where it gets long.
std::string quoted(std::string_view text);

// What is wrong with the last call of the system.
std::string file_error(std::string_view what);

struct Event {
    enum class Kind : uint8_t { null, scalar, list, map, end };

    Kind kind = Kind::null; // `end`: of the list or map that was begun last and has not ended
    Position at;
    std::string_view text{}; // of a scalar, until the next event

    bool opens() const { return kind == Kind::list || kind == Kind::map; }
};

class Document {
  public:
    // No document, or one that cannot be read on: where and why.
    struct Fault : std::runtime_error {
        Fault(Position where, const std::string &why) : std::runtime_error(why), at(where) {}
        Position at;
    };

    // The stream outlives it.
    explicit Document(std::istream &in);
    Document(const Document &) = delete;
    Document &operator=(const Document &) = delete;

    Event next();                  // of the one value that the document is; not beyond it
    void skip(const Event &begun); // what is left of a value whose first event this was
    void finish();                 // behind the value: there is nothing more in the file

  private:
    // Owners of what the parser takes: the constructor may throw.
    struct Parser : yaml_parser_t {
        Parser();
        ~Parser() { yaml_parser_delete(this); }
        Parser(const Parser &) = delete;
        Parser &operator=(const Parser &) = delete;
    };
    struct Parsed : yaml_event_t {
        Parsed() : yaml_event_t{} {}
        ~Parsed() { yaml_event_delete(this); }
        Parsed(const Parsed &) = delete;
        Parsed &operator=(const Parsed &) = delete;
    };
    // What stood in an anchored part, without what the aliases in it stand for.
    struct Noted {
        Event::Kind kind;
        Position at;
        size_t text, size; // in the tape's text; of an alias: `text` is its number in `copies`, `size` is npos
    };
    struct Tape;
    struct Range {
        std::shared_ptr<const Tape> tape; // none: the one that the range stands in
        size_t begin, end;
    };
    struct Tape {
        std::vector<Noted> events;
        std::string text;
        std::vector<Range> copies;
    };
    struct Open { // an anchored part that has not ended
        std::string name;
        size_t begin;
        size_t depth;
    };

    static int read(void *in, unsigned char *buffer, size_t size, size_t *got) noexcept;
    void parse();
    Position position() const;
    [[noreturn]] void refuse_syntax() const;
    bool next_parsed(Event &event);
    bool next_copied(Event &event);
    bool begin_copy();
    void note(const Event &event, const yaml_char_t *anchor);
    void end_anchors();

    std::istream &in_;
    Parser parser_;
    Parsed event_; // the last of the parser
    size_t depth_ = 0;
    size_t parsed_ = 0; // parts, and bytes of text
    size_t copied_ = 0;
    std::map<std::string, Range, std::less<>> anchors_;
    std::vector<Open> open_;
    std::shared_ptr<Tape> tape_; // of the outermost that is open
    std::vector<Range> copies_;  // that are being delivered, the innermost last; `begin` is what comes next
    Position alias_at_;          // where the first event of a copy stands
    bool alias_starts_ = false;
};

} // namespace plx::tool
