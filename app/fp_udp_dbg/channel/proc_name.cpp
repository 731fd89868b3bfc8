// Reads the process's name from its status file; its first line is the label, white space, and the name.
#include "proc_name.hpp"

#include <cstdio>
#include <cstring>
#include <unistd.h>

extern "C" int32_t fp_udp_dbg_get_proc_name(char *buffer)
{
    if (buffer == nullptr)
        return FP_UDP_INVALID;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(getpid()));
    FILE *file = std::fopen(path, "re");
    if (file == nullptr)
        return 0;
    char line[plx::dbg::proc_name_size];
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    std::fclose(file);
    if (!read)
        return -1;
    std::sscanf(line, "%*s %99s", buffer);
    return 0;
}

namespace plx::dbg {

void make_file_name(char *name)
{
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
        *name = '_';
    while ((name = std::strchr(name, '/')) != nullptr)
        *name = '_';
}

} // namespace plx::dbg
