// `plx shell`: the debug shell's other end. It lists the modules alive on this machine, runs one command, runs the
// lines of a file or pipe, or, on a terminal, talks with history and completion.
//
// What a command prints goes to standard output as it is; whatever keeps it from running is an error. The exit code is
// that of the first line that did not succeed, except on a terminal, where the user has seen it.
#include "commands.hpp"
#include "display.hpp"
#include "shell_editor.hpp"
#include "shell_line.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <ssat_client.h>
#include <unistd.h>

namespace plx::tool {

namespace {

struct Answer {
    int status = -1; // enum ssat_status, or -1: `error` tells
    int error = 0;
    int cut = 0;
    std::string text;
};

// A module that is connected to when there is something to say, anew after a connection ended.
class Module {
  public:
    explicit Module(std::string name) : name_(std::move(name)) {}
    ~Module() { hang_up(); }
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    const std::string &name() const { return name_; }
    Answer ask(const std::string &line);

  private:
    void hang_up();

    std::string name_;
    int fd_ = -1;
};

void append(const char *text, size_t size, void *answer)
{
    static_cast<Answer *>(answer)->text.append(text, size);
}

Answer Module::ask(const std::string &line)
{
    Answer answer;
    if (fd_ < 0)
        fd_ = ssat_client_connect(name_.c_str());
    if (fd_ >= 0)
        answer.status = ssat_client_run(fd_, line.c_str(), append, &answer, &answer.cut);
    answer.error = errno;
    if (answer.status < 0 || answer.status == SSAT_DENIED)
        hang_up();
    return answer;
}

void Module::hang_up()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

std::string explain(int error)
{
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return "no such module is alive";
    case EPERM:
        return "the directory of sockets is open to others or not yours";
    case ECONNRESET:
        return "the module went away";
    case ETIMEDOUT:
        return "the module does not answer";
    case EINVAL:
        return "a command is one line and not blank";
    default:
        return std::strerror(error);
    }
}

int exit_code_of(const Answer &answer)
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

int show(const Module &module, const Answer &answer)
{
    const bool ran = answer.status == SSAT_OK || answer.status == SSAT_FAILED;
    (ran ? std::cout : std::cerr) << answer.text << std::flush;
    if (answer.status < 0)
        std::cerr << "plx shell: " << printable(module.name()) << ": " << explain(answer.error) << '\n';
    if (answer.cut)
        std::cerr << "plx shell: the command printed more than the module keeps\n";
    return exit_code_of(answer);
}

std::string history_file()
{
    const char *home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.plx_shell_history" : std::string();
}

// Lines from a terminal or from anything else, until the input ends or the user leaves.
class Lines {
  public:
    Lines(const Module &module, std::string_view help)
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

int run_lines(Module &module)
{
    const Answer help = module.ask("help");
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
    const auto add = [](const char *module, void *arg) {
        static_cast<std::vector<std::string> *>(arg)->emplace_back(module);
    };
    if (const int error = ssat_client_modules(add, &names)) {
        std::cerr << "plx shell: " << explain(error) << '\n';
        return EXIT_UNREACHABLE;
    }
    std::ranges::sort(names);
    for (const std::string &name : names)
        std::cout << printable(name) << '\n';
    if (names.empty())
        std::cerr << "plx shell: no module is alive\n";
    return EXIT_DONE;
}

int run_shell(const std::string &name, const std::vector<std::string> &words)
{
    if (name.empty())
        return list_modules();
    Module module(name);
    return words.empty() ? run_lines(module) : show(module, module.ask(join_words(words)));
}

} // namespace

void add_shell_command(CLI::App &app, int &exit_code)
{
    auto module = std::make_shared<std::string>();
    CLI::App *shell = app.add_subcommand(
        "shell", "Run commands in an application's debug shell; without a module, list the modules alive");
    shell->add_option("MODULE", *module, "The module, such as edge.fp");
    shell->prefix_command();
    shell->footer("The words after MODULE are one command, such as: help, or: fp_udp_dump_acl app_type=all acl_id=0\n"
                  "Without them, commands are read from the terminal or from standard input.");
    shell->callback([=, &exit_code] { exit_code = run_shell(*module, shell->remaining()); });
}

} // namespace plx::tool
