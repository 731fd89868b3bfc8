// What was asked for and what became of it: one row for each ACL, apply and entry of a policy, in the order of the
// file.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace plx::tool {

enum class Outcome : uint8_t {
    unwritten,  // not handed to the library yet
    waiting,    // written, and the service nodes have yet to answer
    programmed, // every live service node has answered
    stored,     // in the store, where it needs no confirmation
    failed,     // refused by a service node, or by the store
    aged,       // the library stopped waiting before enough service nodes had answered
    timed_out   // this program did
};
constexpr size_t outcome_count = 7;

const char *outcome_name(Outcome outcome);

class Ledger {
  public:
    size_t add(std::string entry);
    void begin(size_t row);
    // The first end of a row since it was begun is the one that counts.
    void end(size_t row, Outcome outcome, std::string status);
    // Ends every row that waits.
    void end_waiting(Outcome outcome, const std::string &status);

    size_t count(Outcome outcome) const { return counts_[static_cast<size_t>(outcome)]; }
    size_t size() const { return rows_.size(); }
    // "60 programmed, 3 failed": outcomes that some row has.
    std::string summary() const;
    void print(std::ostream &out) const;

  private:
    struct Row {
        std::string entry;
        std::string status{};
        uint64_t begun_us = 0;
        uint64_t ended_us = 0;
        Outcome outcome = Outcome::unwritten;
    };

    void move(Row &row, Outcome outcome);

    std::vector<Row> rows_;
    std::array<size_t, outcome_count> counts_{};
};

} // namespace plx::tool
