// What a service node says of itself in its `node_report` record: its plane, what it has of each application, and what
// it refused.
//
// The node tells it of each record that it takes up, at the price of a few nanoseconds, and says when to publish. Sums
// and counts are of all records, whatever their number; of the refused ones some are named.
#pragma once

#include "plane/plane.hpp"
#include "records/digest.hpp"
#include "records/host.hpp"
#include <string>
#include <tq_context.h>

namespace plx::plane {

// What became of a record.
struct Standing {
    Status status = Status::ok;
    uint64_t fingerprint = 0; // 0 with `ok`: the plane lost it, and it is neither programmed nor refused
    uint64_t request = 0;
};

class Report {
  public:
    struct Application {
        Digest programmed;
        uint64_t refused = 0;
        uint64_t last_request = 0;
    };
    using Applications = std::map<std::string, Application>;

    struct Author {
        uint32_t db, dev, slot, id;
        milliseconds heartbeat;
        uint64_t token; // as in its claim to the name
    };

    // The context outlives it.
    Report(tq_context *context, const Author &author);

    void enter(const Key &key, const Standing &standing, const std::string &text = {});
    void withdraw(const Key &key, const Standing &standing); // as it was entered
    void plane_called() { ++generation_; }

    const Applications &applications() const { return applications_; }

    // `backlog`: changes not yet answered. The store client's result.
    int publish(Description plane, uint64_t backlog) const;

  private:
    struct Told;
    struct Refusal {
        Standing standing;
        std::string text;
    };

    Applications::iterator application(const std::string &name);
    void tell_applications(Told &told) const;
    void tell_refusals(Told &told) const;

    tq_context *context_;
    Author author_;
    uint64_t started_ms_;
    uint64_t generation_ = 0;
    Applications applications_;
    Applications::iterator latest_; // the one that was asked for last
    std::map<Key, Refusal> refusals_;
};

} // namespace plx::plane
