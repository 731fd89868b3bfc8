// One apply of an application at a time: a lock in the store, with its owner's name and an end, which is moved on while
// the owner lives. The clocks of machines that share a store must agree within those seconds.
#pragma once

#include "records/host.hpp"
#include <string>
#include <tq_mom.h>

namespace plx::tool {

class ApplyLock {
  public:
    // The context outlives it.
    ApplyLock(tq_context *context, uint32_t db, std::string app, std::chrono::seconds lasts);
    ~ApplyLock(); // gives it back
    ApplyLock(const ApplyLock &) = delete;
    ApplyLock &operator=(const ApplyLock &) = delete;

    // Tries once. The store client's result; with 0 see held().
    int take();
    bool held() const { return held_; }
    // Two want it at once and the other one steps back: try again at once.
    bool next() const { return claimed_ && !held_; }
    // Who has it, where this has not.
    const std::string &other() const { return other_; }
    const std::string &owner() const { return owner_; }

  private:
    struct Others {
        const ApplyLock *self;
        uint64_t lowest = UINT64_MAX;
        bool held = false;
        std::string owner{};
    };

    static int32_t on_record(void *handle, const tq_mom_notification *entry, void *arg);
    int look(Others &others) const;
    int write();
    void give_up();

    tq_context *context_;
    uint32_t db_;
    std::string app_;
    std::chrono::milliseconds lasts_;
    std::string owner_, other_;
    uint64_t number_;
    bool claimed_ = false, held_ = false;
    Timer renewal_;
};

} // namespace plx::tool
