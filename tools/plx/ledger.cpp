// See ledger.hpp.
#include "ledger.hpp"

#include "records/host.hpp"
#include <algorithm>
#include <iomanip>
#include <sstream>

namespace plx::tool {

namespace {

std::string duration(uint64_t us)
{
    std::ostringstream text;
    text << std::fixed;
    if (us >= 1'000'000)
        text << std::setprecision(2) << static_cast<double>(us) / 1e6 << " s";
    else
        text << std::setprecision(1) << static_cast<double>(us) / 1e3 << " ms";
    return text.str();
}

bool ended(Outcome outcome)
{
    return outcome != Outcome::unwritten && outcome != Outcome::waiting;
}

} // namespace

const char *outcome_name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::unwritten:
        return "not written";
    case Outcome::waiting:
        return "waiting";
    case Outcome::programmed:
        return "programmed";
    case Outcome::stored:
        return "stored";
    case Outcome::failed:
        return "failed";
    case Outcome::aged:
        return "aged";
    case Outcome::timed_out:
        return "timed out";
    }
    return "";
}

size_t Ledger::add(std::string entry)
{
    rows_.push_back({std::move(entry)});
    ++counts_[static_cast<size_t>(Outcome::unwritten)];
    return rows_.size() - 1;
}

void Ledger::begin(size_t row)
{
    rows_[row].begun_us = now_us();
    move(rows_[row], Outcome::waiting);
}

void Ledger::end(size_t row, Outcome outcome, std::string status)
{
    if (ended(rows_[row].outcome))
        return;
    rows_[row].ended_us = now_us();
    rows_[row].status = std::move(status);
    move(rows_[row], outcome);
}

void Ledger::end_waiting(Outcome outcome, const std::string &status)
{
    for (size_t row = 0; row < rows_.size(); ++row) {
        if (rows_[row].outcome == Outcome::waiting)
            end(row, outcome, status);
    }
}

void Ledger::move(Row &row, Outcome outcome)
{
    --counts_[static_cast<size_t>(row.outcome)];
    row.outcome = outcome;
    ++counts_[static_cast<size_t>(row.outcome)];
}

std::string Ledger::summary() const
{
    std::string text;
    for (size_t outcome = 0; outcome < outcome_count; ++outcome) {
        if (counts_[outcome] != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(counts_[outcome]) + ' ' +
                    outcome_name(static_cast<Outcome>(outcome));
    }
    return text;
}

void Ledger::print(std::ostream &out) const
{
    size_t entry_width = 5;
    size_t status_width = 6;
    for (const Row &row : rows_) {
        entry_width = std::max(entry_width, row.entry.size());
        status_width = std::max(status_width, row.status.size());
    }
    const auto line = [&](const std::string &entry, const char *outcome, const std::string &status,
                          const std::string &time) {
        out << std::left << std::setw(static_cast<int>(entry_width) + 2) << entry << std::setw(12) << outcome
            << std::setw(static_cast<int>(status_width) + 2) << status << std::right << std::setw(9) << time << '\n';
    };
    line("ENTRY", "OUTCOME", "STATUS", "TIME");
    for (const Row &row : rows_) {
        const bool timed = row.begun_us != 0 && row.ended_us >= row.begun_us;
        line(row.entry, outcome_name(row.outcome), row.status, timed ? duration(row.ended_us - row.begun_us) : "-");
    }
}

} // namespace plx::tool
