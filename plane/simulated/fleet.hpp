// Simulated service nodes in one process, on one event loop: what stands in for a switch on the embedded store.
#pragma once

#include "plane/node.hpp"
#include "plane/simulated/simulated.hpp"
#include <memory>
#include <string>
#include <vector>

namespace plx::plane {

class Fleet {
  public:
    // The loop outlives the fleet.
    Fleet(std::string store_url, tq_thread_master *master, NodeOptions options)
        : store_url_(std::move(store_url)), master_(master), options_(std::move(options))
    {
    }

    // Starts one more node, numbered from 0 by its `id`. The store client's result; TQ_MOM_INVALID for a malformed
    // address.
    int add(SimulatedOptions plane);

    size_t size() const { return members_.size(); }
    SimulatedPlane &plane(size_t node) { return members_[node]->plane; }

  private:
    struct Member {
        Member(SimulatedOptions simulated, Context context, const NodeOptions &options)
            : plane(std::move(simulated)), node(std::move(context), plane, options)
        {
        }
        SimulatedPlane plane;
        Node node;
    };

    std::string store_url_;
    tq_thread_master *master_;
    NodeOptions options_;
    std::vector<std::unique_ptr<Member>> members_;
};

} // namespace plx::plane
