// See draft.hpp.
#include "import/draft.hpp"

#include "attribute_value.hpp"
#include "import/prefixes.hpp"
#include <algorithm>
#include <ostream>
#include <sstream>

namespace plx::tool::import {

namespace {

constexpr size_t most_alternatives = 4096; // of one rule
constexpr size_t most_entries = 1'000'000;
constexpr size_t longest_name = 31;
constexpr uint64_t first_sn = 10, step = 10;

// A value's bits, and which of them are asked for.
struct Bits {
    uint64_t value = 0, mask = 0;
};

std::string hex(uint64_t number)
{
    std::ostringstream text;
    text << "0x" << std::hex << number;
    return text.str();
}

// Both of a number's values, of which neither is within the other.
std::string joined(const Form &form, const std::vector<uint8_t> &one, const std::vector<uint8_t> &other)
{
    if (form.kind != ValueKind::number)
        throw Unsaid(std::string(form.name) + " is asked for twice");
    Bits bits;
    const size_t width = form.bytes();
    for (const auto *value : {&one, &other}) {
        Bits each;
        for (size_t at = 0; at < width; ++at) {
            each.value = each.value << 8U | (*value)[at];
            each.mask = each.mask << 8U | (*value)[width + at];
        }
        bits = {bits.value | each.value, bits.mask | each.mask};
    }
    return hex(bits.value) + '/' + hex(bits.mask);
}

// The ports of two ranges.
std::optional<std::string> both_ranges(const std::vector<uint8_t> &one, const std::vector<uint8_t> &other)
{
    const auto number = [](const std::vector<uint8_t> &range, size_t at) { return range[at] << 8U | range[at + 1]; };
    const auto low = std::max(number(one, 0), number(other, 0)), high = std::min(number(one, 2), number(other, 2));
    return low <= high ? std::optional(std::to_string(low) + '-' + std::to_string(high)) : std::nullopt;
}

// The value that a field has when it has both of two; nullopt: none has both. Both were checked.
std::optional<std::string> both(const std::string &field, const std::string &one, const std::string &other)
{
    if (one == other)
        return one;
    const Form &form = *find_form(FP_UDP_ATTR_FIELD, field);
    std::vector<uint8_t> left = encode(form, one).bytes, right = encode(form, other).bytes;
    if (form.kind == ValueKind::range)
        return both_ranges(left, right);
    const size_t width = form.bytes();
    left.resize(2 * width, left.size() == width ? 0xff : 0);
    right.resize(2 * width, right.size() == width ? 0xff : 0);
    bool left_within = true, right_within = true;
    for (size_t at = 0; at < width; ++at) {
        const unsigned asked = left[width + at] & right[width + at];
        if (((left[at] ^ right[at]) & asked) != 0)
            return std::nullopt;
        left_within = left_within && asked == right[width + at];
        right_within = right_within && asked == left[width + at];
    }
    return left_within ? one : right_within ? other : joined(form, left, right);
}

bool narrow_one(Match &match, const std::string &field, const std::string &value)
{
    const auto had =
        std::find_if(match.begin(), match.end(), [&field](const auto &pair) { return pair.first == field; });
    const auto other_family = [&field](const auto &pair) {
        return (field.starts_with("ipv4_") && pair.first.starts_with("ipv6_")) ||
               (field.starts_with("ipv6_") && pair.first.starts_with("ipv4_"));
    };
    if (std::any_of(match.begin(), match.end(), other_family))
        return false;
    if (had == match.end()) {
        match.emplace_back(field, value);
        return true;
    }
    const auto narrower = both(field, had->second, value);
    if (narrower)
        had->second = *narrower;
    return narrower.has_value();
}

void check(const std::string &field, const std::string &value)
{
    const Form *form = find_form(FP_UDP_ATTR_FIELD, field);
    if (form == nullptr)
        throw Unsaid("there is no match attribute " + field);
    if (const Encoding encoding = encode(*form, value); !encoding.error.empty())
        throw Unsaid(field + ": " + encoding.error);
}

std::string plain_name(const std::string &text)
{
    std::string name;
    for (const char c : text)
        name += c >= 0x20 && c < 0x7f && c != '"' && c != '\\' ? c : '-';
    return name.substr(0, longest_name);
}

// In one line, with nothing that ends a comment.
std::string comment(const std::string &text)
{
    std::string line;
    for (const char c : text)
        line += static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f ? c : '?';
    return line;
}

} // namespace

void Matches::narrow(const std::string &field, const std::vector<std::string> &values)
{
    if (any_.size() * values.size() > most_alternatives)
        throw Unsaid("it has more than " + std::to_string(most_alternatives) + " alternatives");
    for (const std::string &value : values)
        check(field, value);
    std::vector<Match> narrower;
    for (const Match &match : any_) {
        for (const std::string &value : values) {
            Match one = match;
            if (narrow_one(one, field, value))
                narrower.push_back(std::move(one));
        }
    }
    any_ = std::move(narrower);
}

// Whether both can be true of one frame; `one` is both then.
static bool narrow_all(Match &one, const Match &more)
{
    return std::all_of(more.begin(), more.end(),
                       [&one](const auto &pair) { return narrow_one(one, pair.first, pair.second); });
}

void Matches::narrow(const Matches &other)
{
    if (any_.size() * other.any_.size() > most_alternatives)
        throw Unsaid("it has more than " + std::to_string(most_alternatives) + " alternatives");
    std::vector<Match> narrower;
    for (const Match &match : any_) {
        for (const Match &more : other.any_) {
            Match one = match;
            if (narrow_all(one, more))
                narrower.push_back(std::move(one));
        }
    }
    any_ = std::move(narrower);
}

Matches Matches::none()
{
    Matches none;
    none.any_.clear();
    return none;
}

// What is outside of a match is outside of one of its fields.
static std::optional<Matches> outside_of(const Match &match)
{
    Matches outside = Matches::none();
    for (const auto &[field, value] : match) {
        const auto block = field.starts_with("ipv") ? prefix_of(value) : std::nullopt;
        if (!block)
            return std::nullopt;
        std::vector<std::string> others;
        for (const Prefix &other : complement(*block))
            others.push_back(other.text());
        Matches one;
        one.narrow(field, others);
        outside.widen(one);
    }
    return outside;
}

std::optional<Matches> Matches::outside() const
{
    Matches outside;
    for (const Match &match : any_) {
        const std::optional<Matches> one = outside_of(match);
        if (!one)
            return std::nullopt;
        outside.narrow(*one);
    }
    return outside.any_.size() <= any_.size() ? std::optional(outside) : std::nullopt;
}

bool Matches::has(std::string_view beginning) const
{
    return std::any_of(any_.begin(), any_.end(), [beginning](const Match &match) {
        return std::any_of(match.begin(), match.end(),
                           [beginning](const auto &pair) { return pair.first.starts_with(beginning); });
    });
}

void Draft::add(const Matches &matches, bool permits, const std::string &name)
{
    impossible_ += matches.any().empty() ? 1 : 0;
    for (const Match &match : matches.any()) {
        if (entries_.size() == most_entries)
            throw Unsaid("there are more than " + std::to_string(most_entries) + " entries");
        entries_.push_back({match, {}, permits, plain_name(name)});
    }
}

void Draft::add_list(const std::string &field, const std::vector<std::string> &values, bool permits,
                     const std::string &name)
{
    for (const std::string &value : values)
        check(field, value);
    if (!values.empty())
        entries_.push_back({{{field, ""}}, values, permits, plain_name(name)});
}

void Draft::refuse(int line, const std::string &text, const std::string &why, std::optional<bool> permits)
{
    if (lines_refused_.insert(line).second)
        refused_.push_back({line, text, why, permits});
}

void Draft::note(const std::string &text)
{
    if (std::find(notes_.begin(), notes_.end(), text) == notes_.end())
        notes_.push_back(text);
}

void Draft::apply(const std::string &port, const std::string &direction)
{
    const std::pair apply(port, direction);
    if (std::find(applies_.begin(), applies_.end(), apply) == applies_.end())
        applies_.push_back(apply);
}

std::string Draft::Refused::effect() const
{
    if (!permits)
        return "leaving it out changes what is let through";
    return *permits ? "leaving it out lets less through" : "leaving it out lets more through";
}

void Draft::print(std::ostream &out, const Options &options) const
{
    for (const std::string &note : notes_)
        out << "# " << comment(note) << '\n';
    if (impossible_ != 0)
        out << "# " << impossible_ << " rules that no frame can match are no entries\n";
    for (const Refused &refused : refused_)
        out << "# left out, line " << refused.line << ": " << comment(refused.text) << "\n#   " << comment(refused.why)
            << "; " << refused.effect() << '\n';
    out << "application: \"" << options.app << "\"\nacls:\n  - id: " << options.acl << "\n    class: 1\n    entries:\n";
    uint64_t sn = first_sn;
    for (const Entry &entry : entries_) {
        const char *verdict = entry.permits ? "permit" : "deny";
        const std::string name = entry.name.empty() ? "" : ", name: \"" + entry.name + '"';
        if (!entry.list.empty()) {
            out << "      - sn: " << sn << "\n        action: {fwd: " << verdict << "}\n        match:\n          "
                << entry.match[0].first << ":\n";
            for (const std::string &value : entry.list)
                out << "            - \"" << value << "\"\n";
            sn += entry.list.size() + step - 1;
            sn -= sn % step;
            continue;
        }
        out << "      - {sn: " << sn << name;
        for (size_t at = 0; at < entry.match.size(); ++at)
            out << (at == 0 ? ", match: {" : ", ") << entry.match[at].first << ": \"" << entry.match[at].second << '"';
        out << (entry.match.empty() ? "" : "}") << ", action: {fwd: " << verdict << "}}\n";
        sn += step;
    }
    out << "      - {sn: " << sn << ", name: rest, default: true, action: {fwd: permit}}\n";
    std::vector<std::pair<std::string, std::string>> applies = applies_;
    if (!options.port.empty())
        applies.emplace_back(options.port, options.direction);
    if (!applies.empty())
        out << "applies:\n";
    for (const auto &[port, direction] : applies)
        out << "  - {acl: " << options.acl << ", port: " << port << ", direction: " << direction << "}\n";
}

std::vector<std::string> words_of(const std::string &line)
{
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, any = false;
    for (size_t at = 0; at < line.size(); ++at) {
        const char c = line[at];
        if (c == '"') {
            quoted = !quoted;
            any = true;
        } else if (c == '\\' && quoted && at + 1 < line.size()) {
            word += line[++at];
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r')) {
            if (any)
                words.push_back(word);
            word.clear();
            any = false;
        } else {
            word += c;
            any = true;
        }
    }
    if (any)
        words.push_back(word);
    return words;
}

void narrow_ports(Matches &matches, const std::string &side, uint32_t low, uint32_t high, bool outside)
{
    if (low > high || high > UINT16_MAX)
        throw Unsaid("ports " + std::to_string(low) + " to " + std::to_string(high) + " are no range");
    const auto range = [](uint32_t first, uint32_t last) { return std::to_string(first) + '-' + std::to_string(last); };
    if (!outside && low == high)
        return matches.narrow(side + "_l4port", {std::to_string(low)});
    if (!outside)
        return matches.narrow(side + "_range", {range(low, high)});
    std::vector<std::string> values;
    if (low > 0)
        values.push_back(range(0, low - 1));
    if (high < UINT16_MAX)
        values.push_back(range(high + 1, UINT16_MAX));
    matches.narrow(side + "_range", values);
}

std::vector<Matches> established(const Matches &matches, bool ipv6)
{
    std::vector<Matches> both;
    for (const char *flag : {"0x10/0x10", "0x04/0x04"}) {
        Matches one = matches;
        one.narrow(ipv6 ? "ipv6_next_hdr" : "ipv4_proto", {"tcp"});
        one.narrow("tcp_flag", {flag});
        both.push_back(std::move(one));
    }
    return both;
}

} // namespace plx::tool::import
