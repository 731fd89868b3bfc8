// See redis_calls.hpp.
#include "redis_calls.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

namespace mom {

redis_calls::redis_calls(const store_url &url, tq_mom_counters &counters)
    : counters_(counters), link_(url, counters), writer_{random_name(), url.log_limit.value_or(usual_log_limit),
                                                         std::to_string(url.log_memory.value_or(usual_log_memory))}
{
}

int redis_calls::ready()
{
    ++count_;
    if (ahead_ != nullptr)
        std::ignore = take_ahead(*ahead_); // it keeps its result
    const int result = link_.ensure();
    if (result == TQ_MOM_OK && std::exchange(generation_, link_.generation()) != link_.generation())
        ++era_;
    return result;
}

int redis_calls::ask(const builder &build)
{
    const int result = ready();
    if (result != TQ_MOM_OK)
        return result;
    flush();
    commands_.clear();
    build(commands_);
    return link_.exchange(commands_);
}

int redis_calls::ask_ahead(question_ahead &question, const builder &build)
{
    question.result = ready();
    if (question.result != TQ_MOM_OK)
        return question.result;
    flush();
    commands_.clear();
    build(commands_);
    question.limit = commands_.answer_limit();
    question.result = link_.send(commands_.bytes(), commands_.commands());
    if (question.result == TQ_MOM_OK)
        ahead_ = &question;
    else
        link_.drop();
    return question.result;
}

int redis_calls::take_ahead(question_ahead &question)
{
    if (ahead_ != &question)
        return question.result;
    size_t complete = 0;
    ahead_ = nullptr;
    question.result = link_.receive(question.answers, complete, {}, question.limit);
    return question.result;
}

void redis_calls::forget_ahead(const question_ahead &question)
{
    if (ahead_ != &question)
        return;
    ahead_ = nullptr;
    link_.drop();
}

int redis_calls::run(redis_script &script, const builder &build)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        int result = ready();
        if (result == TQ_MOM_OK && script.digest().empty())
            result = script.load(link_);
        if (result == TQ_MOM_OK)
            result = ask(build);
        if (result != TQ_MOM_OK)
            return result;
        const auto reply = link_.replies();
        if (!reply.is(reply_kind::error) || !reply.text().starts_with("NOSCRIPT"))
            return link_.judge(reply);
        script.forget();
    }
    return TQ_MOM_STORE_ERROR;
}

int redis_calls::load(redis_script &script)
{
    const int result = ready();
    if (result != TQ_MOM_OK)
        return result;
    flush();
    return script.load(link_);
}

int redis_calls::ready_to_collect()
{
    int result = ready();
    for (auto *script : {&scripts_.replace, &scripts_.merge, &scripts_.stamp, &scripts_.remove, &scripts_.trim})
        if (result == TQ_MOM_OK && script->digest().empty())
            result = load(*script);
    return result;
}

void redis_calls::give_up()
{
    link_.drop();
    batch_.forget();
    ++era_;
    spoilt_ = true;
}

void redis_calls::send()
{
    bool sent = true;
    collect([&](command_batch &batch) { sent = batch.send(link_); });
    if (!sent)
        flush();
}

// What the server has is not a success before enough replicas have it, too.
void redis_calls::confirm(std::span<int> results)
{
    const bool any = std::find(results.begin(), results.end(), TQ_MOM_OK) != results.end();
    if (const int confirmed = any ? link_.await_replicas() : TQ_MOM_OK; confirmed != TQ_MOM_OK)
        std::replace(results.begin(), results.end(), int{TQ_MOM_OK}, confirmed);
}

void redis_calls::flush(const ride &along)
{
    bool as_meant = true;
    const size_t before = results_.size();
    collect([&](command_batch &batch) { as_meant = batch.empty() || batch.finish(link_, results_, along); });
    if (link_.wants_replicas())
        confirm(std::span(results_).subspan(before));
    if (!as_meant)
        ++era_; // the metadata may have changed, or be gone: have the next write look
}

} // namespace mom
