// What a service node needs of the forwarding plane behind it.
//
// The node (node.hpp) knows the store: what is wanted, what has been answered, when changes take effect together. A
// plane knows how to make it so. It is called on the event loop's thread only, and it does not call back, but for a
// sign of life.
#pragma once

#include "records/host.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace plx::plane {

struct Change {
    Key key;
    std::optional<Requested> wanted; // nullopt: remove what is programmed under the key
    uint64_t heard = 0;              // when, by now_us(): the node's own matter
};

struct Answer {
    Status status = Status::ok;
    milliseconds delay{0}; // the node gives the answer so much later
    bool silent = false;   // the node gives none
    std::string text{};    // why not, in the plane's own words
};

struct Installed {
    uint64_t request = 0; // identifier of the request that it was programmed for
    uint64_t fingerprint = 0;
};

struct Counters {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    auto operator<=>(const Counters &) const = default;
};

// What a plane is, and how full.
struct Description {
    std::string kind;
    uint64_t room = 0;                          // entries (ACEs) that fit
    uint64_t entries = 0;                       // that are there
    std::vector<uint32_t> ports{};              // that are here; none of a plane that has all
    std::vector<uint32_t> refused_attributes{}; // that no entry may have: class << 16 | id, ascending
    uint64_t errors = 0;                        // that what is behind it gave, since the start
};

class Plane {
  public:
    virtual ~Plane() = default;

    // Called from inside calls that take long, so that the node can show that it lives. It calls no plane.
    void set_alive(std::function<void()> alive) { alive_ = std::move(alive); }

    // Makes the changes, in order, so that traffic sees all of them at once. One answer for each change: a change that
    // fails leaves what was programmed under its key before, and stops none of the others.
    virtual std::vector<Answer> program(std::span<const Change> changes) = 0;

    // What program() would answer, as far as that can be known without a change. Nothing is changed.
    virtual std::vector<Answer> try_out(std::span<const Change> changes) = 0;

    // What it says of an entry that is wanted again as it has it.
    virtual Answer confirm(const Key &) const { return {}; }

    // What is programmed: a plane may have outlived the node that programmed it.
    virtual std::map<Key, Installed> installed() const = 0;

    virtual Description describe() const = 0;

    // The same of one application, and asked of the plane anew: what stands there, whatever is remembered of it.
    // nullopt when the plane cannot be read.
    virtual std::optional<std::vector<std::pair<Key, Installed>>> read_back(const std::string &app)
    {
        std::vector<std::pair<Key, Installed>> all;
        for (auto &[key, programmed] : installed())
            if (application_of(key) == app)
                all.emplace_back(key, programmed);
        return all;
    }

    // Hits of programmed entries since they were first programmed, as many as are read at one go: each call goes on
    // where the last one ended. None: all have been read, and the next call begins again.
    virtual std::vector<std::pair<AceKey, Counters>> counters() = 0;

    // A descriptor that becomes readable when something happened that may change what is in force; -1 for none.
    virtual int descriptor() const { return -1; }

    // Looks after what is programmed: when the descriptor is readable, and at every heartbeat. The keys that are not in
    // force any more, or that were refused and would not be now: the node programs them again.
    virtual std::vector<Key> look() { return {}; }

  protected:
    // At each step of what grows with the number of entries.
    void step() const
    {
        if (alive_)
            alive_();
    }

  private:
    std::function<void()> alive_;
};

} // namespace plx::plane
