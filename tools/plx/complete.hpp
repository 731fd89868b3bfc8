// What the shells' scripts (packaging/completion) ask for while a command is typed.
#pragma once

#include <CLI/CLI.hpp>
#include <span>

namespace plx::tool {

// `plx __complete WORD...`: prints what the last word may become, a line each.
//
// It walks the command line as main() has built it. What is in the store is asked for a moment only: a shell waits.
void complete(const CLI::App &app, std::span<char *const> given);

} // namespace plx::tool
