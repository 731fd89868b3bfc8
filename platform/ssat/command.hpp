// What a command takes and what a line gives it: descriptions, the words of a line, and the one bound to the other.
//
// Pure functions over text. The line comes from a client and is hostile; the description comes from the application
// and is checked when the command is registered. Errors are sentences for the person at the shell.
#ifndef PLX_SSAT_COMMAND_HPP
#define PLX_SSAT_COMMAND_HPP

#include "ssat.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ssat {

enum class conversion : char {
    text = 's',
    number = 'd', // decimal, 32 bits, signed
    hex = 'x'     // hexadecimal with or without 0x, 32 bits, unsigned
};

struct argument {
    std::string name;
    conversion kind;
};

struct command {
    std::string name;
    std::string description;
    std::vector<argument> arguments;
    ssat_handler handler;
};

// One word of a line, unquoted. `equals` is where an argument's name ends; a quoted word names none.
struct word {
    std::string text;
    size_t equals = std::string::npos;
};

bool valid_command_name(std::string_view name);

// Nothing when the description has a conversion that the shell does not know.
std::optional<std::vector<argument>> parse_description(std::string_view description);

// "fp_udp_dump_acl app_type=%s acl_id=%d"
std::string usage(const command &command);

// Both return an error, empty on success. The values' texts live in `words`.
std::string split_line(std::string_view line, std::vector<word> &words);
std::string bind_arguments(const command &command, std::span<const word> words, std::vector<ssat_value> &values);

} // namespace ssat

#endif
