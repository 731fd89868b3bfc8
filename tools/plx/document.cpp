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
constexpr size_t longest_message = 200;

std::string too_large()
{
    return "larger than " + std::to_string(largest_file >> 20U) + " MiB";
}

struct Refused : std::runtime_error {
    Refused(Position where, const std::string &why) : std::runtime_error(why), at(where) {}
    Position at;
};

Position position(const YAML::Mark &mark)
{
    return mark.is_null() ? Position{} : Position{mark.line + 1, mark.column + 1};
}

// What a part holds with all that is in it, aliases replaced.
struct Cost {
    size_t parts = 1;
    size_t text = 0;
    size_t height = 0; // of what is nested in it

    void contain(const Cost &inner)
    {
        parts += inner.parts;
        text += inner.text;
        height = std::max(height, inner.height + 1);
    }
};

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
        Cost cost;
        YAML::anchor_t anchor;
        Part::List items{};
    };
    struct Anchored {
        Part part;
        Cost cost;
    };

    void open(Part::Kind kind, Position at, YAML::anchor_t anchor)
    {
        spend({.height = 1}, at);
        stack_.push_back({{.kind = kind, .at = at}, {.height = 1}, anchor});
    }

    void close()
    {
        Open done = std::move(stack_.back());
        stack_.pop_back();
        done.items.shrink_to_fit();
        done.part.shared = std::make_shared<const Part::List>(std::move(done.items));
        attach(std::move(done.part), done.cost, done.anchor);
    }

    void leaf(Part part, YAML::anchor_t anchor)
    {
        const Cost cost{.text = part.text.size()};
        spend(cost, part.at);
        attach(std::move(part), cost, anchor);
    }

    // A copy stands where the alias stands, its parts where they were written.
    void alias(Position at, YAML::anchor_t anchor)
    {
        const auto named = anchored_.find(anchor);
        if (named == anchored_.end())
            throw Refused(at, "an alias to a part that holds it");
        spend(named->second.cost, at);
        Part copy = named->second.part;
        copy.at = at;
        attach(std::move(copy), named->second.cost, YAML::NullAnchor);
    }

    void attach(Part part, const Cost &cost, YAML::anchor_t anchor)
    {
        if (anchor != YAML::NullAnchor)
            anchored_[anchor] = {part, cost};
        if (stack_.empty()) {
            root = std::move(part);
            return;
        }
        stack_.back().cost.contain(cost);
        stack_.back().items.push_back(std::move(part));
    }

    void spend(const Cost &cost, Position at)
    {
        if (stack_.size() + cost.height > deepest)
            throw Refused(at, "nested too deeply");
        spent_.parts += cost.parts;
        spent_.text += cost.text;
        if (spent_.parts > most_parts)
            throw Refused(at, "the file has more than " + std::to_string(most_parts) + " parts");
        if (spent_.text > largest_file)
            throw Refused(at, "with its aliases replaced, the file is " + too_large());
    }

    std::vector<Open> stack_;
    std::map<YAML::anchor_t, Anchored> anchored_;
    Cost spent_{.parts = 0};
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

const Part::List &Part::parts() const
{
    static const List none;
    return shared == nullptr ? none : *shared;
}

void Errors::add(Position at, std::string message)
{
    ++count_;
    const auto place = std::upper_bound(errors_.begin(), errors_.end(), at,
                                        [](Position before, const Error &error) { return before < error.at; });
    errors_.insert(place, {at, std::move(message)});
    if (errors_.size() > most_shown)
        errors_.pop_back();
}

std::vector<std::string> Errors::lines(std::string_view file) const
{
    std::vector<std::string> lines;
    for (const Error &error : errors_) {
        std::string line(file);
        if (error.at.line != 0)
            line += ':' + std::to_string(error.at.line) + ':' + std::to_string(error.at.column);
        lines.push_back(line + ": " + error.message);
    }
    if (count_ > errors_.size())
        lines.push_back(std::string(file) + ": and " + std::to_string(count_ - errors_.size()) + " more");
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
        errors.add({}, too_large());
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
        errors.add(position(error.mark), plain(error.msg.substr(0, longest_message))); // it may quote the file
    }
    root = std::move(builder.root);
    return errors.empty();
}

} // namespace plx::tool
