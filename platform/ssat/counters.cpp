// See counters.hpp. A store client, loop or log of another make need not count: what it does not have is not shown.
#include "counters.hpp"

#include "tq_context.h"
#include "tq_loop.h"
#include "tq_mom.h"
#include "tq_zlog.h"

#pragma weak tq_mom_counters_get
#pragma weak tq_mom_strerror
#pragma weak tq_loop_counters_get
#pragma weak tq_zlog_held_back

namespace ssat {

namespace {

void add(std::string &text, uint64_t number, const std::string &what)
{
    text += std::to_string(number) + '\t' + what + '\n';
}

void add_store(std::string &text, void *context)
{
    tq_mom_counters store;
    if (!tq_mom_counters_get || !tq_mom_strerror || tq_mom_counters_get(context, &store) != 0)
        return;
    for (int result = 0; result < TQ_MOM_RESULT_COUNT; ++result)
        if (result == TQ_MOM_OK || store.results[result] > 0)
            add(text, store.results[result], std::string("store calls: ") + tq_mom_strerror(result));
    add(text, store.connections, "store connections");
    add(text, store.delivered, "changes told");
    add(text, store.losses, "losses of changes");
    add(text, store.recovered, "records told in place of lost changes");
    add(text, store.exceptions, "exceptions of store callbacks");
}

void add_loop(std::string &text, const tq_thread_master *master)
{
    tq_loop_counters loop;
    if (!tq_loop_counters_get)
        return;
    tq_loop_counters_get(master, &loop);
    add(text, loop.timers, "timers");
    add(text, loop.late, "timers late by a tenth of a second or more");
    add(text, loop.worst_us, "microseconds that the worst timer was late");
    add(text, loop.exceptions, "exceptions of loop callbacks");
}

} // namespace

ssat_counters &counted()
{
    static ssat_counters counters;
    return counters;
}

std::string list_counters(void *context)
{
    std::string text;
    add_store(text, context);
    add_loop(text, static_cast<const tq_context *>(context)->master);
    if (tq_zlog_held_back)
        add(text, tq_zlog_held_back(), "log messages held back");
    add(text, counted().commands, "shell commands");
    add(text, counted().cut, "shell answers cut");
    add(text, counted().dropped, "shell connections dropped for another");
    add(text, counted().denied, "shell connections of other users");
    return text;
}

} // namespace ssat

void ssat_counters_get(ssat_counters *counters)
{
    if (counters)
        *counters = ssat::counted();
}
