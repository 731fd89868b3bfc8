// plx: the command line around libplx. This file only gathers the subcommands; each is in files of its own.
#include "attribute_value.hpp"
#include "commands.hpp"
#include "complete.hpp"
#include "output.hpp"

#include <algorithm>
#include <clocale>
#include <exception>
#include <span>

namespace plx::tool {

namespace {

std::vector<std::string> names_of_commands(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands(nullptr))
        names.push_back(command->get_name());
    return names;
}

// A slip in the command's name is told as such, not as a command that is missing.
bool unknown(const std::vector<std::string> &names, std::string_view word)
{
    if (word.starts_with('-') || std::find(names.begin(), names.end(), word) != names.end())
        return false;
    const std::string_view close = nearest(word, {names.begin(), names.end()});
    output().error(EXIT_USAGE, "there is no command '" + std::string(word) + '\'' +
                                   (close.empty() ? "" : "; did you mean '" + std::string(close) + "'?"));
    return true;
}

// Help and the version are no errors; they have been asked for as text.
int tell(const CLI::App &app, const CLI::ParseError &error)
{
    if (error.get_exit_code() == 0)
        output().begin("", false);
    if (!output().json())
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    return output().error(EXIT_USAGE, error.what());
}

int run(int argc, char **argv)
{
    CLI::App app("Policy for a switch's forwarding plane: write it, and see what becomes of it.", "plx");
    app.set_version_flag("--version", "plx " PLX_VERSION);
    app.require_subcommand(1);

    int exit_code = EXIT_DONE;
    add_apply_command(app, exit_code);
    add_diff_command(app, exit_code);
    add_check_command(app, exit_code);
    add_explain_command(app, exit_code);
    add_import_command(app, exit_code);
    add_node_command(app, exit_code);
    add_show_command(app, exit_code);
    add_monitor_command(app, exit_code);
    add_metrics_command(app, exit_code);
    add_shell_command(app, exit_code);
    add_top_command(app, exit_code);
    add_verify_command(app, exit_code);

    const std::span words(argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0));
    const bool json =
        std::any_of(words.begin(), words.end(), [](const char *word) { return word == std::string_view("--json"); });
    const std::vector<std::string> names = names_of_commands(app);
    const std::string_view word = words.empty() ? "" : words.front();
    if (word == "__complete") {
        complete(app, words.subspan(1));
        return EXIT_DONE;
    }
    const bool known = std::find(names.begin(), names.end(), word) != names.end();
    output().begin(known ? std::string(word) : "", json); // until the command speaks for itself
    if (!words.empty() && unknown(names, word))
        return EXIT_USAGE;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return tell(app, error);
    }
    return exit_code;
}

} // namespace

} // namespace plx::tool

int main(int argc, char **argv)
{
    using namespace plx::tool;
    std::setlocale(LC_CTYPE, "");
    try {
        return output().end(run(argc, argv));
    } catch (const std::exception &error) {
        return output().end(output().error(EXIT_USAGE, error.what()));
    }
}
