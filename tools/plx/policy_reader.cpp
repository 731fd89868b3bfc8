// The shapes of YAML that a policy is made of, and what is said where another stands in their place.
#include "policy_reader.hpp"

#include <plx/types.h>

namespace plx::tool {

namespace {

std::string_view kind_name(Event::Kind kind)
{
    switch (kind) {
    case Event::Kind::null:
        return "nothing";
    case Event::Kind::scalar:
        return "a plain value";
    case Event::Kind::list:
        return "a list";
    case Event::Kind::map:
        return "a map";
    case Event::Kind::end:
        break;
    }
    return "";
}

} // namespace

std::string line_of(Position at)
{
    return "line " + std::to_string(at.line);
}

std::string did_you_mean(std::string_view text, const std::vector<std::string_view> &names)
{
    const std::string_view close = nearest(text, names);
    return close.empty() ? "" : "; did you mean '" + std::string(close) + "'?";
}

void PolicyReader::refuse_kind(const Event &value, std::string_view what, std::string_view wanted)
{
    errors_.add(value.at,
                std::string(what) + " must be " + std::string(wanted) + ", not " + std::string(kind_name(value.kind)));
    document_.skip(value);
}

std::optional<std::string_view> PolicyReader::text(const Event &value, std::string_view what)
{
    if (value.kind == Event::Kind::scalar)
        return value.text;
    refuse_kind(value, what, "a plain value");
    return std::nullopt;
}

void PolicyReader::name(const Event &value, std::string_view what, std::string &name)
{
    const auto written = text(value, what);
    if (!written)
        return;
    constexpr size_t longest = FP_UDP_APP_TYPE_SIZE - 1;
    if (written->size() > longest)
        errors_.add(value.at, std::string(what) + " has " + std::to_string(written->size()) +
                                  " characters, more than " + std::to_string(longest));
    else if (written->empty())
        errors_.add(value.at, std::string(what) + " is empty");
    const auto unprintable = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(written->begin(), written->end(), unprintable))
        errors_.add(value.at, std::string(what) + " has unprintable characters");
    name = written->substr(0, longest);
}

void PolicyReader::flag(const Event &value, std::string_view what, bool &flag)
{
    const auto written = text(value, what);
    if (written && !parse_bool(*written, flag))
        errors_.add(value.at, std::string(what) + ": " + quoted(*written) + " is neither true nor false");
}

} // namespace plx::tool
