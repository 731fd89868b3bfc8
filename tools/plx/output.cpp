// See output.hpp.
#include "output.hpp"

#include <cstdio>
#include <iostream>

namespace plx::tool {

namespace {

constexpr uint64_t most_exact = uint64_t{1} << 53U;

bool inexact(const Row &value)
{
    if (value.is_number_unsigned())
        return value.get<uint64_t>() > most_exact;
    return value.is_number_integer() && value.get<int64_t>() < -static_cast<int64_t>(most_exact);
}

// Puts texts beside long numbers, at any depth.
Row exact(const Row &value)
{
    if (!value.is_structured())
        return value;
    Row copy = value.is_array() ? Row::array() : Row::object();
    for (const auto &[name, inner] : value.items()) {
        if (value.is_array()) {
            copy.push_back(exact(inner));
            continue;
        }
        auto &members = copy.get_ref<Row::object_t &>(); // at the end, unseen: names are different already
        members.emplace_back(name, exact(inner));
        if (inexact(inner))
            members.emplace_back(name + "_text", inner.dump());
    }
    return copy;
}

std::string prefix(const Place &place, const std::string &command)
{
    if (place.file.empty())
        return command.empty() ? "plx" : "plx " + command;
    std::string text = place.file;
    for (const int number : {place.line, place.column})
        text += number == 0 ? "" : ':' + std::to_string(number);
    return text;
}

void add_place(Row &row, const Place &place)
{
    if (!place.file.empty())
        row["file"] = place.file;
    if (place.line != 0)
        row["line"] = place.line;
    if (place.column != 0)
        row["column"] = place.column;
}

} // namespace

std::string json_text(const std::string &text)
{
    return Row(text).dump(-1, ' ', true, Row::error_handler_t::replace);
}

Output &output()
{
    static Output only;
    return only;
}

void Output::begin(std::string command, bool json)
{
    command_ = std::move(command);
    json_ = json;
}

void Output::line(std::string_view type, Row row)
{
    if (!json_)
        return;
    Row line = {{"type", type}};
    if (!begun_)
        line["schema"] = schema();
    begun_ = true;
    auto &members = line.get_ref<Row::object_t &>();
    row = exact(row);
    for (auto &[name, value] : row.get_ref<Row::object_t &>())
        members.emplace_back(name == "type" ? "own_type" : name, std::move(value));
    std::cout << line.dump(-1, ' ', true, Row::error_handler_t::replace) << '\n';
}

void Output::made_line(std::string_view type, std::string_view members)
{
    if (!json_)
        return;
    std::cout << "{\"type\":\"" << type << "\",";
    if (!begun_)
        std::cout << "\"schema\":" << json_text(schema()) << ',';
    begun_ = true;
    std::cout << members << "}\n";
}

std::string Output::schema()
{
    return (command_.empty() ? "plx" : "plx." + command_) + "/1";
}

void Output::note(const std::string &text)
{
    if (json_) {
        line("note", {{"text", text}});
        std::cout.flush();
    } else {
        std::cerr << prefix({}, command_) << ": " << text << std::endl;
    }
}

int Output::error(int exit_code, const std::string &text, const Place &place, const char *hint)
{
    Row row = {{"code", exit_code}, {"text", text}};
    add_place(row, place);
    if (hint != nullptr)
        row["hint"] = hint;
    line("error", std::move(row));
    if (!json_)
        std::cerr << prefix(place, command_) << ": " << text << (hint != nullptr ? "\nhint: " : "")
                  << (hint != nullptr ? hint : "") << std::endl;
    return exit_code;
}

void Output::warning(const std::string &text, const Place &place)
{
    Row row = {{"text", text}};
    add_place(row, place);
    line("warning", std::move(row));
    if (!json_)
        std::cerr << prefix(place, command_) << ": warning: " << text << std::endl;
}

// What was printed may still be on its way to a full disk.
int Output::end(int exit_code)
{
    Row row = {{"exit_code", exit_code}};
    row.update(summary_);
    line("summary", std::move(row));
    std::cout.flush();
    if (std::cout && std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return exit_code;
    std::cerr << "plx: the output cannot be written\n";
    return exit_code == EXIT_DONE ? static_cast<int>(EXIT_NO_OUTPUT) : exit_code;
}

} // namespace plx::tool
