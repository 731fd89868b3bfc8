// Changes that a node has heard of, on their way to the plane.
//
// They are gathered until the loop has delivered what it had, and after a call of the plane for as long as that took:
// each call has its price, and a change in quiet times does not wait.
#pragma once

#include "plane/plane.hpp"
#include "records/host.hpp"
#include <functional>
#include <optional>
#include <tq_context.h>
#include <vector>

namespace plx::plane {

class Inbox {
  public:
    // Makes them. Of several changes of one key only the last is among them.
    using Make = std::function<void(std::vector<Change> changes)>;

    // The context outlives it.
    Inbox(tq_context *context, Make make);

    void hear(Key key, std::optional<Requested> wanted);
    void plane_called(milliseconds took);

    size_t size() const { return changes_.size(); }

  private:
    void hand_on();

    Make make_;
    std::vector<Change> changes_;
    milliseconds gather_until_{0}; // changes that come before wait for each other
    Timer timer_;
};

} // namespace plx::plane
