// See history.hpp. Each table tells for itself: a timer makes one of them.
#include "history.hpp"

#include "area.hpp"

#include <plx/history.h>
#include <tq_time.h>

namespace plx::mgr {
namespace {

constexpr timeval gathering = {0, 100'000};

struct {
    plx_history_cb cb;
    void *ctx;
    tq_thread *timer;
} history = {};

void tell()
{
    report<Error>("the store has lost what was written to it, write all again.\n");
    if (history.cb != nullptr)
        history.cb(history.ctx);
}

int on_timer(tq_thread *)
{
    history.timer = nullptr;
    tell();
    return 0;
}

} // namespace

// Where the timer is refused it is told at once.
void note_history(void *ctx, const tq_mom_notification &notification)
{
    const bool lost = notification.event == TQ_MOM_EVENT_RESYNC && notification.result == TQ_MOM_NEW_HISTORY;
    if (!lost || history.timer != nullptr)
        return;
    history.ctx = ctx;
    auto **members = static_cast<tq_thread_master **>(ctx);
    tq_thread_master *master = members == nullptr ? nullptr : members[1];
    if (tq_thread_insert_timer_timeval(master, &history.timer, on_timer, nullptr, &gathering, "fp_udp_history") != 0)
        tell();
}

} // namespace plx::mgr

extern "C" void plx_set_history_cb(plx_history_cb cb)
{
    plx::mgr::history.cb = cb;
}
