// See node_rows.hpp.
#include "nodes/node_rows.hpp"

#include "display.hpp"
#include "records/status.hpp"

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

Row row_of(const NodeName &name, const NodeWatch::Node &node, std::string_view state, const std::string *app)
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

Row json_of(const NodeName &name, const NodeWatch::Node &node, std::string_view state)
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
