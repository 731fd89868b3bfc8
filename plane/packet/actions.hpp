// What the actions and controls of an entry come to: the rules behind its tests.
#pragma once

#include "plane/packet/compile.hpp"
#include "plane/packet/fields.hpp"
#include "plane/packet/settle.hpp"

namespace plx::plane::packet {

// Why an entry is not compiled; ok: no reason.
struct Refusal {
    Status status = Status::ok;
    std::string text;
};
Refusal refuse(Status status, const Form &form, const std::string &why);
Refusal exclude_each_other(const Form &one, const Form &other);

// The actions and controls that are more than bits to write.
enum class Deed : uint8_t {
    write, // bits: a row of its own says which
    fwd,
    mirror,
    redirect,
    meter,
    counter,
    priority,
    session,
    trap,
    snoop,
    sampling,
    no_default,
    permit2deny,
    no_deny,
    no_permit,
    count // of all
};

class Deeds {
  public:
    explicit Deeds(const Config &config) : config_(config) {}

    static bool knows(const Form &form, const Config &config);
    Refusal take(const Form &form, uint64_t value);
    // When all attributes are taken: whether the actions go together.
    Refusal check() const;

    bool installed() const { return !asks(permits() ? Deed::no_permit : Deed::no_deny); }
    bool unless_default() const { return asks(Deed::no_default); }

    // Appends the rules of one alternative of the entry's tests, which can be passed: settled(tests) is it.
    void append(const std::vector<Sought> &tests, const std::vector<Test> &settled, std::vector<Rule> &rules);
    // When all alternatives are appended: whether every write is in one of them.
    Refusal check_writes() const;

  private:
    // Bits that are written to frames of one kind.
    struct Change {
        Write write;
        Source proof; // a field whose presence tells that the write cannot fail
        const Form *by;
        bool used = false;
    };
    struct Taken {
        const Form *by;
        uint64_t value;
    };
    using Kinds = std::vector<Guard>;

    Refusal take_deed(Deed deed, const Form &form, uint64_t value);
    Refusal take_port(const Form &form, uint32_t port, std::string &interface) const;
    Refusal take_write(const Form &form, uint64_t value);
    const std::optional<Taken> &taken(Deed deed) const { return taken_[static_cast<size_t>(deed)]; }
    uint32_t number(Deed deed) const { return taken(deed) ? static_cast<uint32_t>(taken(deed)->value) : 0; }
    bool asks(Deed deed) const { return number(deed) == 1; }
    bool permits() const { return !taken(Deed::fwd) || asks(Deed::fwd); }
    const Form *dropping() const; // the attribute that makes the verdict a drop; nullptr: it is none
    Rule final_rule() const;
    std::vector<Kinds> kinds() const;
    bool append_variant(const Kinds &kinds, const std::vector<Sought> &tests, const std::vector<Test> &settled,
                        std::vector<Rule> &rules);

    const Config &config_;
    std::array<std::optional<Taken>, static_cast<size_t>(Deed::count)> taken_;
    std::vector<Action> actions_;
    std::map<Guard, Change> changes_;
    std::string redirect_;
};

} // namespace plx::plane::packet
