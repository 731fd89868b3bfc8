// See shell_line.hpp.
#include "shell_line.hpp"

#include <algorithm>

namespace plx::tool {

namespace {

constexpr std::string_view blanks = " \t";

std::vector<std::string_view> split(std::string_view text, std::string_view separators)
{
    std::vector<std::string_view> parts;
    for (size_t start = 0; (start = text.find_first_not_of(separators, start)) != text.npos;) {
        const size_t end = std::min(text.find_first_of(separators, start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end;
    }
    return parts;
}

std::string quote(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

// An argument's name stays in front of the quotes: inside them it would be part of the text.
std::string quote_word(std::string_view word)
{
    if (!word.empty() && word.find_first_of(" \t\"") == word.npos)
        return std::string(word);
    const size_t equals = word.find('=');
    const bool named = equals != word.npos && equals < word.find_first_of(" \t\"");
    const size_t value = named ? equals + 1 : 0;
    return std::string(word.substr(0, value)) + quote(word.substr(value));
}

std::string common_prefix(const std::vector<std::string> &words)
{
    const auto [first, last] = std::ranges::minmax(words);
    return first.substr(0, static_cast<size_t>(std::ranges::mismatch(first, last).in1 - first.begin()));
}

bool is_given(const std::vector<std::string_view> &words, const std::string &argument)
{
    return std::ranges::any_of(words, [&](std::string_view word) { return word.starts_with(argument + '='); });
}

// All words that may stand after `words`.
std::vector<std::string> possible_words(const std::vector<ShellCommand> &commands,
                                        const std::vector<std::string_view> &words)
{
    std::vector<std::string> possible;
    if (words.empty() || (words.size() == 1 && words[0] == "help")) {
        std::ranges::transform(commands, std::back_inserter(possible), &ShellCommand::name);
        return possible;
    }
    const auto command = std::ranges::find(commands, words[0], &ShellCommand::name);
    if (command == commands.end())
        return possible;
    for (const std::string &argument : command->arguments)
        if (!is_given(words, argument))
            possible.push_back(argument + '=');
    return possible;
}

} // namespace

std::vector<ShellCommand> parse_help(std::string_view help)
{
    std::vector<ShellCommand> commands{{"help", {}}};
    for (const std::string_view line : split(help, "\n")) {
        const auto words = split(line.substr(0, line.find('\t')), " ");
        if (words.empty())
            continue;
        ShellCommand &command = commands.emplace_back(ShellCommand{std::string(words[0]), {}});
        for (const std::string_view word : std::vector(words.begin() + 1, words.end()))
            command.arguments.emplace_back(word.substr(0, word.find('=')));
    }
    return commands;
}

std::string join_words(const std::vector<std::string> &words)
{
    if (words.size() == 1)
        return words[0];
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + quote_word(word);
    return line;
}

Completion complete(const std::vector<ShellCommand> &commands, std::string_view line)
{
    auto words = split(line, blanks);
    std::string_view begun;
    if (!words.empty() && line.find_last_of(blanks) + 1 != line.size()) {
        begun = words.back();
        words.pop_back();
    }
    Completion completion{"", possible_words(commands, words)};
    auto &candidates = completion.candidates;
    std::erase_if(candidates, [&](const std::string &word) { return !word.starts_with(begun); });
    std::ranges::sort(candidates);
    if (candidates.empty())
        return completion;
    completion.insert = common_prefix(candidates).substr(begun.size());
    if (candidates.size() == 1 && !candidates[0].ends_with('='))
        completion.insert += ' ';
    return completion;
}

} // namespace plx::tool
