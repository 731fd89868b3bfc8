// What an application calls first: the log and its level.
#include "../fp_udp_dbg/channel/proc_name.hpp"
#include "area.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace plx::mgr {
namespace {

constexpr size_t name_size = 301;
constexpr size_t level_text_size = 301; // bytes read of a level file
constexpr long lowest_level = 1;
constexpr long highest_level = 5;

struct level_path {
    char text[name_size + 16];
    explicit level_path(const char *name) { std::snprintf(text, sizeof text, "/etc/plx_dbg/%.300s", name); }
};

// A file that cannot be opened, or is empty, leaves the level as it is; a level out of range is the lowest, not the
// nearest.
void read_level(const level_path &path)
{
    const int fd = open(path.text, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char text[level_text_size + 1] = {};
    const ssize_t got = read(fd, text, level_text_size);
    close(fd);
    if (got <= 0)
        return;
    const long level = std::strtol(text, nullptr, 10);
    g_policy_plx_zlog_level =
        static_cast<uint32_t>(level < lowest_level || level > highest_level ? lowest_level : level);
}

} // namespace
} // namespace plx::mgr

using namespace plx::mgr;

extern "C" int32_t plx_initial(void)
{
    char name[name_size] = {};
    if (const int32_t rv = fp_udp_dbg_get_proc_name(name); rv != 0)
        return rv;
    g_policy_plx_zlog_category = tq_zlog_init("policy_plx");
    if (g_policy_plx_zlog_category != nullptr) {
        plx::dbg::make_file_name(name);
        // Without a name the process's own file would be the directory.
        const level_path own(name);
        read_level(*name != '\0' && access(own.text, F_OK) == 0 ? own : level_path("plx"));
    }
    report<Impt>("plx zlog ready!\n");
    return FP_UDP_OK;
}
