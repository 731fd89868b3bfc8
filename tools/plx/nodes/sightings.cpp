// See sightings.hpp.
#include "nodes/sightings.hpp"

#include "display.hpp"
#include "records/status.hpp"
#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_loop.h>

namespace plx::tool {

namespace {

std::string seconds(milliseconds time)
{
    const auto tenths = time.count() / 100;
    return time < std::chrono::seconds(10) ? std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10) + " s"
                                           : std::to_string(tenths / 10) + " s";
}

Row json_of(const NodeEntry &entry)
{
    Row row = {{"app", entry.app}, {"name", entry.name}, {"request", entry.request}, {"status", entry.status}};
    row["outcome"] = status_text(entry.status);
    if (!entry.text.empty())
        row["text"] = entry.text;
    return row;
}

} // namespace

int call_nodes(tq_context *context, uint32_t db)
{
    Record call(plx_node__node_call__descriptor);
    call.set_number("number", now_us());
    return tq_mom_set_sync(context, db, call.message());
}

int Sightings::start()
{
    const Record signs(s_policy__service_node__descriptor);
    return tq_mom_subscribe(context_, db_, signs.message(), 0, &Sightings::on_sign, this);
}

int Sightings::look(milliseconds longest)
{
    nodes_.clear();
    const Record signs(s_policy__service_node__descriptor);
    if (const int result = tq_mom_scan_sync(context_, db_, signs.message(), 0, &Sightings::on_node, this); result != 0)
        return result;
    const int result = call_nodes(context_, db_);
    if (result != 0 && result != TQ_MOM_DENIED)
        return result;
    called_ = result == 0;
    const auto missing = [](const auto &node) { return node.second.recorded && !node.second.heard; };
    for (const milliseconds end = now() + longest; called_ && now() < end && std::ranges::any_of(nodes_, missing);)
        tq_loop_run_once(context_->master, static_cast<int>((end - now()).count()));
    std::map<NodeName, NodeReport> reports;
    const int read = read_reports(context_, db_, reports);
    const uint64_t time = wall_clock_ms();
    for (auto &[name, report] : reports) {
        nodes_[name].age = milliseconds(time - std::min(time, report.time_ms));
        nodes_[name].report = std::move(report);
    }
    return read;
}

std::string_view Sightings::state(const Sighting &node) const
{
    if (node.heard)
        return "alive";
    if (!node.recorded || !node.age || *node.age > counted_out)
        return "silent";
    return called_ ? "late" : "alive";
}

int32_t Sightings::on_node(void *, const tq_mom_notification *notification, void *arg)
{
    if (const auto name = node_of(notification->record))
        static_cast<Sightings *>(arg)->nodes_[*name].recorded = true;
    return 0;
}

int32_t Sightings::on_sign(void *, const tq_mom_notification *notification, void *arg)
{
    const auto name = node_of(notification->record);
    if (!name || notification->event != TQ_MOM_EVENT_PUBLISHED)
        return 0;
    Sighting &node = static_cast<Sightings *>(arg)->nodes_[*name];
    node.recorded = node.heard = true;
    return 0;
}

Row row_of(const NodeName &name, const Sighting &node, std::string_view state, const std::string *app)
{
    Row row = {{"NODE", text_of(name)}, {"STATE", state}};
    if (!node.report)
        return row;
    const NodeReport &report = *node.report;
    row["AGE"] = seconds(*node.age);
    row["PLANE"] = report.plane;
    row["ENTRIES"] = std::to_string(report.entries) + " of " + std::to_string(report.room);
    const auto own = app == nullptr ? report.applications.end() : report.applications.find(*app);
    row["PROGRAMMED"] = own == report.applications.end() ? report.programmed : own->second.programmed.count;
    row["REFUSED"] = own == report.applications.end() ? report.refused : own->second.refused;
    row["BACKLOG"] = report.backlog;
    if (!report.ports.empty())
        row["PORTS"] = report.ports.size();
    return row;
}

Row json_of(const NodeName &name, const Sighting &node, std::string_view state)
{
    Row row = {{"node", text_of(name)}, {"dev", name.dev}, {"slot", name.slot}, {"id", name.id}, {"state", state}};
    if (!node.report)
        return row;
    const NodeReport &report = *node.report;
    row["age_ms"] = node.age->count();
    row["plane"] = report.plane;
    row["started_ms"] = report.started_ms;
    row["heartbeat_ms"] = report.heartbeat_ms;
    row["entries"] = report.entries;
    row["room"] = report.room;
    row["programmed"] = report.programmed;
    row["refused"] = report.refused;
    row["backlog"] = report.backlog;
    row["last_request"] = report.last_request;
    row["ports"] = report.ports;
    row["applications"] = Row::array();
    for (const auto &[app, one] : report.applications)
        row["applications"].push_back({{"app", app}, {"programmed", one.programmed.count}, {"refused", one.refused}});
    row["refusals"] = Row::array();
    for (const NodeEntry &refusal : report.refusals)
        row["refusals"].push_back(json_of(refusal));
    return row;
}

} // namespace plx::tool
