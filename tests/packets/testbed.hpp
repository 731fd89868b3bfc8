// A network namespace in which rules meet real frames, for the process that asks for it.
//
//     in -> t0=t1 -> ingress rules of t1 -> e0: egress rules of e0 -> e1 -> out; copies and redirects: m0=m1 -> out
//
// A frame is followed by a marker on a way of its own: when the marker is through, the frame is, or never will be.
#pragma once

#include "plane/nftables/expressions.hpp"
#include "plane/nftables/netlink.hpp"
#include "plane/packet/interpreter.hpp"

namespace plx::test {

class Testbed {
  public:
    // Why there can be none here; "" when there can.
    static const std::string &missing();
    static Testbed &get(); // made at the first call

    // Puts rules on one side, in the place of all those before; an errno's text, "" when they are in force.
    std::string load(std::span<const plane::packet::Rule> rules, bool egress);

    struct Seen {
        std::vector<std::vector<uint8_t>> passed, copied; // frames at e1, at m1
        std::vector<uint16_t> logged;                     // groups that were given a copy
    };
    Seen send(const plane::packet::Frame &frame);
    // What of it the interpreter told differently; "" when nothing.
    static std::string difference(const plane::packet::Frame &frame, const plane::packet::Outcome &outcome,
                                  const Seen &seen);
    // How often each rule was hit, in order.
    std::vector<uint64_t> hits(bool egress);
    // One rule, which looks up its verdict in a map that nft(8) makes of the text; an error's text or "".
    std::string load_map(const plane::packet::Mappable &entry, const std::string &map);
    std::string shared_counters(); // as nft(8) lists them
    // What nft(8) says of everything, as text or JSON; its error when it fails.
    std::string listing(bool json);

  private:
    Testbed();
    std::string commit(plane::nftables::Batch &batch);
    plane::nftables::Netlink netlink_;
    int in_, marker_, passed_, copied_, logged_;
    uint32_t sequence_ = 0;
};

} // namespace plx::test
