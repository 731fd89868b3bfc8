// What a command says: text for people, or with --json lines of JSON on standard output and nothing else.
//
// A line is an object with a "type"; the first of a command's also has "schema", and the last is its "summary", with
// the exit code. A failure is a line of type "error", a remark one of type "note". Where standard error is the journal,
// each line of text bears its grade, as the journal takes it. A number above 2^53, which readers may round, has its
// text beside it, under its name and "_text". Within a schema's version there are only additions.
#pragma once

#include "exit_codes.hpp"
#include "place.hpp"
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace plx::tool {

using Row = nlohmann::ordered_json;

// As the system log numbers them.
enum class Grade : uint8_t { error = 3, warning = 4, info = 6 };

class Output {
  public:
    // From here on it is `command` that speaks: "apply". Of several on one standard error each has a name:
    // "node 0/1/0".
    void begin(std::string command, bool json, std::string name = {});
    bool json() const { return json_; }

    // An object, with --json; otherwise nothing. What a record calls "type" itself goes by "own_type".
    void line(std::string_view type, Row row);
    // The same of members that are JSON already, none of them a "type" or a long number: `"entry":"acl 1"`. For lines
    // by the hundred thousand.
    void made_line(std::string_view type, std::string_view members);
    // "plx apply: TEXT" on standard error.
    void note(const std::string &text);
    // The same, by a program that lives on: with --json a note that has its "level" and "time_ms", too.
    void log(Grade grade, const std::string &text);
    // The same as a note, for what leads to an exit code, which it returns. With a place its text is
    // "FILE:LINE:COLUMN: TEXT". `hint`: what can be done about it.
    int error(int exit_code, const std::string &text, const Place &place = {}, const char *hint = nullptr);

    // "FILE:LINE:COLUMN: warning: TEXT", of type "warning": nothing fails for it.
    void warning(const std::string &text, const Place &place);

    // What the summary will have beside the exit code.
    Row &summary() { return summary_; }
    // The end of the program: the summary, and whether all could be written. The exit code that is left.
    int end(int exit_code);

  private:
    std::string schema();
    void say(Grade grade, const std::string &text) const;

    std::string command_, name_;
    bool json_ = false;
    bool begun_ = false;
    Row summary_ = Row::object();
};

// As lines have it: "\"a\\nb\"".
std::string json_text(const std::string &text);

// The program's.
Output &output();

} // namespace plx::tool
