// See document.hpp.
#include "document.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

namespace plx::tool {

namespace {

constexpr size_t largest_file = 32U << 20U; // bytes
constexpr size_t most_parts = 2'000'000;
constexpr size_t deepest = 64;
constexpr size_t longest_quote = 48; // characters of the text

struct Refused : std::runtime_error {
    Refused(Position where, const std::string &why) : std::runtime_error(why), at(where) {}
    Position at;
};

Position position(const YAML::Mark &mark)
{
    return mark.is_null() ? Position{} : Position{mark.line + 1, mark.column + 1};
}

size_t count(const Part &part)
{
    size_t total = 1;
    for (const Part &inner : part.parts)
        total += count(inner);
    return total;
}

class TreeBuilder final : public YAML::EventHandler {
  public:
    void OnDocumentStart(const YAML::Mark &) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark &mark, YAML::anchor_t anchor) override { leaf({.at = position(mark)}, anchor); }
    void OnAlias(const YAML::Mark &mark, YAML::anchor_t anchor) override { alias(position(mark), anchor); }
    void OnScalar(const YAML::Mark &mark, const std::string &, YAML::anchor_t anchor, const std::string &value) override
    {
        leaf({.kind = Part::Kind::scalar, .at = position(mark), .text = value}, anchor);
    }
    void OnSequenceStart(const YAML::Mark &mark, const std::string &, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override
    {
        open(Part::Kind::list, position(mark), anchor);
    }
    void OnSequenceEnd() override { close(); }
    void OnMapStart(const YAML::Mark &mark, const std::string &, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override
    {
        open(Part::Kind::map, position(mark), anchor);
    }
    void OnMapEnd() override { close(); }

    Part root;

  private:
    struct Open {
        Part part;
        YAML::anchor_t anchor;
    };

    void open(Part::Kind kind, Position at, YAML::anchor_t anchor)
    {
        if (stack_.size() == deepest)
            throw Refused(at, "nested too deeply");
        spend(1, at);
        stack_.push_back({{.kind = kind, .at = at}, anchor});
    }

    void close()
    {
        Open done = std::move(stack_.back());
        stack_.pop_back();
        attach(std::move(done.part), done.anchor);
    }

    void leaf(Part part, YAML::anchor_t anchor)
    {
        spend(1, part.at);
        attach(std::move(part), anchor);
    }

    // A copy stands where the alias stands, its parts where they were written.
    void alias(Position at, YAML::anchor_t anchor)
    {
        const auto named = anchored_.find(anchor);
        if (named == anchored_.end())
            throw Refused(at, "an alias to a part that holds it");
        spend(count(named->second), at);
        Part copy = named->second;
        copy.at = at;
        attach(std::move(copy), YAML::NullAnchor);
    }

    void attach(Part part, YAML::anchor_t anchor)
    {
        if (anchor != YAML::NullAnchor)
            anchored_[anchor] = part;
        if (stack_.empty())
            root = std::move(part);
        else
            stack_.back().part.parts.push_back(std::move(part));
    }

    void spend(size_t parts, Position at)
    {
        spent_ += parts;
        if (spent_ > most_parts)
            throw Refused(at, "the file has more than " + std::to_string(most_parts) + " parts");
    }

    std::vector<Open> stack_;
    std::map<YAML::anchor_t, Part> anchored_;
    size_t spent_ = 0;
};

// The text with bytes that a terminal might act on escaped.
std::string plain(std::string_view text)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f)
            result += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
        else
            result += c;
    }
    return result;
}

std::string file_error(std::string_view what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

} // namespace

std::vector<std::string> Errors::lines(std::string_view file) const
{
    std::vector<Error> sorted = errors_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Error &a, const Error &b) { return a.at < b.at; });
    std::vector<std::string> lines;
    for (const Error &error : sorted) {
        std::string line(file);
        if (error.at.line != 0)
            line += ':' + std::to_string(error.at.line) + ':' + std::to_string(error.at.column);
        lines.push_back(line + ": " + error.message);
    }
    return lines;
}

std::string quoted(std::string_view text)
{
    return "'" + plain(text.substr(0, longest_quote)) + (text.size() > longest_quote ? "...'" : "'");
}

bool read_file(const std::string &path, std::string &content, Errors &errors)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        errors.add({}, file_error("cannot be opened"));
        return false;
    }
    content.resize(largest_file + 1);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(file.gcount()));
    if (file.bad())
        errors.add({}, file_error("cannot be read"));
    else if (content.size() > largest_file)
        errors.add({}, "larger than " + std::to_string(largest_file >> 20U) + " MiB");
    return errors.empty();
}

bool parse_document(const std::string &content, Part &root, Errors &errors)
{
    TreeBuilder builder;
    try {
        std::istringstream stream(content);
        YAML::Parser parser(stream);
        if (!parser.HandleNextDocument(builder))
            errors.add({1, 1}, "the file is empty");
        else if (TreeBuilder second; parser.HandleNextDocument(second))
            errors.add(second.root.at, "a second document: a policy is one");
    } catch (const Refused &refused) {
        errors.add(refused.at, refused.what());
    } catch (const YAML::Exception &error) {
        errors.add(position(error.mark), plain(error.msg)); // it may quote the file
    }
    root = std::move(builder.root);
    return errors.empty();
}

} // namespace plx::tool
