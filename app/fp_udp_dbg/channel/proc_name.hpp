// The process's name, as files and the debug shell's module are named after it.
#pragma once

#include <plx/diag.h>

namespace plx::dbg {

inline constexpr int proc_name_size = 100;

// Turns a process's name, which may hold any character, into one that cannot leave the directory it is used in.
void make_file_name(char *name);

} // namespace plx::dbg
