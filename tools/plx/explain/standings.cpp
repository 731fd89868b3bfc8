// See standings.hpp.
#include "explain/standings.hpp"

#include "display.hpp"
#include "records/status.hpp"

namespace plx::tool {

namespace {

constexpr milliseconds longest_answer{3000};

Standing standing_of(const Questions::Answer *answer, uint64_t key, uint64_t fingerprint)
{
    if (answer == nullptr || !answer->error.empty())
        return {.text = answer == nullptr ? "no answer" : printable(answer->error)};
    const NodeEntry *there = nullptr, *refused = nullptr;
    for (const NodeEntry &one : answer->entries)
        if (one.key == key)
            (one.status == 0 ? there : refused) = &one;
    Standing standing{.known = true, .programmed = there != nullptr, .text = "not programmed"};
    if (there != nullptr)
        standing.text = there->fingerprint == fingerprint ? "programmed" : "programmed as it was before";
    if (refused != nullptr)
        standing.text += ": " + std::string(status_text(refused->status)) + " (" + std::to_string(refused->status) +
                         ')' + (refused->text.empty() ? "" : ": " + printable(refused->text));
    return standing;
}

} // namespace

int ask_standings(Questions &questions, const Key &key, const Requested &wanted, const std::set<NodeName> &nodes,
                  Standings &standings)
{
    const uint64_t number = digest_of(key);
    const std::array<uint32_t, 1> part{static_cast<uint32_t>(part_of(number))};
    Questions::Answers answers;
    const int result = questions.ask(application_of(key), nodes, part, longest_answer, answers);
    for (const NodeName &name : nodes) {
        const auto answer = answers.find(name);
        standings[name] =
            standing_of(answer == answers.end() ? nullptr : &answer->second, number, wanted.fingerprint());
    }
    return result;
}

} // namespace plx::tool
