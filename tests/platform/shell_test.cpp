// The debug shell's texts in transcripts, on both of its ends: what a line becomes for a command (line.txt), and plx
// shell beside modules that "serve NAME" starts; crash is for the last.
#include "command.hpp"
#include "shell_line.hpp"
#include "ssat_server.hpp"
#include "support/session.hpp"

#include <list>

namespace {

using namespace ssat;
using plx::take_word;
using plx::unescaped;

std::string describe(const std::string &text)
{
    const auto arguments = parse_description(text);
    return arguments ? usage({"cmd", text, *arguments, nullptr}) : "refused";
}

// The arguments that a line gives, as one text; or the error.
std::string bound(const std::string &description, const std::string &line)
{
    const command command{"cmd", description, parse_description(description).value(), nullptr};
    std::vector<word> words;
    std::vector<ssat_value> values;
    std::string error = split_line(line, words);
    if (error.empty())
        error = bind_arguments(command, words, values);
    std::string text;
    for (size_t i = 0; i < values.size() && error.empty(); ++i) {
        const conversion kind = command.arguments[i].kind;
        text += i ? "," : "";
        text += kind == conversion::text     ? values[i].s
                : kind == conversion::number ? std::to_string(values[i].d)
                                             : std::to_string(values[i].x);
    }
    return error.empty() ? text : "error: " + error;
}

std::string joined(const std::string &text)
{
    std::vector<std::string> words(1);
    for (const char c : text)
        if (c == '|')
            words.emplace_back();
        else
            words.back() += c;
    return plx::tool::join_words(words);
}

std::string completed(const std::string &line)
{
    const auto commands = plx::tool::parse_help("debug_off\tclose debug\ndebug_on\topen debug\n"
                                                "dump app_type=%s acl_id=%d\tapp_type=%s, acl_id=%d, $n\n");
    const auto [insert, candidates] = complete(commands, line.substr(0, line.size() - 1));
    std::string text = "'" + insert + "'";
    for (const std::string &candidate : candidates)
        text += ' ' + candidate;
    return text;
}

std::string helped(const std::string &help)
{
    std::string text;
    for (const auto &[name, arguments] : plx::tool::parse_help(help)) {
        text += name;
        for (const std::string &argument : arguments)
            text += ' ' + argument;
        text += '\n';
    }
    return text;
}

class Shell : public plx::Session {
  public:
    Shell() { setenv("PLX_SHELL_DIR", (directory_.path() + "/shell").c_str(), 1); }

  private:
    std::string perform(const std::string &line) override
    {
        const size_t blank = std::min(line.find(' '), line.size());
        const std::string verb = line.substr(0, blank), text = line.substr(std::min(blank + 1, line.size()));
        if (verb == "describe")
            return describe(text);
        if (verb == "line" || verb == "bare")
            return bound(verb == "line" ? "app=%s, id=%d, mask=%x, $n" : "open debug", unescaped(text));
        if (verb == "words")
            return joined(text);
        if (verb == "complete")
            return completed(text);
        if (verb == "help")
            return helped(unescaped(text));
        if (verb != "serve" && verb != "crash")
            return Session::perform(line);
        if (verb == "crash")
            servers_.front().crash();
        else
            servers_.emplace_front(unescaped(text).c_str(), directory_.path() + "/out");
        return {};
    }

    std::list<server> servers_; // the last begun first, as each holds open what would end those before it
};

const bool registered = plx::register_transcripts(PLX_TRANSCRIPTS, [] { return new Shell; });

} // namespace
