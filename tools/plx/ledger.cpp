// See ledger.hpp.
#include "ledger.hpp"

#include "output.hpp"
#include "records/host.hpp"
#include <algorithm>
#include <cstdio>
#include <iterator>

namespace plx::tool {

namespace {

// "1.5 ms", "2.00 s"
std::string duration(uint64_t us)
{
    char text[32];
    if (us >= 1'000'000)
        std::snprintf(text, sizeof text, "%.2f s", static_cast<double>(us) / 1e6);
    else
        std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(us) / 1e3);
    return text;
}

// Makes `line` `width` columns wide.
void pad(std::string &line, size_t width)
{
    line.resize(std::max(line.size(), width), ' ');
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
    case Outcome::unchanged:
        return "unchanged";
    }
    return "";
}

Ledger::Ledger(size_t rows, Label label) : rows_(rows), label_(std::move(label))
{
    counts_[static_cast<size_t>(Outcome::unwritten)] = rows;
}

void Ledger::begin(size_t row)
{
    rows_[row].begun_us = now_us();
    move(rows_[row], Outcome::waiting);
}

void Ledger::end(size_t row, Outcome outcome, const std::string &status)
{
    Row &ending = rows_[row];
    if (ended(ending.outcome))
        return;
    ending.took_us = static_cast<uint32_t>(std::min<uint64_t>(now_us() - ending.begun_us, UINT32_MAX));
    ending.status = number_of(status) & 0xffffffU;
    move(ending, outcome);
}

uint32_t Ledger::number_of(const std::string &status)
{
    const auto [known, added] = numbers_.try_emplace(status, static_cast<uint32_t>(statuses_.size()));
    if (added)
        statuses_.push_back(status);
    return known->second;
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

std::map<std::string, size_t> Ledger::counts() const
{
    std::map<std::string, size_t> named;
    for (size_t outcome = 0; outcome < outcome_count; ++outcome)
        if (counts_[outcome] != 0)
            named[outcome_name(static_cast<Outcome>(outcome))] = counts_[outcome];
    return named;
}

bool Ledger::listed(const Row &row, bool failed_only) const
{
    const bool good = row.outcome == Outcome::programmed || row.outcome == Outcome::stored;
    return row.outcome != Outcome::unchanged && !(failed_only && good);
}

void Ledger::print_json(bool failed_only) const
{
    std::vector<std::string> statuses;
    std::transform(statuses_.begin(), statuses_.end(), std::back_inserter(statuses), json_text);
    std::string line;
    for (size_t row = 0; row < rows_.size(); ++row) {
        const Row &shown = rows_[row];
        if (!listed(shown, failed_only))
            continue;
        line = "\"entry\":";
        line += json_text(label_(row));
        line += ",\"outcome\":\"";
        line += outcome_name(shown.outcome);
        line += "\",\"status\":";
        line += statuses[shown.status];
        if (shown.begun_us != 0 && ended(shown.outcome))
            line += ",\"took_us\":" + std::to_string(shown.took_us);
        output().made_line("entry", line);
    }
}

void Ledger::print(std::ostream &out, bool failed_only) const
{
    if (output().json())
        return print_json(failed_only);
    size_t entry_width = 5;
    size_t status_width = 6;
    if (!rows_.empty() &&
        std::none_of(rows_.begin(), rows_.end(), [&](const Row &row) { return listed(row, failed_only); }))
        return;
    for (size_t row = 0; row < rows_.size(); ++row) {
        if (!listed(rows_[row], failed_only))
            continue;
        entry_width = std::max(entry_width, label_(row).size());
        status_width = std::max(status_width, statuses_[rows_[row].status].size());
    }
    std::string line;
    const auto print_line = [&](const std::string &entry, const char *outcome, const std::string &status,
                                const std::string &time) {
        line = entry;
        pad(line, entry_width + 2);
        line += outcome;
        pad(line, entry_width + 14);
        line += status;
        pad(line, entry_width + 16 + status_width + (time.size() < 9 ? 9 - time.size() : 0));
        out << (line += time) << '\n';
    };
    print_line("ENTRY", "OUTCOME", "STATUS", "TIME");
    for (size_t row = 0; row < rows_.size(); ++row) {
        const Row &shown = rows_[row];
        if (!listed(shown, failed_only))
            continue;
        const bool timed = shown.begun_us != 0 && ended(shown.outcome);
        print_line(label_(row), outcome_name(shown.outcome), statuses_[shown.status],
                   timed ? duration(shown.took_us) : "-");
    }
}

} // namespace plx::tool
