// See life.hpp.
#include "plane/life.hpp"

#include "records/record.hpp"
#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>
#include <utility>

namespace plx::plane {

namespace {

constexpr milliseconds between_reports{200}; // of what was programmed, at least

} // namespace

Life::Life(tq_context *context, const Options &options, Outbox &outbox, std::function<void()> look, Publish publish)
    : context_(context), options_(options), outbox_(outbox), look_(std::move(look)), publish_(std::move(publish)),
      beat_timer_(context->master, [this] { beat(); }), report_timer_(context->master, [this] { report(); })
{
}

void Life::beat()
{
    outbox_.take_answers();
    look_();
    report(); // before the sign of life: who hears that one finds this
    show();
}

void Life::show()
{
    outbox_.take_answers();
    Record record(s_policy__service_node__descriptor);
    record.set_key_number(0, options_.dev);
    record.set_key_number(1, options_.slot);
    record.set_key_number(2, options_.id);
    // A failed one is as good as a late one. Who cannot hear what is asked for is not to be counted on.
    const bool beaten = tq_mom_client_connect_sync(context_, options_.db) == 0 &&
                        tq_mom_state_get(context_, options_.db, 0) == 0 &&
                        tq_mom_set_sync(context_, options_.db, record.message()) == 0;
    ++(beaten ? heartbeats_ : failed_);
    if (beaten)
        last_ = now();
    next_beat_ = now() + options_.heartbeat;
    beat_timer_.start(options_.heartbeat);
}

// Many may ask at a time: one sign of life is for all of them.
void Life::show_soon()
{
    constexpr milliseconds between_calls{100};
    const milliseconds beaten = next_beat_ - options_.heartbeat;
    beat_timer_.start(std::max(beaten + between_calls - now(), milliseconds(0)));
}

// From where the plane is at work, or its answers are.
void Life::show_when_due()
{
    if (now() >= next_beat_)
        show();
}

// From inside a long walk, which keeps the timer from running.
void Life::keep_beating()
{
    const milliseconds time = now();
    if (time >= next_beat_)
        beat();
    else if (report_timer_.pending() && time >= next_report_)
        report();
}

// As soon as the loop runs, but for what was reported only just.
void Life::report_soon()
{
    report_timer_.start_unless_pending(std::max(next_report_ - now(), milliseconds(0)));
}

// Again while something waits: the last report tells that nothing does.
void Life::report()
{
    const std::optional<uint64_t> backlog = publish_();
    if (!backlog)
        return;
    next_report_ = now() + between_reports;
    if (*backlog != 0)
        report_timer_.start(between_reports);
}

} // namespace plx::plane
