// What the cases of this room share: a server, nodes, and plx as the user that each of its commands is made for.
#pragma once

#include "store/redis_server.hpp"
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace plx::tool {

extern const char *const edge_policy; // one ACL, two entries, one binding: four rows

class Road : public testing::Test {
  protected:
    using Arguments = std::vector<std::string>;

    // A node on the slot of that number; it need not be ready yet.
    std::unique_ptr<Process> node(int slot, const Arguments &more = {}, const std::string &user = "plx-node");
    // The same, ready.
    std::unique_ptr<Process> ready_node(int slot, const Arguments &more = {});
    std::unique_ptr<Process> background(const Arguments &arguments, const std::string &user);

    // plx apply of `policy`, by an application.
    Arguments apply_arguments(const Arguments &more = {}, const std::string &policy = edge_policy);
    Result apply(const Arguments &more = {}, const std::string &policy = edge_policy);

    Result as(const std::string &user, const Arguments &arguments);
    // plx show WHAT --json: each line must be an object.
    std::vector<nlohmann::json> show(const Arguments &what);

    std::map<std::string, std::string> environment(const std::string &user) const;

    redis_server server_;
    TemporaryDirectory directory_;
};

std::vector<nlohmann::json> objects(const std::string &lines);

} // namespace plx::tool
