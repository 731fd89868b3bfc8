// What was asked for and what became of it: one row for each ACL, apply and entry of a policy, in the order of the
// file. A row is small, since a policy may have millions: its words are made when it is printed.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
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
    timed_out,  // this program did
    unchanged   // as the store has it already, and not written
};
constexpr size_t outcome_count = 8;

const char *outcome_name(Outcome outcome);

class Ledger {
  public:
    // What a row is about; called when it is printed.
    using Label = std::function<std::string(size_t row)>;

    Ledger() = default;
    Ledger(size_t rows, Label label);

    void begin(size_t row);
    // As before its beginning.
    void put_back(size_t row) { move(rows_[row], Outcome::unwritten); }
    // The first end of a row since it was begun is the one that counts.
    void end(size_t row, Outcome outcome, const std::string &status);

    Outcome outcome(size_t row) const { return rows_[row].outcome; }
    size_t count(Outcome outcome) const { return counts_[static_cast<size_t>(outcome)]; }
    size_t size() const { return rows_.size(); }
    // "60 programmed, 3 failed": outcomes that some row has.
    std::string summary() const;
    // All rows but the unchanged; with --json as lines of type "entry".
    void print(std::ostream &out, bool failed_only = false) const;
    // The outcomes that some row has, by name.
    std::map<std::string, size_t> counts() const;

  private:
    struct Row {
        uint64_t begun_us = 0;
        uint32_t took_us = 0; // an hour and more is shown as one
        uint32_t status : 24 = 0;
        Outcome outcome : 8 = Outcome::unwritten;
    };

    bool listed(const Row &row, bool failed_only) const;
    void print_json(bool failed_only) const;
    void move(Row &row, Outcome outcome);
    uint32_t number_of(const std::string &status);

    std::vector<Row> rows_;
    Label label_;
    std::vector<std::string> statuses_{""}; // the few that there are
    std::map<std::string, uint32_t> numbers_;
    std::array<size_t, outcome_count> counts_{};
};

} // namespace plx::tool
