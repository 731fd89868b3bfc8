// See node_watch.hpp.
#include "node_watch.hpp"

#include "nodes/sightings.hpp"
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <plx/status.h>

namespace plx::tool {

namespace {

constexpr size_t most_applications = 256; // that a report has
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

NodeWatch::NodeWatch(tq_context *context, uint32_t db, std::string app, OnAnswer on_answer)
    : context_(context), db_(db), app_(std::move(app)), on_answer_(std::move(on_answer))
{
}

// The table of publications comes first: answers are then told behind the signs of life before them.
int NodeWatch::start()
{
    const Record nodes(s_policy__service_node__descriptor), reports(plx_node__node_report__descriptor);
    int result = tq_mom_subscribe(context_, db_, nodes.message(), 0, &NodeWatch::on_node, this);
    if (result == 0)
        result = tq_mom_scan_sync(context_, db_, nodes.message(), 0, &NodeWatch::on_recorded, this);
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

int32_t NodeWatch::on_recorded(void *, const tq_mom_notification *entry, void *arg)
{
    auto *self = static_cast<NodeWatch *>(arg);
    if (const auto name = node_of(entry->record)) {
        self->nodes_[*name].recorded = true;
        ++self->recorded_;
    }
    return 0;
}

int32_t NodeWatch::on_node(void *, const tq_mom_notification *change, void *arg)
{
    auto *self = static_cast<NodeWatch *>(arg);
    const auto name = node_of(change->record);
    if (!name || change->result != 0)
        return 0;
    Node &node = self->nodes_[*name];
    node.left = change->event == TQ_MOM_EVENT_DELETED;
    if (!node.left)
        node.seen = now();
    return 0;
}

int32_t NodeWatch::on_report(void *, const tq_mom_notification *change, void *arg)
{
    auto *self = static_cast<NodeWatch *>(arg);
    const auto name = node_of(change->record);
    const auto report = change->result == 0 && name ? report_of(change->record) : std::nullopt;
    if (!report || change->event == TQ_MOM_EVENT_DELETED)
        return 0;
    const auto told = report->applications.find(self->app_);
    if (told == report->applications.end() && report->applications.size() >= most_applications)
        return 0;
    const Digest has = told == report->applications.end() ? Digest() : told->second.programmed;
    std::optional<Digest> &known = self->nodes_[*name].has;
    if (known != has)
        self->last_change_ = now();
    known = has;
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
    return !node.left && node.seen != milliseconds(0) && now() - node.seen < counted_out;
}

template <typename Which> NodeWatch::Names NodeWatch::names(Which &&which) const
{
    Names found;
    for (const auto &[name, node] : nodes_)
        if (which(node))
            found.push_back(text_of(name));
    return found;
}

NodeWatch::Names NodeWatch::alive() const
{
    return names(&NodeWatch::lives);
}

NodeWatch::Names NodeWatch::silent() const
{
    return names([](const Node &node) { return node.recorded && !node.left && node.seen == milliseconds(0); });
}

NodeWatch::Names NodeWatch::vanished() const
{
    return names([](const Node &node) {
        return (node.recorded || node.seen != milliseconds(0)) && !lives(node) &&
               (node.left || node.seen != milliseconds(0));
    });
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
