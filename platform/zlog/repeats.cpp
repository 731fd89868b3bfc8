// See repeats.hpp.
#include "repeats.hpp"

#include <algorithm>
#include <functional>
#include <utility>

namespace zlog_limit {

namespace {

constexpr unsigned most = 20;
constexpr uint64_t second_ms = 1000;

uint64_t key_of(const message &said)
{
    const auto mix = [](uint64_t key, uint64_t more) { return (key ^ more) * 0x9e3779b97f4a7c15 + (key >> 29); };
    const std::hash<std::string_view> hash;
    uint64_t key = mix(hash(said.text), hash(said.file));
    key = mix(key, static_cast<uint64_t>(said.line));
    key = mix(key, static_cast<uint64_t>(said.level));
    return mix(key, reinterpret_cast<uintptr_t>(said.category));
}

template <size_t size> std::string_view copy(std::string_view text, std::array<char, size> &into)
{
    return {into.data(), text.copy(into.data(), size)};
}

} // namespace

void held_message::keep(const message &kept)
{
    of_ = kept;
    of_.file = copy(kept.file, file_);
    of_.func = copy(kept.func, func_);
    of_.text = copy(kept.text, text_);
}

message held_message::get() const
{
    message whole = of_; // its texts lie in whatever this was copied from
    whole.file = {file_.data(), of_.file.size()};
    whole.func = {func_.data(), of_.func.size()};
    whole.text = {text_.data(), of_.text.size()};
    return whole;
}

bool repeats::admit(const message &said, uint64_t now_ms, std::optional<held_message> &told)
{
    const uint64_t key = key_of(said);
    slot &at = slots_[static_cast<size_t>(key % slots_.size())];
    if (at.key != key || now_ms - at.start_ms >= second_ms) {
        if (at.held.times > 0)
            told = at.held;
        at.held.times = 0;
        at.key = key;
        at.start_ms = now_ms;
        at.seen = 0;
    }
    if (++at.seen <= most)
        return true;
    if (at.held.times++ == 0)
        at.held.keep(said);
    ++held_back_;
    return false;
}

std::optional<held_message> repeats::over(uint64_t now_ms)
{
    const auto ended = [now_ms](const slot &each) {
        return each.held.times > 0 && now_ms - each.start_ms >= second_ms;
    };
    const auto found = std::find_if(slots_.begin(), slots_.end(), ended);
    if (found == slots_.end())
        return std::nullopt;
    held_message held = found->held;
    found->held.times = 0;
    found->seen = 0;
    found->start_ms = now_ms;
    return held;
}

} // namespace zlog_limit
