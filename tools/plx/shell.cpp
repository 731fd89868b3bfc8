// `plx shell`: the debug shell's other end. It lists the modules alive on this machine, runs one command, runs the
// lines of a file or pipe, or, on a terminal, talks with history and completion.
//
// What a command prints goes to standard output as it is; whatever keeps it from running is an error. The exit code is
// that of the first line that did not succeed, except on a terminal, where the user has seen it.
#include "commands.hpp"
#include "display.hpp"
#include "output.hpp"
#include "shell_editor.hpp"
#include "shell_line.hpp"
#include "shell_module.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <ssat_client.h>
#include <unistd.h>

namespace plx::tool {

namespace {

int exit_code_of(const ShellAnswer &answer)
{
    switch (answer.status) {
    case SSAT_OK:
        return answer.cut ? EXIT_NO_OUTPUT : EXIT_DONE;
    case SSAT_FAILED:
        return EXIT_SOME_FAILED;
    case SSAT_USAGE:
    case SSAT_UNKNOWN:
        return EXIT_USAGE;
    case SSAT_DENIED:
        return EXIT_UNREACHABLE;
    default:
        break;
    }
    if (answer.error == EINVAL)
        return EXIT_USAGE;
    return answer.error == ETIMEDOUT ? EXIT_NO_ANSWER : EXIT_UNREACHABLE;
}

int show(const ShellModule &module, const ShellAnswer &answer)
{
    const bool ran = answer.status == SSAT_OK || answer.status == SSAT_FAILED;
    const int exit_code = exit_code_of(answer);
    if (ran)
        output().line("answer", {{"module", module.name()}, {"text", answer.text}});
    else if (output().json() && answer.status >= 0)
        output().error(exit_code, answer.text.substr(0, answer.text.find_last_not_of('\n') + 1));
    if (!output().json())
        (ran ? std::cout : std::cerr) << answer.text << std::flush;
    if (answer.status < 0)
        output().error(exit_code, printable(module.name()) + ": " + shell_error(answer.error));
    if (answer.cut)
        output().error(exit_code, "the command printed more than the module keeps");
    return exit_code;
}

std::string history_file()
{
    const char *home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.plx_shell_history" : std::string();
}

// Lines from a terminal or from anything else, until the input ends or the user leaves.
class Lines {
  public:
    Lines(const ShellModule &module, std::string_view help)
    {
        if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO))
            return;
        const auto completer = [commands = parse_help(help)](std::string_view line) {
            return complete(commands, line);
        };
        editor_ = std::make_unique<ShellEditor>(printable(module.name()) + "> ", history_file(), completer);
    }

    bool interactive() const { return editor_ != nullptr; }

    bool next(std::string &line)
    {
        if (!editor_)
            return static_cast<bool>(std::getline(std::cin, line));
        const auto read = editor_->read();
        line = read.value_or("");
        if (!read)
            std::cout << '\n';
        return read && line != "exit" && line != "quit";
    }

  private:
    std::unique_ptr<ShellEditor> editor_;
};

int run_lines(ShellModule &module)
{
    const ShellAnswer help = module.ask("help");
    if (help.status != SSAT_OK)
        return show(module, help);
    int exit_code = EXIT_DONE;
    Lines lines(module, help.text);
    for (std::string line; lines.next(line);) {
        if (line.find_first_not_of(" \t\r") == line.npos)
            continue;
        const int code = show(module, module.ask(line));
        if (exit_code == EXIT_DONE && !lines.interactive())
            exit_code = code;
    }
    return exit_code;
}

int list_modules()
{
    std::vector<std::string> names;
    if (const int error = shell_modules(names); error != 0)
        return output().error(EXIT_UNREACHABLE, shell_error(error));
    for (const std::string &name : names) {
        output().line("module", {{"name", name}});
        if (!output().json())
            std::cout << printable(name) << '\n';
    }
    if (names.empty())
        output().note("no module is alive");
    return EXIT_DONE;
}

int run_shell(const std::string &name, const std::vector<std::string> &words)
{
    if (name.empty())
        return list_modules();
    ShellModule module(name);
    return words.empty() ? run_lines(module) : show(module, module.ask(join_words(words)));
}

} // namespace

void add_shell_command(CLI::App &app, int &exit_code)
{
    auto module = std::make_shared<std::string>();
    CLI::App *shell = app.add_subcommand(
        "shell", "Run commands in an application's debug shell; without a module, list the modules alive");
    shell->add_option("MODULE", *module, "The module, such as edge.fp");
    auto json = std::make_shared<bool>(false);
    shell->add_flag("--json", *json, "one JSON object a line, for scripts; in front of MODULE");
    shell->prefix_command();
    shell->footer("The words after MODULE are one command, such as: help, or: fp_udp_dump_acl app_type=all acl_id=0\n"
                  "Without them, commands are read from the terminal or from standard input.");
    shell->callback([=, &exit_code] {
        if (module->empty() && shell->remaining_size() != 0)
            throw CLI::ExtrasError(shell->remaining());
        output().begin("shell", *json);
        exit_code = run_shell(*module, shell->remaining());
    });
}

} // namespace plx::tool
