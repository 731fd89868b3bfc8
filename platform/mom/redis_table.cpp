// See redis_table.hpp.
#include "redis_table.hpp"

#include "report.hpp"

#include <algorithm>
#include <charconv>
#include <functional>

namespace mom {
namespace {

template <typename Number> bool parse_whole(std::string_view text, Number &number)
{
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc{} && parsed.ptr == text.data() + text.size();
}

} // namespace

void redis_table::take_meta(std::string_view gen, std::string_view list)
{
    generation = gen;
    field_list = list;
    fields.clear();
    while (!list.empty()) {
        const auto comma = std::min(list.find(','), list.size());
        uint32_t number = 0;
        if (parse_whole(list.substr(0, comma), number) && number > 0)
            fields.push_back(number);
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    std::sort(fields.begin(), fields.end());
}

bool redis_table::covers(field_values values) const
{
    return std::all_of(values.begin(), values.end(), [this](const auto &value) {
        return std::binary_search(fields.begin(), fields.end(), value.number);
    });
}

bool parse_log_id(std::string_view id, uint64_t &number)
{
    return id.starts_with("0-") && parse_whole(id.substr(2), number);
}

bool log_entry::parse(reply_view reply)
{
    *this = {};
    const auto content = reply.at(1);
    if (reply.size() != 2 || !parse_log_id(reply.at(0).text(), number) || content.size() != 6)
        return false;
    auto part = content.first();
    std::string_view texts[6];
    for (auto &text : texts) {
        text = part.text();
        part = part.next();
    }
    key = texts[1];
    writer = texts[3];
    body = texts[5];
    deleted = texts[4] == "d";
    return texts[0] == "k" && texts[2] == "w" && (deleted || texts[4] == "r");
}

size_t log_entry::identity() const
{
    auto hash = static_cast<size_t>(number);
    for (const auto &part : {key, writer, body})
        hash = hash * static_cast<size_t>(0x9e3779b97f4a7c15) + std::hash<std::string_view>{}(part);
    return hash | 1; // 0 stands for none
}

bool parse_record(reply_view reply, std::vector<field_value> &fields, std::string_view *stamp)
{
    fields.clear();
    bool stamped = false;
    auto part = reply.first();
    for (size_t i = 0; i + 1 < reply.size(); i += 2) {
        const auto name = part.text();
        part = part.next();
        const auto value = part.text();
        part = part.next();
        uint32_t number = 0;
        if (name == "#") {
            stamped = true;
            if (stamp != nullptr)
                *stamp = value;
        } else if (parse_whole(name, number) && number > 0) {
            fields.push_back({number, value});
        } else {
            return false;
        }
    }
    return stamped;
}

int take_page(const redis_table &table, reply_view page, const std::string *after, std::vector<std::string> &keys)
{
    keys.reserve(page.size());
    auto item = page.first();
    for (size_t i = 0; i < page.size(); ++i, item = item.next()) {
        if (after != nullptr && item.text() <= *after)
            return out_of_order(table);
        after = &keys.emplace_back(item.text());
    }
    return TQ_MOM_OK;
}

int out_of_order(const redis_table &table)
{
    report(TQ_ZLOG_ERROR, table.index + " is out of order: a member's score is not 0");
    return TQ_MOM_BAD_ANSWER;
}

std::string lex_from(const key_range &range, std::string_view after, bool continued)
{
    if (continued)
        return "(" + std::string(after);
    return "[" + range.begin;
}

std::string lex_to(const key_range &range)
{
    return range.bounded ? "(" + range.end : "+";
}

} // namespace mom
