// See redis_batch.hpp.
#include "redis_batch.hpp"

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

// One exchange; `again` receives the commands whose script the server did not know.
int command_batch::exchange(redis_link &link, command_buffer &again)
{
    const int exchanged = link.exchange(commands_);
    if (exchanged != TQ_MOM_OK)
        return exchanged;
    reply_tape answers;
    link.take_replies(answers);
    int first = TQ_MOM_OK;
    reply_view reply(answers, 0);
    for (size_t i = 0; i < starts_.size(); ++i, reply = reply.next()) {
        if (reply.is(reply_kind::error) && reply.text().starts_with("NOSCRIPT")) {
            again.append_built(command(i));
            continue;
        }
        const int result = link.judge(reply);
        first = first == TQ_MOM_OK ? result : first;
    }
    return first;
}

int command_batch::send(redis_link &link, redis_scripts &scripts)
{
    command_buffer again;
    int first = starts_.empty() ? TQ_MOM_OK : exchange(link, again);
    commands_.clear();
    starts_.clear();
    if (again.commands() == 0)
        return first;
    for (auto *script : {&scripts.write, &scripts.remove})
        if (const int loaded = script->load(link); loaded != TQ_MOM_OK)
            return loaded;
    const int exchanged = link.exchange(again);
    if (exchanged != TQ_MOM_OK)
        return exchanged;
    reply_tape answers;
    link.take_replies(answers); // judging one may drop the connection, and its tape with it
    for (reply_view reply(answers, 0); first == TQ_MOM_OK && !reply.at_end(); reply = reply.next())
        first = link.judge(reply);
    return first;
}

} // namespace mom
