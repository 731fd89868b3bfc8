// The shell's lines in the system log, under the category "ssat".
#ifndef PLX_SSAT_LOG_HPP
#define PLX_SSAT_LOG_HPP

#include "tq_zlog.h"

#include <string_view>

namespace ssat {

template <typename... arguments> void log(int level, std::string_view function, const char *format, arguments... values)
{
    constexpr std::string_view file = "platform/ssat";
    char text[512];
    at_snprintf(text, sizeof text, format, values...);
    static void *const category = tq_zlog_init("ssat");
    tqdf_zlog(category, file.data(), file.size(), function.data(), function.size(), 0, level, "%s", text);
}

} // namespace ssat

#endif
