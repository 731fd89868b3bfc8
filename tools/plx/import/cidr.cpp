// Plain lists of addresses: one a line, ranges, JSON lines with "cidr", comma-separated columns.
#include "import/draft.hpp"

#include "attribute_value.hpp"
#include "import/prefixes.hpp"
#include <algorithm>
#include <nlohmann/json.hpp>

namespace plx::tool::import {

namespace {

std::string trimmed(std::string text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '"'; };
    while (!text.empty() && blank(text.back()))
        text.pop_back();
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), blank));
    return text;
}

// Some lists have an IPv4 address as one number.
std::string address(const std::string &text)
{
    uint64_t number = 0;
    if (text.find_first_of(".:") != std::string::npos || !parse_number(text, number) || number > UINT32_MAX)
        return text;
    std::string dotted;
    for (unsigned shift = 24; shift <= 24; shift -= 8)
        dotted += (dotted.empty() ? "" : ".") + std::to_string(number >> shift & 0xffU);
    return dotted;
}

std::vector<Prefix> blocks_of(const std::string &line)
{
    const size_t comma = line.find(',');
    const std::string first = trimmed(line.substr(0, comma));
    if (const auto prefix = prefix_of(first))
        if (comma == std::string::npos || first.find('/') != std::string::npos)
            return {*prefix};
    if (comma != std::string::npos) {
        const std::string second = trimmed(line.substr(comma + 1, line.find(',', comma + 1) - comma - 1));
        return range_of(address(first), address(second));
    }
    const size_t hyphen = first.find('-');
    return hyphen == std::string::npos ? std::vector<Prefix>()
                                       : range_of(trimmed(first.substr(0, hyphen)), trimmed(first.substr(hyphen + 1)));
}

// "cidr" of an object; empty: it is about the list itself.
std::string of_json(const std::string &line)
{
    const auto object = nlohmann::json::parse(line, nullptr, false);
    if (!object.is_object())
        throw Unsaid("is no JSON object");
    if (object.contains("cidr") && object["cidr"].is_string())
        return object["cidr"].get<std::string>();
    if (object.value("type", nlohmann::json()) == "metadata")
        return "";
    throw Unsaid("has no \"cidr\"");
}

} // namespace

void read_cidr(std::istream &in, const Options &options, Draft &draft)
{
    std::vector<Prefix> prefixes;
    const bool permits = options.verdict == "permit";
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string whole = line;
        line = trimmed(line.substr(0, line.find_first_of("#;")));
        try {
            if (line.starts_with('{'))
                line = of_json(trimmed(whole));
            if (line.empty() || (number == 1 && line.find_first_of("0123456789") == std::string::npos))
                continue; // a heading
            const std::vector<Prefix> blocks = blocks_of(line);
            if (blocks.empty())
                throw Unsaid("is no address, block or range");
            prefixes.insert(prefixes.end(), blocks.begin(), blocks.end());
        } catch (const Unsaid &why) {
            draft.refuse(number, whole, why.what(), permits);
        }
    }
    const size_t before = prefixes.size();
    prefixes = merged(std::move(prefixes));
    draft.note(std::to_string(before) + " blocks of addresses, merged into " + std::to_string(prefixes.size()));
    for (const bool ipv6 : {false, true}) {
        std::vector<std::string> values;
        for (const Prefix &prefix : prefixes)
            if (prefix.ipv6 == ipv6)
                values.push_back(prefix.text());
        draft.add_list((ipv6 ? "ipv6_" : "ipv4_") + options.match, values, permits, "");
    }
}

} // namespace plx::tool::import
