// See redis_batch.hpp.
#include "redis_batch.hpp"

#include <algorithm>
#include <numeric>
#include <tq_mom.h>

namespace mom {

command_buffer &command_batch::next()
{
    starts_.push_back(commands_.bytes().size());
    return commands_;
}

std::string_view command_batch::command(size_t index) const
{
    const auto bytes = commands_.bytes();
    const size_t end = index + 1 < starts_.size() ? starts_[index + 1] : bytes.size();
    return bytes.substr(starts_[index], end - starts_[index]);
}

// One exchange of some of the commands. Returns those whose script the server did not know.
command_batch::places command_batch::exchange(redis_link &link, const places &which, int *results) const
{
    command_buffer commands;
    for (const size_t place : which)
        commands.append_built(command(place));
    const int exchanged = link.exchange(commands);
    if (exchanged != TQ_MOM_OK) {
        for (const size_t place : which)
            results[place] = exchanged;
        return {};
    }
    reply_tape answers;
    link.take_replies(answers); // judging one may drop the connection, and its tape with it
    places unknown;
    reply_view reply(answers, 0);
    for (const size_t place : which) {
        results[place] = link.judge(reply);
        if (reply.is(reply_kind::error) && reply.text().starts_with("NOSCRIPT"))
            unknown.push_back(place);
        reply = reply.next();
    }
    return unknown;
}

bool command_batch::send(redis_link &link, redis_scripts &scripts, std::vector<int> &results)
{
    const size_t before = results.size();
    results.resize(before + starts_.size());
    int *const own = results.data() + before;
    places which(starts_.size());
    std::iota(which.begin(), which.end(), 0U);
    which = exchange(link, which, own);
    if (!which.empty() && scripts.write.load(link) == TQ_MOM_OK && scripts.remove.load(link) == TQ_MOM_OK)
        exchange(link, which, own);
    commands_.clear();
    starts_.clear();
    return std::all_of(own, results.data() + results.size(), [](int result) { return result == TQ_MOM_OK; });
}

} // namespace mom
