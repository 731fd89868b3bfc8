// The diagnostic channel's words and the two sides' plain ends.
#include "channel.hpp"

#include <cstring>

extern "C" {
uint32_t fp_udp_debug_sw = 0;
const uint32_t lib_plx_dbg_flag[9] = {0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40, 0x80, 0x100};
uint32_t g_policy_plx_zlog_level = 1;
void *g_policy_plx_zlog_category = nullptr;
}

namespace plx::diag {

console_form::console_form(const char *format)
{
    std::snprintf(text, sizeof text, "%s%s", frame, format);
}

void log_line(const gate &g, const char *source, const char *function, int line, const char *line_text)
{
    if (g_policy_plx_zlog_category == nullptr)
        return;
    tqdf_zlog(g_policy_plx_zlog_category, source, std::strlen(source), function, std::strlen(function), line,
              g.zlog_level, "%s", line_text);
}

} // namespace plx::diag
