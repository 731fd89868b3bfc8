// A page of numbers in Prometheus' text format: families, each with what it means, and below it their values.
//
// What labels say may come from the store: bytes that are no UTF-8 and the backslash are written as "\xNN", so that two
// names never become one. A value with a very long label, and what is beyond so many values, is left out and counted.
#pragma once

#include "plane/numbers.hpp"
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace plx::tool {

constexpr size_t longest_label = 256; // bytes

class Exposition {
  public:
    using Labels = std::vector<std::pair<std::string_view, std::string_view>>;
    enum class Kind : uint8_t { counter, gauge, histogram };

    explicit Exposition(size_t most_values = 50'000) : left_(most_values) {}

    // The values that follow are of this family, each with labels that no other of it has.
    Exposition &family(std::string_view name, Kind kind, std::string_view help);
    Exposition &counter(std::string_view name, std::string_view help) { return family(name, Kind::counter, help); }
    Exposition &gauge(std::string_view name, std::string_view help) { return family(name, Kind::gauge, help); }

    Exposition &add(uint64_t value, const Labels &labels = {}) { return add(std::to_string(value), labels); }
    Exposition &add_seconds(double value, const Labels &labels = {});
    Exposition &add(const plane::Histogram &histogram, const Labels &labels = {});

    // The page; with the family of what was left out.
    std::string take() &&;

  private:
    Exposition &add(const std::string &value, const Labels &labels, std::string_view suffix = {});

    std::string text_, name_;
    size_t left_;
    uint64_t omitted_ = 0;
};

} // namespace plx::tool
