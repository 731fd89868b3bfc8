// The verbs of the transcripts: each is one call of the exported interface, or of one of the fakes.
//
// Things are named as the store names them, "apply[my_app,4,security_app,257,9,0]"; "null" is no name, no key or no
// record, "x*32" or "x*32;" is 32 times x. name=value gives what a key does not tell.
#pragma once

#include "script.h"

#include <filesystem>
#include <map>
#include <support/application.h>

std::string repeated(const std::string &text);
const char *or_null(const std::string &text);
// A line with a brace as the lines that it stands for: {a,b}, {a,b|c,d}, {1..9}.
script expanded(const std::string &line);

// A table, and its key's fields.
struct thing {
    std::string table;
    lines key;

    std::string text(size_t i) const { return i < key.size() ? key[i] : "null"; }
    bool lacks(size_t i) const { return text(i) == "null"; }
    uint32_t number(size_t i) const { return static_cast<uint32_t>(large(i)); }
    uint64_t large(size_t i) const { return i < key.size() ? strtoull(key[i].c_str(), nullptr, 0) : 0; }
};

// What stands behind a verb: words, and options by name.
struct arguments {
    explicit arguments(const std::string &line);
    thing next_thing();
    std::string next() { return at < words.size() ? words[at++] : ""; }
    int64_t number() { return strtoll(next().c_str(), nullptr, 0); }
    bool has(const std::string &name) const { return options.count(name) != 0; }
    std::string option(const std::string &name) const { return has(name) ? options.at(name) : ""; }
    int64_t value(const std::string &name) const { return strtoll(option(name).c_str(), nullptr, 0); }
    template <class Number> Number as(const std::string &name) const { return static_cast<Number>(value(name)); }

    lines words;
    std::map<std::string, std::string> options;
    std::string raw; // the line behind the verb
    size_t at = 0;
};

// The library with its files in a folder of the process's own.
class session : public library_case {
  public:
    session();
    ~session() override;
    std::string perform(const std::string &line); // "= result", or nothing

    lines shown;               // by the verb that runs
    owned_ace entry;           // that the attribute verbs work on
    lines then;                // runs in the next callbacks
    std::string levels = "EI"; // of the log that are shown
    const std::string root;

  private:
    const fake::led_elsewhere tmp, etc, proc;
};
