// What becomes of a frame, entry by entry, where not all of it may be known. It is the plane's compiled form that
// judges: for a whole frame by the interpreter, for one of which some fields are known by what follows from them.
#pragma once

#include "explain/entries.hpp"
#include "explain/knowledge.hpp"
#include "explain/scene.hpp"
#include "plane/packet/interpreter.hpp"

namespace plx::tool {

class Subject {
  public:
    // Of which these match fields, packed, are known. On an error no subject, and its text.
    static std::optional<Subject> of_fields(std::span<const uint8_t> packed, uint32_t port, uint32_t direction,
                                            const plane::packet::Config &config, std::string &error);
    static Subject of_frame(std::vector<uint8_t> bytes, uint32_t port, uint32_t direction);

    Truth judge(std::span<const plane::packet::Test> tests) const;
    uint32_t direction() const { return direction_; }

  private:
    std::vector<Knowledge> known_; // one of which holds
    std::optional<plane::packet::Frame> frame_;
    uint32_t direction_ = 0;
};

struct Judgement {
    Truth truth = Truth::no;
    plane::packet::Verdict verdict = plane::packet::Verdict::next; // where it matches
    bool metered = false;                                          // it denies what is above a rate
    std::string why;                                               // why not; on what it depends; what matches
};
Judgement judge(const SceneEntry &entry, bool has_default, const Subject &subject, const plane::packet::Config &config);

// The match fields of an entry as a policy has them.
std::string match_text(std::span<const uint8_t> packed);

} // namespace plx::tool
