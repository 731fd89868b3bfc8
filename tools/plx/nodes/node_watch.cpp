// See node_watch.hpp.
#include "nodes/node_watch.hpp"

#include "output.hpp"
#include "records/record.hpp"
#include <algorithm>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <plx/status.h>
#include <tq_loop.h>
#include <utility>

namespace plx::tool {

namespace {

constexpr size_t most_listed = 8;

// The field's bytes are a length and the text.
std::string name_in(const ProtobufCMessage *record)
{
    for (unsigned i = 0; i < record->n_unknown_fields; ++i) {
        const ProtobufCMessageUnknownField &field = record->unknown_fields[i];
        if (field.tag == FP_UDP_NODE_NAME_FIELD && field.len > 1 && field.data[0] == field.len - 1)
            return {reinterpret_cast<const char *>(field.data) + 1, field.len - 1};
    }
    return {};
}

} // namespace

int call_nodes(tq_context *context, uint32_t db)
{
    Record call(plx_node__node_call__descriptor);
    call.set_number("number", now_us());
    return tq_mom_set_sync(context, db, call.message());
}

int read_nodes(tq_context *context, uint32_t db, std::set<NodeName> &nodes)
{
    const auto take = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        if (const auto name = node_of(found->record))
            static_cast<std::set<NodeName> *>(arg)->insert(*name);
        return 0;
    };
    const Record whole(s_policy__service_node__descriptor);
    return tq_mom_scan_sync(context, db, whole.message(), 0, take, &nodes);
}

int NodeWatch::start()
{
    const Record signs(s_policy__service_node__descriptor);
    return tq_mom_subscribe(context_, db_, signs.message(), 0, &NodeWatch::on_node, this);
}

NodeWatch::Node *NodeWatch::known(const NodeName &name)
{
    if (nodes_.size() < most_nodes || nodes_.contains(name))
        return &nodes_[name];
    if (!std::exchange(told_, true))
        output().note("more than " + std::to_string(most_nodes) +
                      " service nodes show themselves: others do not count");
    return nullptr;
}

int NodeWatch::read_recorded()
{
    std::set<NodeName> names;
    const int result = read_nodes(context_, db_, names);
    for (const NodeName &name : names)
        if (Node *node = known(name))
            node->recorded = true;
    return result;
}

// The table of publications comes first: answers are then told behind the signs of life before them.
int NodeWatch::follow(std::string app, OnAnswer on_answer)
{
    app_ = std::move(app);
    on_answer_ = std::move(on_answer);
    int result = start();
    result = result != 0 ? result : read_recorded();
    const Record reports(plx_node__node_report__descriptor);
    if (result == 0)
        result = tq_mom_subscribe(context_, db_, reports.message(), 0, &NodeWatch::on_report, this);
    if (result == 0)
        result = tq_mom_scan_sync(context_, db_, reports.message(), 0, &NodeWatch::on_report, this);
    for (const auto *table : {&s_policy__ace_psta__descriptor, &s_policy__apply_psta__descriptor}) {
        Record statuses(*table);
        statuses.set_key_text(0, app_.c_str());
        if (result == 0)
            result = tq_mom_subscribe(context_, db_, statuses.message(), 1, &NodeWatch::on_status, this);
    }
    return result;
}

int NodeWatch::look(milliseconds longest)
{
    nodes_.clear();
    int result = read_recorded();
    if (result != 0)
        return result;
    result = call_nodes(context_, db_);
    if (result != 0 && result != TQ_MOM_DENIED)
        return result;
    called_ = result == 0;
    const auto missing = [](const auto &node) { return node.second.recorded && !heard(node.second); };
    for (const milliseconds end = now() + longest; called_ && now() < end && std::ranges::any_of(nodes_, missing);)
        tq_loop_run_once(context_->master, static_cast<int>((end - now()).count()));
    std::map<NodeName, NodeReport> reports;
    result = read_reports(context_, db_, reports);
    const uint64_t time = wall_clock_ms();
    for (auto &[name, report] : reports) {
        Node *node = known(name);
        if (node == nullptr)
            continue;
        node->age = milliseconds(time - std::min(time, report.time_ms));
        node->report = std::move(report);
    }
    return result;
}

std::string_view NodeWatch::state(const Node &node) const
{
    if (heard(node))
        return "alive";
    if (!node.recorded || !node.age || *node.age > counted_out)
        return "silent";
    return called_ ? "late" : "alive";
}

int32_t NodeWatch::on_node(void *, const tq_mom_notification *change, void *arg)
{
    auto *self = static_cast<NodeWatch *>(arg);
    const auto name = node_of(change->record);
    const bool gone = change->event == TQ_MOM_EVENT_DELETED;
    if (!name || change->result != 0 || (gone && !self->nodes_.contains(*name)))
        return 0;
    Node *node = self->known(*name);
    if (node == nullptr)
        return 0;
    node->left = gone;
    if (!gone)
        node->seen = now();
    return 0;
}

int32_t NodeWatch::on_report(void *, const tq_mom_notification *change, void *arg)
{
    auto *self = static_cast<NodeWatch *>(arg);
    const auto name = node_of(change->record);
    const auto report = change->result == 0 && name ? report_of(change->record) : std::nullopt;
    if (!report || change->event == TQ_MOM_EVENT_DELETED)
        return 0;
    const auto has = report->programmed_of(self->app_);
    Node *node = has ? self->known(*name) : nullptr;
    if (node == nullptr)
        return 0;
    if (node->has != has)
        self->last_change_ = now();
    node->has = has;
    return 0;
}

int32_t NodeWatch::on_status(void *, const tq_mom_notification *change, void *arg)
{
    if (change->event == TQ_MOM_EVENT_STATUS && change->result == 0 && change->record != nullptr)
        static_cast<NodeWatch *>(arg)->on_answer_(change->record, name_in(change->record));
    return 0;
}

bool NodeWatch::lives(const Node &node)
{
    return !node.left && heard(node) && now() - node.seen < counted_out;
}

template <typename Which> NodeWatch::Names NodeWatch::names(Which &&which) const
{
    Names found;
    for (const auto &[name, node] : nodes_)
        if (which(node))
            found.push_back(text_of(name));
    return found;
}

size_t NodeWatch::recorded() const
{
    return static_cast<size_t>(std::ranges::count_if(nodes_, [](const auto &each) { return each.second.recorded; }));
}

NodeWatch::Names NodeWatch::alive() const
{
    return names(&NodeWatch::lives);
}

std::set<NodeName> NodeWatch::living() const
{
    std::set<NodeName> found;
    for (const auto &[name, node] : nodes_)
        if (lives(node))
            found.insert(name);
    return found;
}

NodeWatch::Names NodeWatch::silent() const
{
    return names([](const Node &node) { return node.recorded && !node.left && !heard(node); });
}

NodeWatch::Names NodeWatch::vanished() const
{
    return names(
        [](const Node &node) { return (node.recorded || heard(node)) && !lives(node) && (node.left || heard(node)); });
}

NodeWatch::Names NodeWatch::without(const Digest &wanted) const
{
    return names([&](const Node &node) { return lives(node) && node.has && *node.has != wanted; });
}

std::pair<std::string, uint64_t> NodeWatch::slowest() const
{
    std::pair<std::string, uint64_t> least{"", UINT64_MAX};
    for (const auto &[name, node] : nodes_)
        if (lives(node) && node.has && node.has->count < least.second)
            least = {text_of(name), node.has->count};
    return least;
}

std::string listed(const NodeWatch::Names &names)
{
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), most_listed); ++i)
        text += (i == 0 ? "" : ", ") + names[i];
    return names.size() <= most_listed ? text : text + " and " + std::to_string(names.size() - most_listed) + " more";
}

} // namespace plx::tool
