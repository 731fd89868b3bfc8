// The subcommands of plx. Each adds itself to the command line and, when it is the one that was called, leaves the
// program's exit code behind.
#pragma once

#include "exit_codes.hpp"
#include <CLI/CLI.hpp>

namespace plx::tool {

void add_apply_command(CLI::App &app, int &exit_code);
void add_diff_command(CLI::App &app, int &exit_code);
void add_check_command(CLI::App &app, int &exit_code);
void add_explain_command(CLI::App &app, int &exit_code);
void add_import_command(CLI::App &app, int &exit_code);
void add_metrics_command(CLI::App &app, int &exit_code);
void add_monitor_command(CLI::App &app, int &exit_code);
void add_node_command(CLI::App &app, int &exit_code);
void add_shell_command(CLI::App &app, int &exit_code);
void add_show_command(CLI::App &app, int &exit_code);
void add_top_command(CLI::App &app, int &exit_code);
void add_verify_command(CLI::App &app, int &exit_code);

} // namespace plx::tool
