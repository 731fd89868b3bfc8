// The subcommands of plx. Each adds itself to the command line and, when it is the one that was called, leaves the
// program's exit code behind.
#pragma once

#include <CLI/CLI.hpp>

namespace plx::tool {

// A script may rely on these.
enum ExitCode : int {
    EXIT_DONE = 0,        // everything asked for is programmed or stored
    EXIT_USAGE = 1,       // the command line is wrong
    EXIT_BAD_FILE = 2,    // the policy file is invalid; nothing was written
    EXIT_SOME_FAILED = 3, // the forwarding plane or the store refused some entries; some records cannot be read
    EXIT_NO_ANSWER = 4,   // some entries aged, or the time to wait ran out
    EXIT_UNREACHABLE = 5, // the store cannot be reached, or went away
    EXIT_NO_OUTPUT = 8,   // all went well, but what was to be printed of it could not be written
    EXIT_NOT_SWEPT = 10   // all was written, and old records are left that were to be deleted
};

void add_apply_command(CLI::App &app, int &exit_code);
void add_monitor_command(CLI::App &app, int &exit_code);
void add_node_command(CLI::App &app, int &exit_code);
void add_shell_command(CLI::App &app, int &exit_code);
void add_show_command(CLI::App &app, int &exit_code);

} // namespace plx::tool
