// The text side of `plx shell`: words to a line, a module's help to commands, a begun line to what may follow.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace plx::tool {

struct ShellCommand {
    std::string name;
    std::vector<std::string> arguments; // names
};

// The commands that a module's help lists, and help itself.
std::vector<ShellCommand> parse_help(std::string_view help);

// One line from the words of a command line, quoted where the module would split or unquote them. A single word is a
// line already: `plx shell app.fp 'fp_udp_dump_acl app_type=all acl_id=0'`.
std::string join_words(const std::vector<std::string> &words);

struct Completion {
    std::string insert;                  // what all candidates go on with, and what follows a single one
    std::vector<std::string> candidates; // whole words, sorted
};

// What the word that ends `line` may become: a command's name first, then names of arguments not given yet.
Completion complete(const std::vector<ShellCommand> &commands, std::string_view line);

} // namespace plx::tool
