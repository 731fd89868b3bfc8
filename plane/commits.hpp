// Whose changes wait: the commit markers that applications keep in the store.
//
// While an application's enable marker stands, and its seconds have not passed, none of the application's changes is
// programmed. Its publish marker, the end of the seconds and the removal of the enable marker each make all of them
// together. Nothing is kept of the changes meanwhile: whoever makes them reads the tables when it is time.
//
// A hold (records/policy_copy.hpp) has no time: until it is removed the application's policy is its copy, for a node
// that starts, too. It outdoes the other markers.
//
// A node owns one, hands it the marker table's notifications, and asks it before it programs.
#pragma once

#include "records/host.hpp"
#include <functional>
#include <map>
#include <string>
#include <tq_mom.h>

namespace plx::plane {

class Commits {
  public:
    // Makes what was staged of an application. False: not now, but later and without being asked.
    using Make = std::function<bool(const std::string &app)>;

    // The context outlives it. The node subscribes to the markers before all other tables, so that they are heard of
    // before the changes that they are for. `unknown` is called where the store does not tell whether changes wait:
    // they do, until they are looked at again.
    Commits(tq_context *context, uint32_t db, Make make, std::function<void()> unknown);

    void take(const tq_mom_notification &notification);
    void forget(); // notifications were missed: each marker is read again when it matters
    // Whether an application's changes wait. May read the store, and make what other applications staged.
    bool staged(const std::string &app);

    // The applications that are held, and the slots of their copies. The store client's result.
    int held(std::map<std::string, uint32_t> &slots);

  private:
    enum class State : uint8_t {
        none,    // there is no enable marker
        staging, // there is one, and its seconds have not passed
        held,    // until its hold goes
        spent,   // they have: it means nothing until it is written again
        unknown  // the store did not tell
    };

    struct Commit {
        State state = State::none;
        milliseconds until{0}; // while staging
    };

    static int32_t on_held(void *handle, const tq_mom_notification *entry, void *arg);
    Found read(const std::string &app, uint32_t marker);
    [[nodiscard]] bool look_up(const std::string &app);
    void release(const std::string &app);
    void open(const std::string &app, uint64_t seconds);
    void finish(const std::string &app, bool stands);
    void end_due();

    tq_context *context_;
    uint32_t db_;
    Make make_;
    std::function<void()> unknown_;
    std::map<std::string, Commit> commits_; // of the applications that were heard of or looked up
    Timer timer_;
};

} // namespace plx::plane
