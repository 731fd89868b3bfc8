// See exposition.hpp.
#include "metrics/exposition.hpp"

#include <algorithm>
#include <array>
#include <charconv>

namespace plx::tool {

namespace {

// The bytes of the character that a text begins with; 0 when it is no UTF-8, or longer than it need be.
size_t character(std::string_view text)
{
    const auto byte = [text](size_t at) { return at < text.size() ? static_cast<uint8_t>(text[at]) : uint8_t{0}; };
    const auto follows = [byte](size_t at) { return (byte(at) & 0xC0U) == 0x80; };
    const uint8_t first = byte(0), second = byte(1);
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first < 0xE0)
        return follows(1) ? 2 : 0;
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool beyond = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90) || first > 0xF4;
    if (first < 0xE0 || overlong || beyond || !follows(1) || !follows(2))
        return 0;
    return first < 0xF0 ? 3 : follows(3) ? 4 : 0;
}

void add_escaped(std::string &text, std::string_view value)
{
    constexpr std::string_view digits = "0123456789abcdef";
    while (!value.empty()) {
        const size_t size = value[0] == '\\' ? 0 : character(value);
        const auto byte = static_cast<uint8_t>(value[0]);
        if (size == 0)
            (text += "\\\\x") += {digits[byte >> 4U], digits[byte & 15U]};
        else if (value[0] == '"' || value[0] == '\n')
            text += value[0] == '"' ? "\\\"" : "\\n";
        else
            text += value.substr(0, size);
        value.remove_prefix(size == 0 ? 1 : size);
    }
}

// To the microsecond at least.
std::string number(double value)
{
    std::array<char, 64> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), value, std::chars_format::fixed).ptr;
    return {digits.begin(), end};
}

} // namespace

Exposition &Exposition::family(std::string_view name, Kind kind, std::string_view help)
{
    constexpr std::array<std::string_view, 3> kinds{"counter", "gauge", "histogram"};
    name_ = name;
    ((text_ += "# HELP ").append(name) += ' ').append(help) += '\n';
    ((text_ += "# TYPE ").append(name) += ' ').append(kinds.at(static_cast<size_t>(kind))) += '\n';
    return *this;
}

Exposition &Exposition::add_seconds(double value, const Labels &labels)
{
    return add(number(value), labels);
}

// All of it, or nothing.
Exposition &Exposition::add(const plane::Histogram &histogram, const Labels &labels)
{
    const size_t values = histogram.counts().size() + 2;
    if (left_ < values) {
        omitted_ += values;
        return *this;
    }
    Labels with_bound = labels;
    with_bound.emplace_back("le", "");
    uint64_t count = 0;
    for (size_t of = 0; of < histogram.counts().size(); ++of) {
        count += histogram.counts()[of];
        const std::string bound = of < histogram.bounds.size() ? number(histogram.bounds.at(of)) : "+Inf";
        with_bound.back().second = bound;
        add(std::to_string(count), with_bound, "_bucket");
    }
    add(number(histogram.sum()), labels, "_sum");
    return add(std::to_string(count), labels, "_count");
}

Exposition &Exposition::add(const std::string &value, const Labels &labels, std::string_view suffix)
{
    const bool is_long =
        std::ranges::any_of(labels, [](const auto &label) { return label.second.size() > longest_label; });
    if (left_ == 0 || is_long) {
        ++omitted_;
        return *this;
    }
    --left_;
    (text_ += name_) += suffix;
    for (const auto &[name, says] : labels) {
        ((text_ += &name == &labels.front().first ? '{' : ',') += name) += "=\"";
        add_escaped(text_, says);
        text_ += '"';
    }
    ((text_ += labels.empty() ? " " : "} ") += value) += '\n';
    return *this;
}

std::string Exposition::take() &&
{
    const uint64_t omitted = omitted_;
    left_ = 1;
    gauge("plx_metrics_omitted", "Values that this page has no room for.").add(omitted);
    return std::move(text_);
}

} // namespace plx::tool
