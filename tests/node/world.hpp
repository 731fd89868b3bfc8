// A store, its event loop and an application's hand on it: what the node tests act and look through.
//
// Each world has an embedded store of its own. Nothing here waits for a time to pass: run_until() runs the loop until
// what is awaited is there, settle() until everything written before has been dealt with.
#pragma once

#include "plane/node.hpp"
#include "plane/simulated/simulated.hpp"
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <tq_loop.h>
#include <vector>

namespace plx::plane {

// A status record as it was heard of.
struct Heard {
    Key key;
    int32_t status = 0;
    uint64_t request = 0;
    bool operator==(const Heard &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Heard &heard);

class World : public testing::Test {
  protected:
    explicit World(const std::string &store_options = "");

    static constexpr uint32_t db = 8;

    Context context();
    // A running node with intervals that suit a test.
    std::unique_ptr<Node> node(Plane &plane, uint32_t id = 0);

    // A simulated plane with a running node of its own, both until the test's end.
    SimulatedPlane &start(SimulatedOptions options = {});

    void set(const Key &key, uint64_t request, std::vector<uint8_t> value = {});
    void del(const Key &key);
    void set_marker(const std::string &app, uint32_t operation, uint32_t seconds);
    void del_marker(const std::string &app, uint32_t operation);

    bool run_until(const std::function<bool()> &condition);
    // Runs the loop until every node here has dealt with everything written so far.
    void settle(size_t nodes = 1);

    std::vector<Heard> answers(const Key &key) const;
    // The keys of a table.
    std::vector<Key> stored(const ProtobufCMessageDescriptor &table) const;
    int heard_of(const Key &key) const { return static_cast<int>(answers(key).size()); }

    Loop loop_;
    std::string url_;
    Context application_;
    std::vector<Heard> heard_;
    int heartbeats_ = 0;
    std::vector<Heard> counters_; // status holds the packets, request the bytes

  private:
    static int32_t on_status(void *handle, const tq_mom_notification *notification, void *arg);
    static int32_t on_publication(void *handle, const tq_mom_notification *notification, void *arg);

    uint32_t barrier_ = 0;
    std::vector<std::unique_ptr<SimulatedPlane>> planes_;
    std::vector<std::unique_ptr<Node>> nodes_;
};

inline Key ace(uint64_t sn, uint32_t acl = 10, const std::string &app = "edge")
{
    return AceKey{.app = app, .acl = acl, .sn = sn};
}

inline Key apply(uint32_t port, uint32_t acl = 10, const std::string &app = "edge")
{
    return ApplyKey{.app = app, .acl = acl, .acl_app = app, .phyid = port, .priority = 1, .direction = 0};
}

SimulatedOptions simulated(std::initializer_list<std::string_view> texts);

// One packed attribute.
std::vector<uint8_t> packed(uint32_t type_word, std::vector<uint8_t> value);

} // namespace plx::plane
