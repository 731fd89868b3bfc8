// See session.hpp.
#include "session.hpp"

#include <filesystem>
#include <regex>
#include <sstream>

namespace plx {

using tool::Process;

// What a scenario's programs are found by.
Session::Session()
{
    const std::string program = PLX_PROGRAM;
    setenv("PATH", (std::filesystem::path(program).parent_path().string() + ':' + getenv("PATH")).c_str(), 1);
    setenv("DIR", directory_.path().c_str(), 1);
    setenv("HOME", directory_.path().c_str(), 1);
    setenv("PLX_SHELL_DIR", directory_.path().c_str(), 1);
    setenv("TERM", "vt100", 1);
}

std::map<std::string, std::string> Session::environment(const std::string &) const
{
    return {};
}

std::string Session::readable(std::string text) const
{
    for (size_t at; (at = text.find(directory_.path())) != std::string::npos;)
        text.replace(at, directory_.path().size(), "DIR");
    static const std::regex time(" +[0-9]+\\.[0-9]+ m?s"), number("[0-9]{9,}");
    return std::regex_replace(std::regex_replace(text, time, " T"), number, "N");
}

std::string Session::shown(const tool::Result &result) const
{
    std::string text = result.out + (result.out.empty() || result.out.ends_with('\n') ? "" : "|\n");
    std::istringstream errors(result.err);
    for (std::string line; std::getline(errors, line);)
        text += "! " + line + '\n';
    return readable(text) + (result.exit_code == 0 ? "" : "= " + std::to_string(result.exit_code));
}

std::string Session::on_terminal(const std::string &verb, const std::string &rest)
{
    if (verb == "tty") {
        if (!tool::has_terminals())
            return skip("this machine gives no terminals");
        terminal_.emplace("/bin/sh", std::vector<std::string>{"-c", "cd $DIR; exec " + rest});
    }
    if (verb == "type")
        terminal_->type(unescaped(rest));
    if (verb == "end") {
        terminal_->read_until("never");
        return "= " + std::to_string(terminal_->wait());
    }
    const std::string wanted = verb == "shows" ? unescaped(rest) : "";
    const std::string shown = terminal_->read_until(wanted);
    return shown.find(wanted) == shown.npos ? "it shows " + testing::PrintToString(shown) : "";
}

std::string Session::perform(const std::string &line)
{
    // Not the whole line: the library goes one call deeper for each character.
    static const std::regex command("(\\w*)\\$ (?:(\\w+)& )?");
    if (std::smatch found; std::regex_search(line, found, command, std::regex_constants::match_continuous)) {
        const std::string script = "cd $DIR; " + (found[2].matched ? "exec " : std::string()) + found.suffix().str();
        if (!found[2].matched)
            return shown(tool::run_program("/bin/sh", {"-c", script}, environment(found[1])));
        started_[found[2]] =
            std::make_unique<Process>("/bin/sh", std::vector<std::string>{"-c", script}, environment(found[1]));
        return {};
    }
    std::string rest = line;
    const std::string verb = take_word(rest);
    if (verb == "tty" || verb == "type" || verb == "shows" || line == "end tty")
        return on_terminal(verb, rest);
    const std::string name = take_word(rest);
    if (!started_.contains(name))
        return "there is no verb for this line";
    Process &process = *started_.at(name);
    if (verb == "says")
        return process.says(rest) ? "" : "it only says " + process.err();
    if (verb == "running")
        return process.running() ? "yes" : "no";
    if (verb == "signal")
        process.signal(std::stoi(rest));
    if (verb != "end")
        return {};
    const bool ended = process.wait_for([&] { return !process.running(); });
    return (ended ? "" : "it still runs\n") + shown({ended ? process.wait() : 0, process.out(), process.err()});
}

} // namespace plx
