// See transcript.hpp.
#include "transcript.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace plx {

namespace {

using Lines = std::vector<std::string>;

// Known before anything runs: scenarios are registered while other files are initialised.
constexpr std::string_view heading = "== ", came = "    ", varies = "    ~ ";

Lines lines_of(std::istream &&text)
{
    Lines lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

std::string expanded(std::string line)
{
    static const std::regex repeated("<([^<*]+)\\*([0-9]+)>");
    for (std::smatch found; std::regex_search(line, found, repeated);) {
        std::string text;
        for (size_t left = std::stoul(found[2]); left > 0; --left)
            text += found[1];
        line = found.prefix().str() + text + found.suffix().str();
    }
    return line;
}

std::string shortened(const std::string &line)
{
    std::string shorter;
    for (size_t at = 0; at < line.size();) {
        const size_t end = std::min(line.find_first_not_of(line[at], at), line.size()), length = end - at;
        shorter +=
            length > 40 ? std::string("<") + line[at] + '*' + std::to_string(length) + '>' : line.substr(at, length);
        at = end;
    }
    return shorter;
}

bool fits(const std::string &expected, const std::string &got)
{
    return expected == got || (expected.starts_with(varies) &&
                               std::regex_match(got.substr(came.size()), std::regex(expected.substr(varies.size()))));
}

} // namespace

Transcript *Transcript::of(std::string path, std::string name)
{
    path_ = std::move(path);
    name_ = std::move(name);
    return this;
}

void Transcript::TestBody()
{
    const Lines file = lines_of(std::ifstream(path_));
    Lines written;
    std::string scenario; // that the line is of
    bool good = true;
    for (size_t at = 0; at < file.size();) {
        const std::string &line = file[at++];
        written.push_back(line);
        if (line.starts_with(heading))
            scenario = line.substr(heading.size());
        else if (good && !line.empty() && line[0] != '#' && (scenario.empty() || scenario == name_)) {
            const size_t number = at;
            while (at < file.size() && file[at].starts_with(came))
                ++at;
            good =
                step({line, {file.begin() + static_cast<ptrdiff_t>(number), file.begin() + static_cast<ptrdiff_t>(at)}},
                     number, written);
        }
    }
    if (!getenv("PLX_ACCEPT"))
        return;
    std::ofstream accepted(path_);
    for (const std::string &line : written)
        accepted << line << '\n';
}

std::string Transcript::skip(const char *why)
{
    [&] { GTEST_SKIP() << why; }();
    return {};
}

bool Transcript::step(const Step &step, size_t number, Lines &written)
{
    Lines got;
    for (const std::string &line : lines_of(std::istringstream(perform(expanded(step.line)))))
        if (!line.empty())
            got.push_back(std::string(came) + shortened(line));
    const bool same = IsSkipped() || std::ranges::equal(step.expected, got, fits);
    written.insert(written.end(), same ? step.expected.begin() : got.begin(), same ? step.expected.end() : got.end());
    if (same || getenv("PLX_ACCEPT"))
        return !IsSkipped();
    const auto text = [](const Lines &lines) {
        std::string all;
        for (const std::string &line : lines)
            all += '\n' + line;
        return all;
    };
    ADD_FAILURE_AT(path_.c_str(), static_cast<int>(number))
        << step.line << "\n  expected:" << text(step.expected) << "\n  came:" << text(got);
    return false;
}

bool register_transcripts(const std::string &folder, const std::function<Transcript *()> &make, const std::string &mark)
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        for (const std::string &line : lines_of(std::ifstream(entry.path())))
            if (line.starts_with(heading) && entry.path().extension() == ".txt") {
                const std::string path = entry.path(), name = line.substr(heading.size());
                testing::RegisterTest(entry.path().stem().c_str(), (name + mark).c_str(), nullptr, nullptr,
                                      path.c_str(), 1, [=]() -> Transcript * { return make()->of(path, name); });
                ++count;
            }
    return count != 0;
}

std::string take_word(std::string &line)
{
    const size_t end = std::min(line.find(' '), line.size());
    const std::string word = line.substr(0, end);
    line.erase(0, std::min(line.find_first_not_of(' ', end), line.size()));
    return word;
}

std::string unescaped(const std::string &text)
{
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            plain += text[at];
            continue;
        }
        const char kind = text[++at];
        const size_t known = std::string_view("nt0\\r").find(kind);
        if (kind == 'x')
            plain += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
        else
            plain += known == std::string_view::npos ? std::string{'\\', kind} : std::string(1, "\n\t\0\\\r"[known]);
        at += kind == 'x' ? 2 : 0;
    }
    return plain;
}

} // namespace plx
