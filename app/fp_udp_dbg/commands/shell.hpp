// What the library's sets of debug commands share: how they report, what a command is, and the name of its shell.
#pragma once

#include "../channel/channel.hpp"
#include "../channel/proc_name.hpp"

#include <ssat.h>

namespace plx::dbg {

inline constexpr char source[] = "app/fp_udp_dbg.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

struct command {
    const char *name;
    const char *arguments; // the shell's argument description
    ssat_handler handler;
};

// See cache_digest.cpp.
int on_cache_digest(int argc, const ssat_value *argv);

// The process's name and a suffix.
struct module_name {
    char text[proc_name_size + sizeof ".plx"];

    explicit module_name(const char *suffix, const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
    {
        char process[proc_name_size] = {};
        if (fp_udp_dbg_get_proc_name(process) != 0)
            report<Error>(diag::place{function, line}, "ssat get proc name fail");
        std::snprintf(text, sizeof text, "%s%s", process, suffix);
    }
};

} // namespace plx::dbg
