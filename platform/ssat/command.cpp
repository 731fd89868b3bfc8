#include "command.hpp"

#include <algorithm>
#include <charconv>

namespace ssat {

namespace {

constexpr std::string_view blanks = " \t";

std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(blanks);
    if (first == text.npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string quoted(std::string_view text)
{
    return '\'' + std::string(text) + '\'';
}

bool is_control(char c)
{
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

// An item of a description is "name=%d"; one without a conversion is a remark.
bool add_argument(std::string_view item, std::vector<argument> &arguments)
{
    const size_t percent = item.find('%');
    if (percent == item.npos)
        return true;
    const std::string_view type = item.substr(percent);
    if (type != "%s" && type != "%d" && type != "%x")
        return false;
    std::string_view name = trim(item.substr(0, percent));
    if (name.ends_with('='))
        name = trim(name.substr(0, name.size() - 1));
    std::string known = name.empty() ? "arg" + std::to_string(arguments.size() + 1) : std::string(name);
    const bool again = std::ranges::find(arguments, known, &argument::name) != arguments.end();
    if (again || known.find_first_of(" \t=\"") != known.npos)
        return false;
    arguments.push_back({std::move(known), static_cast<conversion>(type[1])});
    return true;
}

// Reads one word from the front of `line`, which does not begin with a blank.
std::string take_word(std::string_view &line, word &word)
{
    bool in_quotes = false;
    size_t at = 0;
    for (; at < line.size() && (in_quotes || blanks.find(line[at]) == blanks.npos); ++at) {
        if (line[at] == '"') {
            in_quotes = !in_quotes;
            continue;
        }
        if (in_quotes && line[at] == '\\' && at + 1 < line.size())
            ++at;
        if (!in_quotes && line[at] == '=' && word.equals == std::string::npos && line.front() != '"')
            word.equals = word.text.size();
        word.text += line[at];
    }
    line.remove_prefix(at);
    return in_quotes ? "a quote is not closed" : "";
}

template <typename integer> bool read_number(std::string_view text, int base, integer &value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size();
}

std::string convert(const argument &argument, const char *text, ssat_value &value)
{
    const std::string_view digits(text);
    switch (argument.kind) {
    case conversion::text:
        value.s = text;
        return {};
    case conversion::number:
        if (read_number(digits, 10, value.d))
            return {};
        return argument.name + ": " + quoted(digits) + " is not a decimal number from -2147483648 to 2147483647";
    case conversion::hex:
        if (read_number(digits.starts_with("0x") || digits.starts_with("0X") ? digits.substr(2) : digits, 16, value.x))
            return {};
        return argument.name + ": " + quoted(digits) + " is not a hexadecimal number of at most 32 bits";
    }
    return "no such conversion";
}

// Which argument a word is for; its index, or an error.
std::string place_word(const command &command, const word &word, const std::vector<bool> &given, size_t &index)
{
    const auto &arguments = command.arguments;
    if (word.equals == std::string::npos) {
        index = static_cast<size_t>(std::ranges::find(given, false) - given.begin());
        return index < arguments.size() ? "" : "one argument too many: " + quoted(word.text);
    }
    const std::string_view name = std::string_view(word.text).substr(0, word.equals);
    index = static_cast<size_t>(std::ranges::find(arguments, name, &argument::name) - arguments.begin());
    if (index == arguments.size())
        return "no argument is named " + quoted(name);
    return given[index] ? quoted(name) + " is given twice" : "";
}

} // namespace

bool valid_command_name(std::string_view name)
{
    const auto plain = [](char c) { return c > ' ' && c < 0x7f && c != '"' && c != '='; };
    return !name.empty() && name != "help" && std::ranges::all_of(name, plain);
}

std::optional<std::vector<argument>> parse_description(std::string_view description)
{
    std::vector<argument> arguments;
    while (!description.empty()) {
        const size_t comma = std::min(description.find(','), description.size());
        const std::string_view item = trim(description.substr(0, comma));
        if (item == "$n")
            break;
        if (!add_argument(item, arguments))
            return std::nullopt;
        description.remove_prefix(std::min(comma + 1, description.size()));
    }
    return arguments;
}

std::string usage(const command &command)
{
    std::string text = command.name;
    for (const argument &argument : command.arguments)
        text += ' ' + argument.name + "=%" + static_cast<char>(argument.kind);
    return text;
}

std::string split_line(std::string_view line, std::vector<word> &words)
{
    if (std::ranges::any_of(line, is_control))
        return "the line has control characters in it";
    for (line = trim(line); !line.empty(); line = trim(line)) {
        std::string error = take_word(line, words.emplace_back());
        if (!error.empty())
            return error;
    }
    return {};
}

std::string bind_arguments(const command &command, std::span<const word> words, std::vector<ssat_value> &values)
{
    values.resize(command.arguments.size());
    std::vector<bool> given(command.arguments.size());
    for (const word &word : words) {
        size_t index = 0;
        if (std::string error = place_word(command, word, given, index); !error.empty())
            return error;
        const char *text = word.text.c_str() + (word.equals == std::string::npos ? 0 : word.equals + 1);
        if (std::string error = convert(command.arguments[index], text, values[index]); !error.empty())
            return error;
        given[index] = true;
    }
    const auto missing = std::ranges::find(given, false);
    if (missing == given.end())
        return {};
    return quoted(command.arguments[static_cast<size_t>(missing - given.begin())].name) + " is missing";
}

} // namespace ssat
