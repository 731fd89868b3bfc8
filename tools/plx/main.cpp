// plx: the command line around libplx. This file only gathers the subcommands; each is in files of its own.
#include "commands.hpp"

#include <cstdio>
#include <exception>
#include <iostream>

namespace {

int run(int argc, char **argv)
{
    CLI::App app("Policy for a switch's forwarding plane: write it, and see what becomes of it.", "plx");
    app.set_version_flag("--version", "plx " PLX_VERSION);
    app.require_subcommand(1);

    int exit_code = plx::tool::EXIT_DONE;
    plx::tool::add_apply_command(app, exit_code);
    plx::tool::add_node_command(app, exit_code);
    plx::tool::add_show_command(app, exit_code);
    plx::tool::add_monitor_command(app, exit_code);
    plx::tool::add_shell_command(app, exit_code);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? plx::tool::EXIT_DONE : plx::tool::EXIT_USAGE;
    }
    return exit_code;
}

// What was printed may still be on its way to a full disk.
int end(int exit_code)
{
    std::cout.flush();
    if (std::cout && std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return exit_code;
    std::cerr << "plx: the output cannot be written\n";
    return exit_code == plx::tool::EXIT_DONE ? plx::tool::EXIT_NO_OUTPUT : exit_code;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return end(run(argc, argv));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "plx: %s\n", error.what());
        return plx::tool::EXIT_USAGE;
    }
}
