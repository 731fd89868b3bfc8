// What rules do to a frame: the meaning of the compiled form, in software.
//
// It sees a frame as the Linux kernel does where a plane's rules are: the first tag, 0x8100 or 0x88a8, is taken off,
// but its bytes are in place for whoever looks from the first byte; behind an IPv4 or IPv6 header that lies about its
// length there is no transport header. Frames are hostile: nothing is read beyond the bytes given.
#pragma once

#include "plane/packet/rule.hpp"

namespace plx::plane::packet {

struct Frame {
    std::vector<uint8_t> bytes; // from the destination address on, without check sequence
    std::string input, output;  // interfaces; the one of the other direction is empty
    uint32_t mark = 0;
    // What a frame does not tell: the answers to Rule::over_meter and Rule::one_in.
    bool over_meter = false;
    bool sampled = false;
};

bool matches(const Rule &rule, const Frame &frame);

struct Outcome {
    Verdict verdict = Verdict::next; // next: no rule decided
    std::string interface;           // of redirect
    std::vector<uint8_t> bytes;      // the frame as it goes on
    uint32_t priority = 0;           // as SetPriority left it
    std::vector<size_t> matched;     // rules that matched, by their place in the list
    std::vector<Action> done;        // their actions, in order
};

// Goes through a list of rules until one decides.
Outcome interpret(std::span<const Rule> rules, const Frame &frame);

} // namespace plx::plane::packet
