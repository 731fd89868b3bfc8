// What a node has counted since its start, for those who watch it.
#pragma once

#include "records/status.hpp"
#include <algorithm>
#include <array>
#include <cstdint>
#include <map>

namespace plx::plane {

// How long each of many took: a count for each class of times, and their sum.
class Histogram {
  public:
    // The longest time of each class, in seconds; behind the last comes one without a bound.
    static constexpr std::array bounds{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,  0.25,
                                       0.5,    1.0,   2.5,    5.0,   10.0, 30.0,  60.0, 180.0};

    void add(uint64_t us)
    {
        const double seconds = static_cast<double>(us) / 1e6;
        const auto of = std::ranges::lower_bound(bounds, seconds);
        ++counts_.at(static_cast<size_t>(of - bounds.begin()));
        sum_us_ += us;
    }

    const std::array<uint64_t, bounds.size() + 1> &counts() const { return counts_; }
    double sum() const { return static_cast<double>(sum_us_) / 1e6; } // seconds

  private:
    std::array<uint64_t, bounds.size() + 1> counts_{};
    uint64_t sum_us_ = 0;
};

// Answers that the store has taken. Each took from when its request was heard of, or found in a table that was read,
// until it was sent to the store.
struct AnswerNumbers {
    std::map<Status, uint64_t> outcomes{};
    Histogram successes{}, refusals{};
    uint64_t failed = 0; // answers that the store did not take: they are given again

    void add(Status status, uint64_t us)
    {
        ++outcomes[status];
        (status == Status::ok ? successes : refusals).add(us);
    }
};

} // namespace plx::plane
