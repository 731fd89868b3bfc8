// The shell's lines in the system log, under the category "ssat".
#ifndef PLX_SSAT_LOG_HPP
#define PLX_SSAT_LOG_HPP

#include "tq_zlog.h"

#include <string_view>

namespace ssat {

inline void log(int level, std::string_view function, const char *text)
{
    constexpr std::string_view file = "platform/ssat";
    void *const category = tq_zlog_init("ssat"); // the same each time; none while memory is short
    tqdf_zlog(category, file.data(), file.size(), function.data(), function.size(), 0, level, "%s", text);
}

} // namespace ssat

#endif
