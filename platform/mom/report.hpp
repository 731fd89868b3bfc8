// What the store client has to tell an operator goes to the system log, category "tq_mom".
#ifndef TQ_MOM_REPORT_HPP
#define TQ_MOM_REPORT_HPP

#include <string>
#include <tq_zlog.h>

namespace mom {

inline void report(int level, const std::string &text)
{
    void *const category = tq_zlog_init("tq_mom"); // the same each time; none while memory is short
    constexpr char file[] = "platform/mom";
    tqdf_zlog(category, file, sizeof file - 1, "tq_mom", 6, 0, level, "%s", text.c_str());
}

} // namespace mom

#endif
