// See judge.hpp.
#include "explain/judge.hpp"

#include "attribute_text.hpp"
#include "policy.hpp"
#include <algorithm>

namespace plx::tool {

using namespace plane::packet;

namespace {

constexpr uint32_t outwards = 1;

Test interface_test(uint32_t port, uint32_t direction)
{
    const std::string name = interface_of(port);
    std::vector<uint8_t> bytes(name.begin(), name.end());
    bytes.resize(16);
    return {.source = {direction == outwards ? Load::output : Load::input, 16, 0}, .value = Bytes(bytes)};
}

// The attribute alone, packed.
std::vector<uint8_t> packed_of(const Attribute &attribute)
{
    const uint32_t header[2] = {attribute.id << 8U | attribute.cls, static_cast<uint32_t>(attribute.value.size())};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    std::vector<uint8_t> packed;
    packed.reserve(sizeof header + attribute.value.size());
    packed.assign(bytes, bytes + sizeof header);
    packed.insert(packed.end(), attribute.value.begin(), attribute.value.end());
    return packed;
}

// Calls `take` with the text and the packed form of each match field.
template <typename Take> void each_field(std::span<const uint8_t> packed, Take &&take)
{
    const auto attributes = unpack(packed);
    for (const Attribute &attribute : attributes.value_or(std::vector<Attribute>())) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        if (attribute.cls == FP_UDP_ATTR_FIELD)
            take(attribute_name(attribute, form) + '=' + format_value(form, attribute.value), packed_of(attribute));
    }
}

// Whether some rule matches, and what then: the rules of an entry have one verdict, but for what is above a rate.
Judgement judge_rules(const Compiled &compiled, const Subject &subject)
{
    Judgement result;
    for (const Rule &rule : compiled.rules) {
        const Truth truth = rule.verdict == Verdict::next ? Truth::no : subject.judge(rule.tests);
        if (truth == Truth::no)
            continue;
        if (!decides(rule)) {
            result.metered = true;
            continue;
        }
        result.verdict = rule.verdict;
        result.truth = truth;
        if (truth == Truth::yes)
            break;
    }
    return result;
}

// Why the entry is not there for this frame, whatever the frame is.
std::string absent(const CompiledEntry &entry, bool has_default, uint32_t direction)
{
    const Compiled &compiled = entry.compiled;
    if (compiled.status == Status::contradiction)
        return "no frame can match it: " + compiled.text;
    if (compiled.status != Status::ok)
        return "nodes refuse it: " + compiled.text;
    if ((compiled.directions & (direction == outwards ? egress : ingress)) == 0)
        return "it is about the other direction";
    if (compiled.unless_default && has_default)
        return "it is not installed while there is a default entry";
    return compiled.rules.empty() ? "it is not installed" : "";
}

// The fields that answer so, each for itself.
std::string fields_that(std::span<const uint8_t> packed, Truth wanted, const Subject &subject, const Config &config)
{
    std::string text;
    each_field(packed, [&](const std::string &field, const std::vector<uint8_t> &alone) {
        const CompiledEntry entry = compile_entry(alone, config);
        Truth truth = entry.compiled.status != Status::ok ? Truth::depends : judge_rules(entry.compiled, subject).truth;
        if (!entry.left_out.empty())
            truth = Truth::depends;
        if (truth == wanted && (wanted != Truth::no || text.empty()))
            text += (text.empty() ? "" : ", ") + field;
    });
    return text;
}

} // namespace

std::optional<Subject> Subject::of_fields(std::span<const uint8_t> packed, uint32_t port, uint32_t direction,
                                          const Config &config, std::string &error)
{
    Subject subject;
    subject.direction_ = direction;
    const CompiledEntry given = compile_entry(packed, config);
    if (!given.left_out.empty())
        error = std::string(given.left_out.front()->name) + ": no frame tells it";
    else if (given.compiled.status != Status::ok)
        error = given.compiled.text;
    if (!error.empty())
        return std::nullopt;
    for (const Rule &rule : given.compiled.rules) {
        std::vector<Test> tests = rule.tests;
        tests.push_back(interface_test(port, direction));
        subject.known_.emplace_back(tests);
    }
    return subject;
}

Subject Subject::of_frame(std::vector<uint8_t> bytes, uint32_t port, uint32_t direction)
{
    Subject subject;
    subject.direction_ = direction;
    subject.frame_ = Frame{.bytes = std::move(bytes), .input = {}, .output = {}};
    (direction == outwards ? subject.frame_->output : subject.frame_->input) = interface_of(port);
    return subject;
}

Truth Subject::judge(std::span<const Test> tests) const
{
    if (frame_) { // which does not tell its mark
        Rule rule;
        std::copy_if(tests.begin(), tests.end(), std::back_inserter(rule.tests),
                     [](const Test &test) { return test.source.load != Load::mark; });
        if (!matches(rule, *frame_))
            return Truth::no;
        return rule.tests.size() == tests.size() ? Truth::yes : Truth::depends;
    }
    std::optional<Truth> all;
    for (const Knowledge &known : known_) {
        const Truth truth = known.judge(tests);
        all = all && *all != truth ? Truth::depends : truth;
    }
    return all.value_or(Truth::no);
}

Judgement judge(const SceneEntry &entry, bool has_default, const Subject &subject, const Config &config)
{
    const std::vector<uint8_t> &packed = entry.wanted.value;
    const CompiledEntry compiled = compile_entry(packed, config);
    if (std::string why = absent(compiled, has_default, subject.direction()); !why.empty())
        return {.why = std::move(why)};
    Judgement result = judge_rules(compiled.compiled, subject);
    if (result.truth == Truth::yes && !compiled.left_out.empty())
        result.truth = Truth::depends;
    result.why = result.truth == Truth::yes ? match_text(packed) : fields_that(packed, result.truth, subject, config);
    if (result.why.empty())
        result.why = result.truth == Truth::yes ? "anything" : "its fields together";
    return result;
}

std::string match_text(std::span<const uint8_t> packed)
{
    std::string text;
    each_field(packed, [&text](const std::string &field, const std::vector<uint8_t> &) {
        text += (text.empty() ? "" : " ") + field;
    });
    return text;
}

} // namespace plx::tool
