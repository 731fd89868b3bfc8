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

int check_format(std::string_view field)
{
    unsigned format = 1;
    const bool ours = field.empty() || (parse_whole(field, format) && format <= table_format);
    return ours ? TQ_MOM_OK : TQ_MOM_NEWER_FORMAT;
}

void redis_table::take_meta(reply_view answer)
{
    auto list = answer.at(1).text();
    generation = answer.at(0).text();
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
    number = 0;
    writer = {};
    changes.clear();
    if (reply.size() != 2 || !parse_log_id(reply.at(0).text(), number))
        return false;
    const auto content = reply.at(1);
    return content.at(0).text() == "w" ? parse_group(content) : parse_single(content);
}

// k KEY w WRITER, and r RECORD or d
bool log_entry::parse_single(reply_view content)
{
    if (content.size() != 6)
        return false;
    auto part = content.first();
    std::string_view texts[6];
    for (auto &text : texts) {
        text = part.text();
        part = part.next();
    }
    writer = texts[3];
    const bool deleted = texts[4] == "d";
    changes.push_back({texts[1], texts[5], deleted});
    return texts[0] == "k" && texts[2] == "w" && (deleted || texts[4] == "r");
}

// w WRITER, and for each change rKEY RECORD or dKEY
bool log_entry::parse_group(reply_view content)
{
    auto part = content.first().next();
    writer = part.text();
    for (size_t i = 2; i + 1 < content.size(); i += 2) {
        const auto name = (part = part.next()).text();
        const auto body = (part = part.next()).text();
        if (!name.starts_with('r') && !name.starts_with('d'))
            return false;
        changes.push_back({name.substr(1), body, name.starts_with('d')});
    }
    return !changes.empty();
}

size_t log_entry::identity() const
{
    auto hash = static_cast<size_t>(number);
    for (const auto &[changed, body, deleted] : changes)
        for (const auto &part : {changed, writer, body})
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
