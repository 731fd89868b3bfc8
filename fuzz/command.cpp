// Debug-shell commands: a description, and a line that is bound to it.
#include "input.hpp"

#include <ssat/command.hpp>

namespace {

int nothing(int, const ssat_value *)
{
    return 0;
}

// What a value points at is one of the words, whole and terminated.
void require_text(const char *text, const std::vector<ssat::word> &words)
{
    for (const ssat::word &word : words)
        if (text >= word.text.c_str() && text <= word.text.c_str() + word.text.size())
            return;
    fuzz::require(false, "a text lies within the line's words");
}

void bind(const ssat::command &command, const std::string &line)
{
    std::vector<ssat::word> words;
    if (!ssat::split_line(line, words).empty())
        return;
    std::vector<ssat_value> values;
    if (!ssat::bind_arguments(command, words, values).empty())
        return;
    fuzz::require(values.size() == command.arguments.size(), "every argument has its value");
    fuzz::require(words.size() == values.size(), "every word is some argument's");
    for (size_t i = 0; i < values.size(); i++)
        if (command.arguments[i].kind == ssat::conversion::text)
            require_text(values[i].s, words);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const std::string description = in.text();
    const auto arguments = ssat::parse_description(description);
    if (!arguments)
        return 0;
    const ssat::command command = {"command", description, *arguments, nothing};
    fuzz::require(ssat::usage(command).find("command") == 0, "a command's usage begins with its name");
    bind(command, in.rest());
    return 0;
}
