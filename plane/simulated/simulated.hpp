// A forwarding plane that only remembers: a table of limited size that can be told to refuse, to be slow and to stay
// silent. For demonstrations, for trying an application out without a switch, and for tests.
#pragma once

#include "plane/plane.hpp"
#include <string>
#include <string_view>

namespace plx::plane {

// What a rule is about. An absent part matches everything; one with `sn` matches entries (ACEs) alone.
struct Pattern {
    std::optional<std::string> app;
    std::optional<uint32_t> acl;
    std::optional<uint64_t> sn;

    bool matches(const Key &key) const;
};

// "APP", "APP/ACL" or "APP/ACL/SN", each part possibly "*"; nullopt for anything else.
std::optional<Pattern> parse_pattern(std::string_view text);

enum class Effect : uint8_t {
    refuse, // Status::refused
    silence,
    delay, // of the answer
    slow   // the plane takes so long for the change, a removal as well, and its node waits
};

struct Rule {
    Effect effect;
    Pattern pattern;
    milliseconds delay{0};
};

struct SimulatedOptions {
    size_t table_size = 4096;          // entries (ACEs) that fit
    std::vector<Rule> rules;           // all that match take effect
    uint64_t packets_per_reading = 16; // traffic: each reading of an entry's counters finds so many more, of 64 bytes

    // Reads one of: size=N  refuse[=PATTERN]  silent[=PATTERN]  delay=MS[@PATTERN]  slow=MS[@PATTERN]. False when
    // `text` is none of them.
    bool add(std::string_view text);
};

// The same for one of several: "2:silent" is for the second.
bool add_simulated(std::span<SimulatedOptions> nodes, std::string_view text);

class SimulatedPlane final : public Plane {
  public:
    explicit SimulatedPlane(SimulatedOptions options) : options_(std::move(options)) {}

    std::vector<Answer> program(std::span<const Change> changes) override;
    std::vector<Answer> try_out(std::span<const Change> changes) override;
    Answer confirm(const Key &key) const override;
    std::map<Key, Installed> installed() const override;
    Description describe() const override { return {"sim", options_.table_size, entries_}; }
    std::vector<std::pair<AceKey, Counters>> counters() override;

    size_t entries() const { return entries_; }   // ACEs programmed
    uint64_t touched() const { return touched_; } // changes that were asked for
    uint64_t batches() const { return batches_; } // calls of program()

  private:
    struct Row {
        Installed installed;
        Counters counters;
    };

    Answer make(const Change &change);
    Status judge(const Key &key, const Requested &wanted) const;

    SimulatedOptions options_;
    std::map<Key, Row> rows_;
    std::optional<Key> last_counted_;
    size_t entries_ = 0;
    uint64_t touched_ = 0;
    uint64_t batches_ = 0;
};

} // namespace plx::plane
