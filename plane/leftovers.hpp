// What is left in the store of entries that went while no node was there: their statuses and counters, whose names
// nobody asks for any more.
//
// They are looked for once, a while after the first comparison, and until then they may be there (cleared). The store
// is asked about each entry that the node does not know: it may be staged.
#pragma once

#include "plane/outbox.hpp"
#include "records/host.hpp"
#include "records/record.hpp"
#include <functional>
#include <tq_mom.h>

namespace plx::plane {

class Leftovers {
  public:
    struct Options {
        uint32_t db;
        milliseconds after; // a comparison
        milliseconds retry; // where a table could not be read
    };
    struct Node {
        std::function<bool(const Key &)> knows; // an entry, programmed or refused
        std::function<void()> keep_beating;     // on the way
    };

    // The context and the outbox outlive it.
    Leftovers(tq_context *context, const Options &options, Outbox &outbox, Node node);

    void compared();
    bool cleared() const { return cleared_; }

  private:
    static int32_t on_record(void *handle, const tq_mom_notification *notification, void *arg) noexcept;
    void clear();
    bool is_leftover(const Key &key) const;

    tq_context *context_;
    Options options_;
    Outbox &outbox_;
    Node node_;
    bool cleared_ = false;
    Timer timer_;
};

} // namespace plx::plane
