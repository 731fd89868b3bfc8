// The counter records of entries: what the plane has counted, as the store is told of it.
//
// The plane's counters are read in rounds, with a pause between two, and those that changed are published so many in a
// second, in turns: what was read at one go may take several. The node owns one, and keeps for each of its entries what
// the store was told last.
#pragma once

#include "plane/outbox.hpp"
#include "plane/plane.hpp"
#include "records/host.hpp"
#include <functional>
#include <vector>

namespace plx::plane {

// Of one entry.
struct CounterRecord {
    Counters published{};
    bool told = false;    // `published` is what the record holds
    bool counted = false; // there may be such a record
};

class CounterRecords {
  public:
    struct Options {
        uint32_t db;
        milliseconds interval; // between two publications of an entry's counters, at least
        uint32_t rate;         // published in a second, at most
    };
    // An entry's; nullptr when there is no such entry.
    using Find = std::function<CounterRecord *(const Key &)>;

    // The context, the plane and the outbox outlive it.
    CounterRecords(tq_context *context, const Options &options, Plane &plane, Outbox &outbox, Find find);

    void start() { timer_.start(options_.interval); }

  private:
    void publish();
    CounterRecord *send(const Key &ace, const Counters &counters);
    int write(const Key &ace, const Counters &counters);

    tq_context *context_;
    Options options_;
    Plane &plane_;
    Outbox &outbox_;
    Find find_;
    std::vector<std::pair<AceKey, Counters>> read_; // that have not had their turn
    Timer timer_;
};

} // namespace plx::plane
