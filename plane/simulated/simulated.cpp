// See simulated.hpp.
#include "plane/simulated/simulated.hpp"

#include "records/attribute.hpp"
#include <algorithm>
#include <charconv>
#include <thread>

namespace plx::plane {

namespace {

template <typename Number> bool parse_number(std::string_view text, Number &value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// Takes what stands before the next `separator` off `text`.
std::string_view take_part(std::string_view &text, char separator)
{
    const size_t at = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(std::min(at + 1, text.size()));
    return part;
}

template <typename Number> bool parse_part(std::string_view text, std::optional<Number> &value)
{
    if (text.empty() || text == "*")
        return true;
    return parse_number(text, value.emplace());
}

bool is_entry(const Key &key)
{
    return std::holds_alternative<AceKey>(key);
}

Status judge_attributes(std::span<const uint8_t> packed)
{
    const auto attributes = unpack(packed);
    if (!attributes)
        return Status::malformed;
    for (const Attribute &attribute : *attributes) {
        bool known = false;
        if (form_of(attribute, known) == nullptr)
            return known ? Status::bad_value : Status::unsupported;
    }
    return Status::ok;
}

} // namespace

bool Pattern::matches(const Key &key) const
{
    if (app && *app != application_of(key))
        return false;
    if (const auto *ace = std::get_if<AceKey>(&key))
        return (!acl || *acl == ace->acl) && (!sn || *sn == ace->sn);
    if (const auto *apply = std::get_if<ApplyKey>(&key))
        return (!acl || *acl == apply->acl) && !sn;
    return !acl && !sn;
}

std::optional<Pattern> parse_pattern(std::string_view text)
{
    Pattern pattern;
    if (const std::string_view app = take_part(text, '/'); !app.empty() && app != "*")
        pattern.app = app;
    const bool numbers = parse_part(take_part(text, '/'), pattern.acl) && parse_part(take_part(text, '/'), pattern.sn);
    return numbers && text.empty() ? std::optional(pattern) : std::nullopt;
}

bool SimulatedOptions::add(std::string_view text)
{
    const std::string_view what = take_part(text, '=');
    if (what == "size")
        return parse_number(text, table_size);

    Rule rule{};
    if (what == "refuse") {
        rule.effect = Effect::refuse;
    } else if (what == "silent") {
        rule.effect = Effect::silence;
    } else if (what == "delay" || what == "slow") {
        rule.effect = what == "delay" ? Effect::delay : Effect::slow;
        uint32_t count = 0;
        if (!parse_number(take_part(text, '@'), count))
            return false;
        rule.delay = milliseconds(count);
    } else {
        return false;
    }
    const auto pattern = parse_pattern(text);
    if (!pattern)
        return false;
    rule.pattern = *pattern;
    rules.push_back(std::move(rule));
    return true;
}

bool add_simulated(std::span<SimulatedOptions> nodes, std::string_view text)
{
    size_t node = 0;
    return text.find(':') != std::string_view::npos && parse_number(take_part(text, ':'), node) && node >= 1 &&
           node <= nodes.size() && nodes[node - 1].add(text);
}

std::vector<Answer> SimulatedPlane::program(std::span<const Change> changes)
{
    std::vector<Answer> answers;
    answers.reserve(changes.size());
    ++batches_;
    for (const Change &change : changes) {
        step();
        ++touched_;
        answers.push_back(make(change));
    }
    return answers;
}

std::vector<Answer> SimulatedPlane::try_out(std::span<const Change> changes)
{
    SimulatedPlane other(*this);
    std::erase_if(other.options_.rules, [](const Rule &rule) { return rule.effect == Effect::slow; });
    return other.program(changes);
}

Answer SimulatedPlane::make(const Change &change)
{
    for (const Rule &rule : options_.rules)
        if (rule.effect == Effect::slow && rule.pattern.matches(change.key))
            std::this_thread::sleep_for(rule.delay);
    if (!change.wanted) {
        if (rows_.erase(change.key) != 0 && is_entry(change.key))
            --entries_;
        return {};
    }
    Answer answer = confirm(change.key);
    answer.status = judge(change.key, *change.wanted);
    if (answer.status != Status::ok)
        return answer;
    const size_t before = rows_.size();
    const auto row = rows_.try_emplace(rows_.end(), change.key); // a long walk comes in order
    row->second.installed = {change.wanted->request, change.wanted->fingerprint()};
    const bool added = rows_.size() != before;
    entries_ += added && is_entry(change.key) ? 1 : 0;
    return answer;
}

Answer SimulatedPlane::confirm(const Key &key) const
{
    Answer answer;
    for (const Rule &rule : options_.rules) {
        if (!rule.pattern.matches(key))
            continue;
        answer.silent = answer.silent || rule.effect == Effect::silence;
        answer.delay += rule.effect == Effect::delay ? rule.delay : milliseconds(0);
    }
    return answer;
}

Status SimulatedPlane::judge(const Key &key, const Requested &wanted) const
{
    const bool refused = std::any_of(options_.rules.begin(), options_.rules.end(), [&key](const Rule &rule) {
        return rule.effect == Effect::refuse && rule.pattern.matches(key);
    });
    if (refused)
        return Status::refused;
    if (const Status status = judge_attributes(wanted.value); status != Status::ok)
        return status;
    if (const auto *bind = std::get_if<PortBindKey>(&key);
        bind != nullptr && (bind->bind_type < 1 || bind->bind_type > 3))
        return Status::out_of_range;
    return is_entry(key) && entries_ >= options_.table_size && !rows_.contains(key) ? Status::table_full : Status::ok;
}

std::map<Key, Installed> SimulatedPlane::installed() const
{
    std::map<Key, Installed> all;
    for (const auto &[key, row] : rows_) {
        step();
        all.emplace_hint(all.end(), key, row.installed);
    }
    return all;
}

std::vector<std::pair<AceKey, Counters>> SimulatedPlane::counters()
{
    constexpr size_t at_one_go = 500;
    std::vector<std::pair<AceKey, Counters>> read;
    auto row = last_counted_ ? rows_.upper_bound(*last_counted_) : rows_.begin();
    for (; row != rows_.end() && is_entry(row->first) && read.size() < at_one_go; ++row) {
        Counters &counters = row->second.counters;
        counters.packets += options_.packets_per_reading;
        counters.bytes += options_.packets_per_reading * 64;
        read.emplace_back(std::get<AceKey>(row->first), counters);
    }
    last_counted_.reset();
    if (!read.empty())
        last_counted_ = read.back().first;
    return read;
}

} // namespace plx::plane
