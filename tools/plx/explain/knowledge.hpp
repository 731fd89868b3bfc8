// What is known of a frame, and what follows from it for the tests of a rule: they hold for every such frame, for none,
// or it depends on what is not known.
//
// Known is what another list of tests says: all that is known of the frames that pass it. An answer that is not
// `depends` is right for all of them; not everything that follows is found.
#pragma once

#include "plane/packet/rule.hpp"

namespace plx::tool {

enum class Truth : uint8_t { no, depends, yes };

class Knowledge {
  public:
    // Of the frames that pass the tests.
    explicit Knowledge(std::span<const plane::packet::Test> tests);

    Truth judge(const plane::packet::Test &test) const;
    Truth judge(std::span<const plane::packet::Test> tests) const; // all of them

    // The bits of the mask, of the source's size, where all of them are known; an empty mask: all bits.
    std::optional<plane::packet::Bytes> bits(const plane::packet::Source &source,
                                             const plane::packet::Bytes &mask) const;

  private:
    struct Fact {
        plane::packet::Load load;
        uint16_t offset;
        uint8_t mask, value;
    };
    struct Partly { // known bits, and those they may be at least and at most
        plane::packet::Bytes mask, low, high;
    };

    void learn(const plane::packet::Test &test);
    void learn_linked();
    void reach(plane::packet::Load load, unsigned end);
    bool present(const plane::packet::Source &source) const;
    Partly partly(const plane::packet::Source &source) const;
    bool value_excluded(const plane::packet::Source &source, const plane::packet::Bytes &value) const;
    bool set_excluded(const plane::packet::Test &test) const;
    bool stated(const plane::packet::Test &test) const;
    Truth compare(const plane::packet::Test &test, const Partly &known) const;
    Truth compare_value(const plane::packet::Test &test, const Partly &known) const;
    Truth compare_range(const plane::packet::Test &test, const Partly &known) const;

    std::vector<plane::packet::Test> tests_;
    std::vector<Fact> facts_;
    std::array<unsigned, 9> ends_{}; // by Load: so many bytes of it are there
};

} // namespace plx::tool
