// See outbox.hpp.
#include "plane/outbox.hpp"

#include <algorithm>
#include <tq_mom.h>
#include <utility>

namespace plx::plane {

namespace {

// Bounds, so that a node with a million entries still shows that it lives.
constexpr size_t replies_per_batch = 1000;
constexpr size_t answers_at_once = 16; // taken before more is sent: all of them would hold up what comes next
constexpr milliseconds answer_pause{20};

} // namespace

Outbox::Outbox(tq_context *context, uint32_t db, std::string name, milliseconds retry, Current current)
    : context_(context), db_(db), name_(std::move(name)), retry_(retry), current_(std::move(current)),
      send_timer_(context->master, [this] { send(); }), answer_timer_(context->master, [this] { take_answers(); })
{
}

void Outbox::answer(const Key &key, uint64_t request, Status status, milliseconds delay, uint64_t heard)
{
    Reply reply{key, tables()[key.index()].status, Verdict{request, status, heard}};
    if (delay.count() == 0)
        due_.push_back(std::move(reply));
    else
        later_.emplace(now() + delay, std::move(reply));
}

void Outbox::remove(const Key &key)
{
    remove(key, *tables()[key.index()].status);
}

void Outbox::remove(const Key &key, const ProtobufCMessageDescriptor &table)
{
    due_.push_back({key, &table, std::nullopt});
}

void Outbox::take_due()
{
    for (const milliseconds time = later_.empty() ? milliseconds(0) : now();
         !later_.empty() && later_.begin()->first <= time; later_.erase(later_.begin()))
        due_.push_back(std::move(later_.begin()->second));
}

void Outbox::send()
{
    if (sent_.size() >= answers_at_once)
        take_answers();
    if (!std::exchange(batching_, true))
        tq_mom_batch_begin(context_);
    take_due();
    const size_t first = sent_.size();
    while (!due_.empty() && sent_.size() < replies_per_batch) {
        Reply &reply = due_.front();
        const int result = send(reply);
        if (result != 0 && result != TQ_MOM_INVALID) {
            not_before_ = now() + retry_;
            break;
        }
        if (result == 0)
            sent_.push_back(std::move(reply));
        due_.pop_front();
    }
    tq_mom_batch_send(context_);
    const uint64_t time = now_us();
    for (size_t i = first; i < sent_.size(); ++i)
        if (sent_[i].verdict)
            sent_[i].verdict->sent = time;
    if (sent_.size() >= replies_per_batch)
        take_answers();
    else
        answer_timer_.start_unless_pending(answer_pause);
    schedule();
}

// Whoever asks for it: behind a failure not before its pause is over.
void Outbox::schedule()
{
    const milliseconds pause = std::max(not_before_ - now(), milliseconds(0));
    if (!due_.empty())
        send_timer_.start(pause);
    else if (!later_.empty())
        send_timer_.start(std::max(pause, later_.begin()->first - now()));
}

// An answer that the store did not take comes again later, behind the others. A removal does not: the entry may have
// been made anew by then.
void Outbox::take_answers()
{
    if (!std::exchange(batching_, false))
        return;
    std::vector<int> results(sent_.size());
    tq_mom_batch_end(context_, results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent_.size(); ++i) {
        if (!sent_[i].verdict)
            continue;
        const Verdict &verdict = *sent_[i].verdict;
        if (results[i] == 0) {
            numbers_.add(verdict.status, verdict.sent - verdict.heard);
        } else {
            ++numbers_.failed;
            later_.emplace(now() + retry_, std::move(sent_[i]));
        }
    }
    sent_.clear();
    schedule();
}

int Outbox::send(const Reply &reply)
{
    const bool outdated = reply.verdict && !current_(reply.key, reply.verdict->request);
    return outdated ? TQ_MOM_INVALID : write(reply);
}

// Every node writes its own answer, also when the record says the same already: applications count the changes.
int Outbox::write(const Reply &reply)
{
    Record record(*reply.table, reply.key);
    if (!reply.verdict)
        return tq_mom_del_sync(context_, db_, record.message());
    record.set_number("p_status", static_cast<uint32_t>(reply.verdict->status));
    record.set_number("rep_uuid", reply.verdict->request);
    record.add_text(FP_UDP_NODE_NAME_FIELD, name_);
    return tq_mom_set_sync(context_, db_, record.message());
}

} // namespace plx::plane
