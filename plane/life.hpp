// How a node shows that it lives, and when it reports what it has.
//
// A sign of life is the node's record, written again at every heartbeat; applications count a node out that is silent
// for long. Before it the node looks after its plane and reports, so that who hears the sign finds the report. Between
// signs it reports when something was made, but not all the time.
//
// Long walks keep the timers from running: whoever walks calls keep_beating() on the way, and show_when_due() where
// the plane is at work.
#pragma once

#include "plane/outbox.hpp"
#include "records/host.hpp"
#include <functional>
#include <optional>

namespace plx::plane {

class Life {
  public:
    struct Options {
        uint32_t db, dev, slot, id;
        milliseconds heartbeat;
    };
    // Publishes the report, and says how many changes are not yet answered. None: there is nothing to say yet.
    using Publish = std::function<std::optional<uint64_t>()>;

    // The context and the outbox outlive it. `look` looks after the plane.
    Life(tq_context *context, const Options &options, Outbox &outbox, std::function<void()> look, Publish publish);

    void beat(); // looks, reports and shows life, and again at every heartbeat
    void keep_beating();
    void show_when_due();
    void show_soon(); // somebody asks who lives

    void report();
    void report_soon();

    uint64_t heartbeats() const { return heartbeats_; }
    uint64_t failed() const { return failed_; }
    milliseconds since_last() const { return now() - last_; } // that the store took; since the start where it took none

  private:
    void show();

    tq_context *context_;
    Options options_;
    Outbox &outbox_;
    std::function<void()> look_;
    Publish publish_;
    milliseconds next_beat_{0}, next_report_{0}, last_{now()};
    uint64_t heartbeats_ = 0, failed_ = 0;
    Timer beat_timer_, report_timer_;
};

} // namespace plx::plane
