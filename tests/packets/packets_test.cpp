// What entries do to frames, line by line:
//
// Where the kernel can be had (see kernel_test.cpp) it does the same, or the line tells what it did.
//
//     entry vid=100 -> fwd=deny        compiles it: "2 rules", with what they cannot be used for; or why not
//     shape ENTRY; ENTRY               whether they can be elements of one map
//     frame eth tag(vid=100) ip4 udp   "drop", "pass", "redirect m0", "no match"; what else was done to it
#include "packets/entry.hpp"
#include "packets/frames.hpp"
#include "packets/testbed.hpp"
#include "plane/packet/interpreter.hpp"
#include "support/transcript.hpp"
#include <sstream>

namespace plx {
namespace {

using namespace plane::packet;

std::string hex(std::span<const uint8_t> bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += "0123456789abcdef"[byte >> 4U], text += "0123456789abcdef"[byte & 15U];
    return text;
}

// Where two frames of a length differ: "14: 0001 -> a001".
std::string difference(const std::vector<uint8_t> &before, const std::vector<uint8_t> &after)
{
    const auto first = std::mismatch(before.begin(), before.end(), after.begin()).first;
    if (first == before.end())
        return {};
    const auto at = first - before.begin();
    const auto last = before.rend() - std::mismatch(before.rbegin(), before.rend(), after.rbegin()).first;
    const std::span<const uint8_t> old(before), now(after);
    const auto size = static_cast<size_t>(last - at);
    return ", " + std::to_string(at) + ": " + hex(old.subspan(static_cast<size_t>(at), size)) + " -> " +
           hex(now.subspan(static_cast<size_t>(at), size));
}

struct Deed {
    std::string operator()(const CountOn &on) const { return counter_name(on.counter); }
    std::string operator()(const Log &log) const { return "log " + std::to_string(log.group); }
    std::string operator()(const Copy &copy) const { return "copy to " + copy.interface; }
    std::string operator()(const Write &) const { return {}; }
    std::string operator()(const SetPriority &set) const { return "priority " + std::to_string(set.priority); }
};

class Packets : public Transcript {
    std::string perform(const std::string &line) override
    {
        std::string rest = line;
        const std::string verb = take_word(rest);
        try {
            return verb == "entry" ? compile_entry(rest) : verb == "shape" ? shape(rest) : show(frame(rest));
        } catch (const std::invalid_argument &error) {
            return error.what();
        }
    }

    static std::string shape(const std::string &entries)
    {
        const auto of = [](const std::string &entry) {
            return mappable(compile(test::entry_of(entry), test::configuration()).rules.at(0));
        };
        const size_t end = entries.find(';');
        const auto one = of(entries.substr(0, end)), other = of(entries.substr(end + 1));
        return one && other && one->shape == other->shape ? "one" : "two";
    }

    std::string compile_entry(const std::string &text)
    {
        config_ = test::configuration();
        entry_ = compile(test::entry_of(text), config_);
        egress_ = entry_.directions == egress;
        if (test::Testbed::missing().empty()) {
            const std::string refusal = test::Testbed::get().load(entry_.rules, egress_);
            EXPECT_EQ("", refusal);
        }
        if (entry_.status != Status::ok)
            return std::to_string(static_cast<int>(entry_.status)) + ' ' + entry_.text;
        return std::to_string(entry_.rules.size()) + (entry_.rules.size() == 1 ? " rule" : " rules") +
               (entry_.directions == ingress  ? ", ingress"
                : entry_.directions == egress ? ", egress"
                                              : "") +
               (entry_.unless_default ? ", unless there is a default entry" : "");
    }

    // Behind the layers: what the bytes do not tell.
    Frame frame(std::string text) const
    {
        const auto take = [&text](const std::string &word) {
            const size_t at = text.find(' ' + word);
            const std::string taken = at == std::string::npos ? "" : text.substr(at + 1 + word.size());
            text.erase(std::min(at, text.size()));
            return at == std::string::npos ? std::optional<std::string>() : taken;
        };
        Frame frame{.bytes = {}, .input = egress_ ? "" : "t1", .output = egress_ ? "e0" : ""};
        frame.over_meter = take("over").has_value();
        frame.sampled = take("sampled").has_value();
        frame.mark = static_cast<uint32_t>(std::stoul('0' + take("mark(").value_or("")));
        frame.bytes = test::frame_of(text);
        return frame;
    }

    std::string show(const Frame &frame)
    {
        const Outcome outcome = interpret(entry_.rules, frame);
        const std::string unlike = test::Testbed::missing().empty()
                                       ? test::Testbed::difference(frame, outcome, test::Testbed::get().send(frame))
                                       : "";
        if (!unlike.empty())
            return unlike;
        if (outcome.matched.empty())
            return "no match";
        std::string text = outcome.verdict == Verdict::drop     ? "drop"
                           : outcome.verdict == Verdict::accept ? "pass"
                                                                : "redirect " + outcome.interface;
        for (const Action &action : outcome.done) {
            const std::string deed = std::visit(Deed(), action);
            text += deed.empty() ? "" : ", " + deed;
        }
        return text + difference(frame.bytes, outcome.bytes);
    }

    Config config_;
    Compiled entry_;
    bool egress_ = false;
};

const bool registered = register_transcripts(PLX_TRANSCRIPTS, [] { return new Packets; });

} // namespace
} // namespace plx
