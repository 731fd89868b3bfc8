// See inquiries.hpp.
#include "plane/inquiries.hpp"

#include "plane/messages.hpp"
#include <algorithm>
#include <cstring>
#include <plx/types.h>

namespace plx::plane {

namespace {

constexpr size_t most_questions = 16; // that wait: further ones are not heard
constexpr size_t most_parts = 8;
constexpr size_t entries_in_record = 2048;
constexpr size_t most_entries = 32 * entries_in_record; // of an answer
constexpr milliseconds kept{60000};
constexpr milliseconds pause_after_failure{1000};

bool is(const char *text, const std::string &wanted)
{
    return text != nullptr && wanted == text;
}

} // namespace

// One of the answer's records.
struct Inquiries::Answer {
    PlxNode__NodeAnswer record = PLX_NODE__NODE_ANSWER__INIT;
    Repeated<PlxNode__NodeSum> sums{plx_node__node_sum__init};
    Repeated<PlxNode__NodeEntry> entries{plx_node__node_entry__init};
    Texts texts;

    void add(const PartDigests &parts)
    {
        for (const Digest &part : parts) {
            PlxNode__NodeSum &sum = sums.add();
            sum.count = part.count;
            sum.digest_lo = part.lo;
            sum.digest_hi = part.hi;
        }
    }

    void add(const Key &key, const Standing &standing)
    {
        PlxNode__NodeEntry &entry = add_entry(entries, texts, key);
        entry.fingerprint = standing.fingerprint;
        entry.request = standing.request;
        entry.status = static_cast<int32_t>(standing.status);
    }
};

// All of them: those that are bounded by their number are added here.
struct Inquiries::Answers {
    std::deque<Answer> records{1};
    size_t entries = 0;

    void add(const Key &key, const Standing &standing)
    {
        if (entries == most_entries)
            return;
        if (++entries > records.size() * entries_in_record)
            records.emplace_back();
        records.back().add(key, standing);
    }
};

Inquiries::Inquiries(tq_context *context, uint32_t db, std::string node, Plane &plane, Refused refused, Trial trial,
                     std::function<void()> before_writing)
    : context_(context), db_(db), node_(std::move(node)), plane_(plane), refused_(std::move(refused)),
      trial_(std::move(trial)), before_writing_(std::move(before_writing)),
      answer_timer_(context->master, [this] { answer(); }), forget_timer_(context->master, [this] { forget(); })
{
}

int Inquiries::start()
{
    const Record questions(plx_node__node_query__descriptor), answers(plx_node__node_answer__descriptor);
    tq_mom_scan_sync(context_, db_, answers.message(), 0, &Inquiries::on_old_answer, this);
    forget();
    return tq_mom_subscribe(context_, db_, questions.message(), 0, &Inquiries::on_question, this);
}

int32_t Inquiries::on_old_answer(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Inquiries *>(arg);
    if (notification->result != 0 || notification->record == nullptr)
        return 0;
    const auto *index = reinterpret_cast<const PlxNode__NodeAnswer *>(notification->record)->index;
    if (index != nullptr && is(index->node, self->node_))
        self->answered_.push_back({index->nonce, index->number, milliseconds(0)});
    return 0;
}

int32_t Inquiries::on_question(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Inquiries *>(arg);
    if (notification->event != TQ_MOM_EVENT_PUBLISHED || notification->result != 0 || notification->record == nullptr)
        return 0;
    const auto &asked = *reinterpret_cast<const PlxNode__NodeQuery *>(notification->record);
    const bool everybody = asked.node == nullptr || asked.node[0] == '\0';
    const size_t length = asked.app == nullptr ? 0 : strnlen(asked.app, FP_UDP_APP_TYPE_SIZE);
    if ((!everybody && !is(asked.node, self->node_)) || length == FP_UDP_APP_TYPE_SIZE ||
        self->questions_.size() == most_questions)
        return 0;
    Question &question = self->questions_.emplace_back();
    question.nonce = asked.nonce;
    question.app.assign(asked.app == nullptr ? "" : asked.app, length);
    for (size_t i = 0; i < std::min(asked.n_parts, most_parts); ++i)
        question.parts.insert(asked.parts[i]);
    question.trial = asked.trial != 0;
    question.heard = now();
    self->answer_timer_.start_unless_pending(milliseconds(0));
    return 0;
}

// One in a turn of the loop: reading a plane takes its time.
void Inquiries::answer()
{
    if (questions_.empty())
        return;
    const Question question = std::move(questions_.front());
    questions_.pop_front();
    Answers answers;
    if (question.trial)
        try_out(question, answers);
    else
        read(question, answers);
    before_writing_();
    const auto count = static_cast<uint32_t>(answers.records.size());
    bool sent = true;
    for (uint32_t number = 0; number < count && sent; ++number)
        sent = send(answers.records[number], question.nonce, number, count);
    if (!sent && now() < question.heard + kept) {
        questions_.push_front(question);
        answer_timer_.start(pause_after_failure);
    } else if (!questions_.empty()) {
        answer_timer_.start(milliseconds(0));
    }
}

void Inquiries::try_out(const Question &question, Answers &answers)
{
    Answer &first = answers.records.front();
    first.record.tried = 1;
    const auto refused = trial_(question.app);
    if (!refused)
        first.record.error = first.texts.keep("the store cannot be read");
    for (const auto &[key, standing] : refused.value_or(std::vector<std::pair<Key, Standing>>()))
        answers.add(key, standing);
}

void Inquiries::read(const Question &question, Answers &answers)
{
    const auto there = plane_.read_back(question.app);
    Answer &first = answers.records.front();
    if (!there)
        first.record.error = first.texts.keep("the plane cannot be read");
    const auto add = [&](const Key &key, const Standing &standing) {
        if (question.parts.contains(static_cast<uint32_t>(part_of(digest_of(key)))))
            answers.add(key, standing);
    };
    PartDigests parts;
    for (const auto &[key, programmed] : there.value_or(std::vector<std::pair<Key, Installed>>())) {
        const uint64_t digest = digest_of(key);
        parts[part_of(digest)].add(digest, programmed.fingerprint);
        add(key, {Status::ok, programmed.fingerprint, programmed.request});
    }
    if (question.parts.empty())
        first.add(parts);
    else
        for (const auto &[key, standing] : refused_(question.app))
            add(key, standing);
}

bool Inquiries::send(Answer &answer, uint64_t nonce, uint32_t number, uint32_t records)
{
    PlxNode__NodeAnswerIndex index = PLX_NODE__NODE_ANSWER_INDEX__INIT;
    index.nonce = nonce;
    index.node = node_.data();
    index.number = number;
    answer.record.index = &index;
    answer.record.records = records;
    answer.sums.put(answer.record.n_sums, answer.record.sums);
    answer.entries.put(answer.record.n_entries, answer.record.entries);
    const bool sent = tq_mom_set_sync(context_, db_, &answer.record.base) == 0;
    if (sent)
        answered_.push_back({nonce, number, now() + kept});
    forget_timer_.start_unless_pending(kept);
    return sent;
}

void Inquiries::remove(uint64_t nonce, uint32_t number)
{
    Record record(plx_node__node_answer__descriptor);
    record.set_key_number(0, nonce);
    record.set_key_text(1, node_.c_str());
    record.set_key_number(2, number);
    tq_mom_del_sync(context_, db_, record.message());
}

void Inquiries::forget()
{
    before_writing_();
    for (; !answered_.empty() && answered_.front().until <= now(); answered_.pop_front())
        remove(answered_.front().nonce, answered_.front().number);
    if (!answered_.empty())
        forget_timer_.start(answered_.front().until - now());
}

} // namespace plx::plane
