// See questions.hpp.
#include "nodes/questions.hpp"

#include <algorithm>
#include <plx/plx_node.pb-c.h>
#include <random>
#include <tq_loop.h>
#include <utility>

namespace plx::tool {

namespace {

constexpr uint32_t most_records = 32; // of an answer

} // namespace

int Questions::start()
{
    const Record answers(plx_node__node_answer__descriptor);
    return tq_mom_subscribe(context_, db_, answers.message(), 0, &Questions::on_answer, this);
}

int Questions::write(const std::string &node, const std::string &app, std::span<const uint32_t> parts, bool trial)
{
    std::random_device random;
    nonce_ = uint64_t{random()} << 32U | random();
    answers_.clear();
    std::vector<uint32_t> wanted(parts.begin(), parts.end());
    std::string name = node, application = app;
    PlxNode__NodeQuery query = PLX_NODE__NODE_QUERY__INIT;
    query.nonce = nonce_;
    query.node = name.data();
    query.app = application.data();
    query.parts = wanted.data();
    query.n_parts = wanted.size();
    query.trial = trial ? 1 : 0;
    return tq_mom_set_sync(context_, db_, &query.base);
}

int Questions::put_trial(const std::string &app)
{
    return write("", app, {}, true);
}

bool Questions::answered(const std::set<NodeName> &nodes) const
{
    return std::ranges::all_of(nodes, [this](const NodeName &name) {
        const auto answer = answers_.find(name);
        return answer != answers_.end() && answer->second.whole();
    });
}

Questions::Answers Questions::take()
{
    std::erase_if(answers_, [](const auto &answer) { return !answer.second.whole(); });
    return std::exchange(answers_, {});
}

int Questions::ask(const std::string &app, const std::set<NodeName> &nodes, std::span<const uint32_t> parts,
                   milliseconds longest, Answers &answers)
{
    const std::string node = nodes.size() == 1 ? text_of(*nodes.begin()) : "";
    if (const int result = write(node, app, parts, false); result != 0)
        return result;
    for (const milliseconds end = now() + longest; now() < end && !answered(nodes);)
        tq_loop_run_once(context_->master, static_cast<int>((end - now()).count()));
    answers = take();
    return 0;
}

int32_t Questions::on_answer(void *, const tq_mom_notification *notification, void *arg)
{
    auto *self = static_cast<Questions *>(arg);
    if (notification->event != TQ_MOM_EVENT_PUBLISHED || notification->result != 0 || notification->record == nullptr)
        return 0;
    const auto &told = *reinterpret_cast<const PlxNode__NodeAnswer *>(notification->record);
    const auto name =
        told.index == nullptr ? std::nullopt : node_name(told.index->node == nullptr ? "" : told.index->node);
    if (!name || told.index->nonce != self->nonce_ || told.records == 0 || told.records > most_records ||
        told.index->number >= told.records)
        return 0;
    Record record(plx_node__node_answer__descriptor);
    record.set_key_number(0, told.index->nonce);
    record.set_key_text(1, told.index->node);
    record.set_key_number(2, told.index->number);
    tq_mom_del_sync(self->context_, self->db_, record.message());
    Answer &answer = self->answers_[*name];
    answer.expected = told.records;
    if (!answer.records.insert(told.index->number).second)
        return 0;
    answer.error += bounded_text(told.error);
    answer.tried = answer.tried || told.tried != 0;
    for (size_t part = 0; part < std::min(told.n_sums, answer.sums.size()); ++part)
        answer.sums[part] = {told.sums[part]->count, told.sums[part]->digest_lo, told.sums[part]->digest_hi};
    for (size_t i = 0; i < told.n_entries; ++i)
        answer.entries.push_back(entry_of(*told.entries[i]));
    return 0;
}

} // namespace plx::tool
