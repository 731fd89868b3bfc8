// What a node tells the store about entries: its answers to requests, each when it is due, and the removal of what it
// told about an entry that is gone.
//
// All that is due leaves in one batch, without waiting for the store's word on it, which is taken a moment later
// (take_answers), in any case before the node writes anything else. Work between two looks at the event loop is
// bounded.
#pragma once

#include "plane/numbers.hpp"
#include "records/host.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace plx::plane {

class Outbox {
  public:
    // Whether a request is still the last one under a key: others are not answered any more.
    using Current = std::function<bool(const Key &key, uint64_t request)>;

    // The context outlives it. `retry`: the pause after a failed store call.
    // `name` is the node's: every answer carries it.
    Outbox(tq_context *context, uint32_t db, std::string name, milliseconds retry, Current current);

    // `heard`: when the request was heard of, by now_us().
    void answer(const Key &key, uint64_t request, Status status, milliseconds delay, uint64_t heard);
    void remove(const Key &key); // its status
    void remove(const Key &key, const ProtobufCMessageDescriptor &table);

    void send();     // what is due, now
    void schedule(); // the same, from the event loop

    size_t size() const { return due_.size() + later_.size() + sent_.size(); } // that the store may not have

    const AnswerNumbers &numbers() const { return numbers_; }

    // Takes the store's word on what was sent.
    void take_answers();

  private:
    struct Verdict {
        uint64_t request;
        Status status;
        uint64_t heard, sent = 0; // by now_us()
    };

    struct Reply {
        Key key;
        const ProtobufCMessageDescriptor *table;
        std::optional<Verdict> verdict; // none: the entry is gone, and the record is to go
    };

    void take_due();
    int send(const Reply &reply);
    int write(const Reply &reply);

    tq_context *context_;
    uint32_t db_;
    std::string name_;
    milliseconds retry_;
    Current current_;
    std::deque<Reply> due_;
    std::multimap<milliseconds, Reply> later_; // by the time at which they are due
    bool batching_ = false;
    milliseconds not_before_{0}; // the next try behind a failure
    std::vector<Reply> sent_;    // in this batch
    AnswerNumbers numbers_;
    Timer send_timer_, answer_timer_;
};

} // namespace plx::plane
