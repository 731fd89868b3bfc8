// What is wrong with a file, for people: each fault with the line that it is in and a caret under its place.
#include "document.hpp"

#include "output.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <set>

namespace plx::tool {

namespace {

constexpr size_t longest_line = 8192; // bytes, in which a place is looked for
constexpr size_t widest = 100;        // characters that are shown
constexpr size_t before_place = 60;   // of them, in front of the place where the line is longer

using Lines = std::map<int, std::string>;

// What of a line can be shown: one column for each character, none that a terminal acts on.
std::string shown(std::string_view line)
{
    std::string text;
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f)
            text += c;
        else if (byte < 0x80)
            text += ' ';
        else if ((byte & 0xc0U) != 0x80) // not the rest of a character
            text += '?';
    }
    return text;
}

bool read_line(std::istream &in, std::string &line)
{
    line.resize(longest_line);
    in.getline(line.data(), static_cast<std::streamsize>(line.size()));
    const auto got = static_cast<size_t>(in.gcount());
    if (in.bad() || (in.eof() && got == 0))
        return false;
    line.resize(got > 0 && !in.eof() && !in.fail() ? got - 1 : got);
    if (in.fail() && !in.eof()) { // longer than that: its end is passed over
        in.clear();
        in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return true;
}

Lines read_lines(const std::string &path, const std::set<int> &wanted)
{
    Lines lines;
    std::error_code error;
    if (wanted.empty() || !std::filesystem::is_regular_file(path, error))
        return lines;
    std::ifstream file(path, std::ios::binary);
    std::string line;
    for (int number = 1; number <= *wanted.rbegin() && read_line(file, line); ++number) {
        if (wanted.contains(number))
            lines[number] = shown(line);
    }
    return lines;
}

// The line without its indentation, and the caret.
void print_excerpt(std::string line, size_t column)
{
    if (column == 0 || column > line.size() + 1)
        return;
    const size_t indentation = std::min(line.find_first_not_of(' '), column - 1);
    const bool far = column - indentation > widest - 20;
    const size_t begin = far ? column - before_place : indentation;
    line = line.substr(begin, widest);
    line.erase(line.find_last_not_of(' ') + 1);
    std::cerr << (far ? "    ..." : "    ") << line << '\n'
              << std::string((far ? 7 : 4) + column - 1 - begin, ' ') << "^\n";
}

template <typename Say> void tell(const Errors &errors, const std::string &file, Say &&say)
{
    const std::vector<Errors::Told> told = errors.told(file);
    std::set<int> wanted;
    for (const auto &[place, message] : told) {
        if (place.file == file && place.line != 0 && !output().json())
            wanted.insert(place.line);
    }
    const Lines sources = read_lines(file, wanted);
    for (const auto &[place, message] : told) {
        say(message, place);
        const auto source = place.file == file ? sources.find(place.line) : sources.end();
        if (source != sources.end())
            print_excerpt(source->second, static_cast<size_t>(place.column));
    }
}

} // namespace

void tell(const Errors &errors, const std::string &file)
{
    tell(errors, file, [](const std::string &text, const Place &place) { output().error(EXIT_BAD_FILE, text, place); });
}

void tell_warnings(const Errors &warnings, const std::string &file)
{
    tell(warnings, file, [](const std::string &text, const Place &place) { output().warning(text, place); });
}

} // namespace plx::tool
