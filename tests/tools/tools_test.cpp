// plx in transcripts: its programs, and, without starting one, what it makes of texts:
//
//     policy TEXT          what it means, or its errors; entry and applies put a part into a small policy
//     value NAME TEXT      the attribute's bytes, and what is shown of them where that is not the text
//     shown NAME BYTES     what is shown of bytes
//     each TEXT            how many forms take it and give it back; for "words", each word of each form
//     nearest WORD OTHER...
//     label TEXT           how numbers bear a name
//     bounded              the rest bounds memory or open files, of which a sanitizer has its own
#include "attribute_text.hpp"
#include "attribute_value.hpp"
#include "metrics/exposition.hpp"
#include "policy.hpp"
#include "support/session.hpp"

#include <iterator>
#include <sstream>

namespace plx::tool {
namespace {

const Form *form(std::string_view name)
{
    const auto found = std::ranges::find(forms(), name, &Form::name);
    return found == forms().end() ? nullptr : &*found;
}

std::string hex(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    return text;
}

std::string value(const std::string &name, const std::string &text)
{
    const auto [bytes, error] = encode(*form(name), text);
    if (!error.empty())
        return error + (bytes.empty() ? "" : ", but bytes");
    const std::string shown = format_value(form(name), bytes);
    return hex(bytes) + (shown == text ? "" : " " + shown);
}

std::string shown_bytes(const std::string &name, const std::string &digits)
{
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at + 1 < digits.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    return format_value(form(name), bytes);
}

// What is encoded is of the form's own size and kind, and is shown as text for the same bytes.
bool is_given_back(const Form &form, const std::string &text, const std::vector<uint8_t> &bytes)
{
    bool known = false;
    const Encoding again = encode(form, format_value(&form, bytes));
    return form.bytes() * (text.find('/') == text.npos ? 1 : 2) == bytes.size() && again.error.empty() &&
           again.bytes == bytes && form_of({form.cls, attribute_id(form), bytes}, known) == &form;
}

std::string each(const std::string &text)
{
    size_t taken = 0;
    std::string wrong;
    for (const Form &form : forms()) {
        std::vector<std::string> texts{text};
        for (const NamedValue &named : named_values(form.names))
            texts.emplace_back(named.name);
        for (const std::string &one : text == "words" ? std::span(texts).subspan(1) : std::span(texts).first(1)) {
            const auto [bytes, error] = encode(form, one);
            taken += error.empty() ? 1 : 0;
            if (error.empty() ? !is_given_back(form, one, bytes) : text == "words")
                wrong += std::string(form.name) + ' ' + one + '\n';
        }
    }
    return wrong + std::to_string(taken);
}

void describe(const PolicyEntry &entry, std::ostream &out)
{
    out << " sn " << entry.sn << " name '" << entry.name() << "' priority " << entry.priority
        << (entry.is_default ? " default" : "");
    const auto attributes = unpack(entry.attributes());
    for (const Attribute &attribute : *attributes) {
        bool known = false;
        out << ' ' << attribute.cls << '/' << form_of(attribute, known)->name << '=' << hex(attribute.value);
    }
    out << '\n';
}

std::string policy(const std::string &text)
{
    Errors errors;
    std::istringstream in(text);
    const std::optional<Policy> read = read_policy(in, POLICIES "/", errors);
    std::ostringstream out;
    for (const auto &[place, message] : errors.told("f")) { // without the file, the directory
        out << (place.file == "f" ? "" : place.file.substr(sizeof POLICIES) + ':');
        for (const int number : {place.line, place.column})
            out << (number == 0 ? "" : std::to_string(number) + ':');
        out << (place.file == "f" && place.line == 0 ? " " : " ") << message << '\n';
    }
    if (!read || !errors.empty())
        return out.str() + (read ? "but a policy" : "");
    out << "application " << read->application << '\n';
    for (const PolicyAcl &acl : read->acls) {
        out << "acl " << acl.id << " name '" << acl.name << "' class " << unsigned{acl.cls} << '\n';
        for (const PolicyEntry &entry : acl.entries)
            describe(entry, out);
    }
    for (const PolicyApply &apply : read->applies)
        out << "acl " << apply.acl << " on port " << apply.port << ' ' << direction_name(apply.direction)
            << " priority " << apply.priority << '\n';
    return out.str();
}

std::string small_policy(const std::string &entry, const std::string &applies)
{
    return policy("application: a\nacls:\n- id: 1\n  class: 1\n  entries:\n  - " + entry + "\napplies: " + applies +
                  '\n');
}

std::string closest(const std::string &text)
{
    std::istringstream stream(text.substr(text.find(' ')));
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    return std::string(nearest(text.substr(0, text.find(' ')), {words.begin(), words.end()}));
}

class Tools : public Session {
  public:
    Tools()
    {
        setenv("FAST", "env LD_PRELOAD=" FAST_CLOCK " ASAN_OPTIONS=verify_asan_link_order=0", 1);
        setenv("UNWILLING", "env LD_PRELOAD=" UNWILLING_STORE " ASAN_OPTIONS=verify_asan_link_order=0", 1);
        setenv("EXAMPLES", EXAMPLES, 1);
        setenv("POLICIES", POLICIES, 1);
        setenv("JSON", JSON_LINES, 1);
        unsetenv("PLX_STORE");
    }

  private:
    std::map<std::string, std::string> environment(const std::string &) const override
    {
        return {{"PLX_STORE", "mem:"}};
    }

    std::string perform(const std::string &line) override
    {
        std::string text = line;
        const std::string verb = take_word(text);
        if (verb == "policy")
            return policy(unescaped(text));
        if (verb == "entry")
            return small_policy(unescaped(text), "[]");
        if (verb == "applies")
            return small_policy("{sn: 1}", text);
#ifdef PLX_UNDER_SANITIZER
        if (verb == "bounded")
            return skip("a sanitizer's own memory and files are above the bounds");
#else
        if (verb == "bounded")
            return {};
#endif
        if (verb == "each")
            return each(text);
        if (verb == "nearest")
            return closest(line.substr(verb.size() + 1));
        if (verb == "label")
            return std::move(Exposition(3).gauge("m", "h").add(1, {{"a", unescaped(line.substr(6))}})).take();
        if (verb != "value" && verb != "shown")
            return Session::perform(line);
        const std::string name = take_word(text);
        return verb == "value" ? value(name, unescaped(text)) : shown_bytes(name, text);
    }
};

const bool registered = register_transcripts(PLX_TRANSCRIPTS, [] { return new Tools; });

} // namespace
} // namespace plx::tool
