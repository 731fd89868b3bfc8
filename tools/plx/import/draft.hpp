// A policy that is being made of other systems' rules, and what of them it cannot say.
//
// A rule becomes as many entries as it has alternatives. What cannot be said is refused with its line, a reason, and
// what leaving it out does; nothing is left out in silence.
#pragma once

#include <algorithm>
#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace plx::tool::import {

// Why a rule cannot be said.
struct Unsaid : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Match fields and their values, as a policy has them.
using Match = std::vector<std::pair<std::string, std::string>>;

// The frames that one of these matches.
class Matches {
  public:
    Matches() : any_{Match()} {}
    static Matches none();

    // Of them, those whose field has one of the values. Throws Unsaid.
    void narrow(const std::string &field, const std::vector<std::string> &values);
    void narrow(const Matches &other);
    // All of the same family but these, where that can be said in no more alternatives.
    std::optional<Matches> outside() const;
    // And those of the other.
    void widen(const Matches &other) { any_.insert(any_.end(), other.any_.begin(), other.any_.end()); }
    const std::vector<Match> &any() const { return any_; }
    bool has(std::string_view beginning) const; // a field whose name begins so, in any of them

  private:
    std::vector<Match> any_;
};

struct Options {
    std::string app;
    uint32_t acl = 0;
    std::string port; // empty: applied to none
    std::string direction = "in";
    std::string chain;                               // where to begin; empty: the only one that has rules
    std::string list;                                // Cisco's access list; empty: the only one
    std::map<std::string, std::string> interfaces{}; // Cisco's, and what port each is
    std::string match = "src";                       // of plain addresses
    std::string verdict = "deny";                    // for them
    bool tcp_flags = false;                          // stand for connections that are established
};

class Draft {
  public:
    // A rule's frames get a verdict. Values are checked: throws Unsaid.
    void add(const Matches &matches, bool permits, const std::string &name);
    // The same for one field with all of the values, as one entry with a list.
    void add_list(const std::string &field, const std::vector<std::string> &values, bool permits,
                  const std::string &name);
    // A rule that cannot be said, told once. `permits`: what it does to its frames, where that is known.
    void refuse(int line, const std::string &text, const std::string &why, std::optional<bool> permits);
    // Told once, however often it is said.
    void note(const std::string &text);
    // Takes back what was added behind the first so many entries, of a rule that cannot be said after all.
    void keep(size_t entries) { entries_.resize(std::min(entries_.size(), entries)); }
    // Once, however often it is said.
    void apply(const std::string &port, const std::string &direction);

    // The policy in YAML, what was refused in comments.
    void print(std::ostream &out, const Options &options) const;

    struct Refused {
        int line;
        std::string text, why;
        std::optional<bool> permits;

        // What leaving it out does: "leaving it out lets less through".
        std::string effect() const;
    };
    const std::vector<Refused> &refused() const { return refused_; }
    const std::vector<std::string> &notes() const { return notes_; }
    size_t entries() const { return entries_.size(); }
    size_t impossible() const { return impossible_; } // rules that no frame can match, and that are no loss
    void set_impossible(size_t rules) { impossible_ = rules; }

  private:
    struct Entry {
        Match match;
        std::vector<std::string> list; // values of the only field
        bool permits;
        std::string name;
    };
    std::vector<Entry> entries_;
    size_t impossible_ = 0;
    std::vector<Refused> refused_;
    std::set<int> lines_refused_;
    std::vector<std::string> notes_;
    std::vector<std::pair<std::string, std::string>> applies_;
};

// Each reads a file of its kind. Throws Unsaid when there is nothing to make a policy of.
void read_cidr(std::istream &in, const Options &options, Draft &draft);
void read_iptables(std::istream &in, const Options &options, Draft &draft);
void read_cisco(std::istream &in, const Options &options, Draft &draft);
void read_nft(std::istream &in, const Options &options, Draft &draft);

std::vector<std::string> words_of(const std::string &line); // quotes join
// A port's field and values: of `low` to `high`, or what is outside of it.
void narrow_ports(Matches &matches, const std::string &side, uint32_t low, uint32_t high, bool outside);
// Connections that are established, as far as a switch can tell: TCP with the flag ACK, and with RST.
std::vector<Matches> established(const Matches &matches, bool ipv6);

} // namespace plx::tool::import
