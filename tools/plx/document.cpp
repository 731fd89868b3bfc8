// See document.hpp.
#include "document.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace plx::tool {

namespace {

constexpr size_t deepest = 64;
constexpr size_t free_copies = 2'000'000;  // parts and bytes that aliases may copy in any file
constexpr size_t copies_of_each_part = 32; // and so many for each that stands in it
constexpr size_t longest_quote = 48;       // characters of the text
constexpr size_t longest_message = 200;

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

std::string_view view(const yaml_char_t *text)
{
    return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

Position position(const yaml_mark_t &mark)
{
    return {static_cast<int>(mark.line) + 1, static_cast<int>(mark.column) + 1};
}

Event scalar(const yaml_event_t &event)
{
    const auto &data = event.data.scalar;
    const std::string_view text(reinterpret_cast<const char *>(data.value), data.length);
    const bool bare = data.style == YAML_PLAIN_SCALAR_STYLE && data.tag == nullptr;
    const bool null = bare && (text.empty() || text == "~" || text == "null" || text == "Null" || text == "NULL");
    return {null ? Event::Kind::null : Event::Kind::scalar, {}, text};
}

} // namespace

void Errors::add(Position at, const std::string &file, int line, std::string message)
{
    ++count_;
    Error added{at, file, line, std::move(message)};
    const auto place =
        std::upper_bound(errors_.begin(), errors_.end(), added,
                         [](const Error &before, const Error &error) { return before.order() < error.order(); });
    errors_.insert(place, std::move(added));
    if (errors_.size() > most_shown)
        errors_.pop_back();
}

std::vector<Errors::Told> Errors::told(const std::string &file) const
{
    std::vector<Told> told;
    for (const Error &error : errors_)
        told.push_back(
            {error.file.empty() ? Place{file, error.at.line, error.at.column} : Place{plain(error.file), error.line},
             error.message});
    if (count_ > errors_.size())
        told.push_back({{file}, "and " + std::to_string(count_ - errors_.size()) + " more"});
    return told;
}

std::string quoted(std::string_view text)
{
    return "'" + plain(text.substr(0, longest_quote)) + (text.size() > longest_quote ? "...'" : "'");
}

std::string file_error(std::string_view what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

// ---- the parser -----------------------------------------------------------------------------------------------------

Document::Parser::Parser() : yaml_parser_t{}
{
    if (yaml_parser_initialize(this) == 0)
        throw std::bad_alloc();
}

Document::Document(std::istream &in) : in_(in)
{
    yaml_parser_set_input(&parser_, &Document::read, &in_);
    parse(); // the stream's start
    parse();
    if (event_.type == YAML_STREAM_END_EVENT)
        throw Fault({1, 1}, "the file is empty");
}

int Document::read(void *in, unsigned char *buffer, size_t size, size_t *got) noexcept
{
    auto &stream = *static_cast<std::istream *>(in);
    stream.read(reinterpret_cast<char *>(buffer), static_cast<std::streamsize>(size));
    *got = static_cast<size_t>(stream.gcount());
    return stream.bad() ? 0 : 1;
}

void Document::parse()
{
    yaml_event_delete(&event_);
    if (yaml_parser_parse(&parser_, &event_) == 0)
        refuse_syntax();
}

Position Document::position() const
{
    return tool::position(event_.start_mark);
}

void Document::refuse_syntax() const
{
    if (parser_.error == YAML_MEMORY_ERROR)
        throw std::bad_alloc();
    if (in_.bad())
        throw Fault({}, file_error("cannot be read"));
    std::string why(parser_.problem == nullptr ? "is no YAML" : parser_.problem);
    if (parser_.context != nullptr)
        why += std::string(" ") + parser_.context;
    const bool in_bytes = parser_.error == YAML_READER_ERROR; // then only the parser's own place is known
    throw Fault(tool::position(in_bytes ? parser_.mark : parser_.problem_mark), plain(why.substr(0, longest_message)));
}

// ---- events ---------------------------------------------------------------------------------------------------------

Event Document::next()
{
    Event event;
    while (copies_.empty() ? !next_parsed(event) : !next_copied(event)) {
    }
    return event;
}

// False when what stands there is an alias, whose copy comes next.
bool Document::next_parsed(Event &event)
{
    parse();
    const yaml_char_t *anchor = nullptr;
    switch (event_.type) {
    case YAML_ALIAS_EVENT:
        return begin_copy();
    case YAML_SCALAR_EVENT:
        event = scalar(event_);
        anchor = event_.data.scalar.anchor;
        break;
    case YAML_SEQUENCE_START_EVENT:
        event.kind = Event::Kind::list;
        anchor = event_.data.sequence_start.anchor;
        break;
    case YAML_MAPPING_START_EVENT:
        event.kind = Event::Kind::map;
        anchor = event_.data.mapping_start.anchor;
        break;
    default:
        event.kind = Event::Kind::end;
        break;
    }
    event.at = position();
    parsed_ += 1 + event.text.size();
    if (event.opens() && depth_ >= deepest)
        throw Fault(event.at, "nested too deeply");
    depth_ += event.opens() ? 1 : 0;
    note(event, anchor);
    if (event.kind == Event::Kind::end)
        --depth_;
    end_anchors();
    return true;
}

// A copy stands where the alias stands, its parts where they were written.
bool Document::begin_copy()
{
    const std::string_view name = view(event_.data.alias.anchor);
    if (std::any_of(open_.begin(), open_.end(), [name](const Open &open) { return open.name == name; }))
        throw Fault(position(), "an alias to a part that holds it");
    const auto named = anchors_.find(name);
    if (named == anchors_.end())
        throw Fault(position(), "the referenced anchor is not defined");
    if (tape_ != nullptr) {
        tape_->events.push_back({Event::Kind::null, position(), tape_->copies.size(), std::string::npos});
        tape_->copies.push_back(named->second);
        if (named->second.tape == tape_)
            tape_->copies.back().tape.reset(); // a tape does not hold itself
    }
    copies_.push_back(named->second);
    alias_at_ = position();
    alias_starts_ = true;
    return false;
}

bool Document::next_copied(Event &event)
{
    Range &copy = copies_.back();
    if (copy.begin == copy.end) {
        copies_.pop_back();
        return false;
    }
    const Tape &tape = *copy.tape;
    const Noted &noted = tape.events[copy.begin++];
    if (noted.size == std::string::npos) {
        alias_at_ = alias_starts_ ? alias_at_ : noted.at;
        alias_starts_ = true;
        Range inner = tape.copies[noted.text];
        if (inner.tape == nullptr)
            inner.tape = copy.tape;
        copies_.push_back(std::move(inner));
        return false;
    }
    event = {noted.kind, alias_starts_ ? alias_at_ : noted.at,
             std::string_view(tape.text).substr(noted.text, noted.size)};
    alias_starts_ = false;
    copied_ += 1 + event.text.size();
    if (copied_ > free_copies + copies_of_each_part * parsed_)
        throw Fault(event.at, "the file's aliases copy more than " + std::to_string(copies_of_each_part) +
                                  " times what stands in it");
    if (event.opens() && depth_ >= deepest)
        throw Fault(event.at, "nested too deeply");
    depth_ += event.opens() ? 1 : 0;
    depth_ -= event.kind == Event::Kind::end ? 1 : 0;
    return true;
}

// Keeps what stands in anchored parts.
void Document::note(const Event &event, const yaml_char_t *anchor)
{
    if (anchor != nullptr) {
        if (tape_ == nullptr)
            tape_ = std::make_shared<Tape>();
        open_.push_back({std::string(view(anchor)), tape_->events.size(), depth_ - (event.opens() ? 1 : 0)});
    }
    if (tape_ == nullptr)
        return;
    tape_->events.push_back({event.kind, event.at, tape_->text.size(), event.text.size()});
    tape_->text += event.text;
}

// Those whose part the last event has ended.
void Document::end_anchors()
{
    while (!open_.empty() && open_.back().depth == depth_) {
        anchors_[open_.back().name] = {tape_, open_.back().begin, tape_->events.size()};
        open_.pop_back();
    }
    if (open_.empty())
        tape_.reset();
}

void Document::skip(const Event &begun)
{
    if (!begun.opens())
        return;
    for (const size_t outside = depth_ - 1; depth_ > outside;)
        next();
}

void Document::finish()
{
    parse(); // the document's end
    parse();
    if (event_.type == YAML_STREAM_END_EVENT)
        return;
    const Position second = position();
    throw Fault(second, "a second document: a policy is one");
}

} // namespace plx::tool
