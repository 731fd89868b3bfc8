// Any attributes are rules or refused with a reason, the rules can be encoded, and any frame can be judged by them.
#include "input.hpp"

#include "plane/nftables/expressions.hpp"
#include "plane/packet/compile.hpp"
#include "plane/packet/interpreter.hpp"
#include <libmnl/libmnl.h>

namespace {

using namespace plx;
using namespace plx::plane::packet;

class Anything : public plane::nftables::Interfaces {
  public:
    std::optional<uint32_t> index_of(const std::string &) const override { return 1; }
};

Config configuration(uint8_t choices)
{
    Config config;
    config.ports = {{0, "a"}, {1, "fifteen_letters"}};
    config.meters[0] = {};
    config.mirrors[0] = "b";
    config.double_tagged = (choices & 1) != 0;
    if ((choices & 2) != 0)
        config.sample_group = 1;
    if ((choices & 4) != 0)
        config.udf.fill(Source{Load::transport, 4, 255});
    return config;
}

// Mostly values of the right size, for the others are refused.
Requested any_entry(fuzz::input &in)
{
    Requested entry;
    for (uint32_t left = in.below(8); left > 0; --left) {
        const Form &form = forms()[in.number<uint16_t>() % forms().size()];
        const uint8_t choice = in.number();
        const uint32_t size = choice == 255 ? in.number() : form.bytes() * (form.mask && (choice & 1) != 0 ? 2 : 1);
        std::string value = in.bytes(size);
        value.resize(size);
        const uint32_t header[2] = {attribute_id(form) << 8U | form.cls, size};
        const auto *bytes = reinterpret_cast<const uint8_t *>(header);
        entry.value.insert(entry.value.end(), bytes, bytes + sizeof header);
        entry.value.insert(entry.value.end(), value.begin(), value.end());
    }
    return entry;
}

void encode(const Rule &rule)
{
    alignas(nlmsghdr) static char buffer[plane::nftables::rule_expressions_max + 64];
    nlmsghdr *message = mnl_nlmsg_put_header(buffer);
    fuzz::require(put_rule_expressions(message, sizeof buffer, rule, Anything(), {}), "a rule has room");
    message = mnl_nlmsg_put_header(buffer);
    fuzz::require(!put_rule_expressions(message, 64, rule, Anything(), {}), "or is told to have none");
    fuzz::require(message->nlmsg_len == MNL_NLMSG_HDRLEN, "and leaves the message as it was");
}

void judge(const Compiled &compiled, fuzz::input in)
{
    Frame frame{.bytes = {}, .input = "a", .output = ""};
    frame.over_meter = in.chance();
    frame.sampled = in.chance();
    const std::string bytes = in.rest();
    frame.bytes.assign(bytes.begin(), bytes.end());
    const Outcome outcome = interpret(compiled.rules, frame);
    fuzz::require(outcome.bytes.size() == frame.bytes.size(), "a frame keeps its size");
    const bool decided = !outcome.matched.empty() && compiled.rules[outcome.matched.back()].verdict != Verdict::next;
    fuzz::require(decided == (outcome.verdict != Verdict::next), "the last rule that matches decides");
    for (const size_t at : outcome.matched)
        fuzz::require(matches(compiled.rules[at], frame), "what matched matches alone");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const Config config = configuration(in.number());
    const Compiled compiled = compile(any_entry(in), config);
    fuzz::require((compiled.status == Status::ok) == compiled.text.empty(), "a refusal has its reason");
    fuzz::require(compiled.status == Status::ok || compiled.rules.empty(), "what is refused has no rules");
    fuzz::require(compiled.rules.size() <= 512, "an entry is not many rules");
    for (const Rule &rule : compiled.rules)
        encode(rule);
    judge(compiled, in);
    return 0;
}
