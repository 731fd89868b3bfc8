// A policy's entries as a plane takes them, where no plane is: compiled, and in the order in which they are asked.
#pragma once

#include "plane/packet/compile.hpp"

namespace plx::tool {

// The interface that a port is taken to have.
std::string interface_of(uint32_t port);

// A configuration in which every number has a meaning that an entry mentions: ports, meters, mirror sessions.
class Numbers {
  public:
    Numbers();
    void mention(std::span<const uint8_t> packed); // attributes
    void mention_port(uint32_t port) { config_.ports[port] = interface_of(port); }
    const plane::packet::Config &config() const { return config_; }

  private:
    plane::packet::Config config_;
};

struct CompiledEntry {
    plane::packet::Compiled compiled;
    std::vector<const Form *> left_out; // fields that only a node's configuration, or another plane, gives a meaning
};
CompiledEntry compile_entry(std::span<const uint8_t> packed, const plane::packet::Config &config);

// Whether the rule, once its tests hold, settles the matter whatever else is the case.
bool decides(const plane::packet::Rule &rule);

// What an entry does to the frames that it decides on: "deny", "permit", "redirect".
std::string_view verdict_word(plane::packet::Verdict verdict);

// Greater priority first, then smaller number; the default entry last.
template <typename Entry> bool asked_before(const Entry &one, const Entry &other)
{
    if (one.is_default != other.is_default)
        return other.is_default;
    return one.priority != other.priority ? one.priority > other.priority : one.sn < other.sn;
}

// "sn 20 'private-10'"
std::string entry_label(uint64_t sn, std::string_view name);

} // namespace plx::tool
