// See output.hpp.
#include "output.hpp"

#include "records/host.hpp"
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

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

// The journal tells who is connected to it which device and inode that is.
bool is_journal()
{
    const char *told = std::getenv("JOURNAL_STREAM");
    struct stat stream {};
    return told != nullptr && fstat(STDERR_FILENO, &stream) == 0 &&
           told == std::to_string(stream.st_dev) + ':' + std::to_string(stream.st_ino);
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

void Output::begin(std::string command, bool json, std::string name)
{
    name_ = name.empty() ? command : std::move(name);
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
        say(Grade::info, prefix({}, name_) + ": " + text);
    }
}

void Output::log(Grade grade, const std::string &text)
{
    if (!json_)
        return say(grade, prefix({}, name_) + ": " + text);
    const char *const level = grade == Grade::info ? "info" : grade == Grade::warning ? "warning" : "error";
    line("note", {{"level", level}, {"time_ms", wall_clock_ms()}, {"text", text}});
    std::cout.flush();
}

void Output::say(Grade grade, const std::string &text) const
{
    static const bool journal = is_journal();
    const std::string mark = journal ? '<' + std::to_string(static_cast<int>(grade)) + '>' : "";
    std::string lines = mark;
    for (const char c : text)
        (lines += c) += c == '\n' ? mark : "";
    std::cerr << lines << std::endl;
}

int Output::error(int exit_code, const std::string &text, const Place &place, const char *hint)
{
    Row row = {{"code", exit_code}, {"text", text}};
    add_place(row, place);
    if (hint != nullptr)
        row["hint"] = hint;
    line("error", std::move(row));
    if (!json_)
        say(Grade::error, prefix(place, name_) + ": " + text + (hint != nullptr ? std::string("\nhint: ") + hint : ""));
    return exit_code;
}

void Output::warning(const std::string &text, const Place &place)
{
    Row row = {{"text", text}};
    add_place(row, place);
    line("warning", std::move(row));
    if (!json_)
        say(Grade::warning, prefix(place, name_) + ": warning: " + text);
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
