// See fleet.hpp.
#include "metrics/fleet.hpp"

#include "nodes/node_watch.hpp"
#include "rows.hpp"
#include <algorithm>
#include <plx/s_policy.pb-c.h>

namespace plx::tool {

namespace {

constexpr size_t most_counted_applications = 10'000;
constexpr int share_of_time = 10; // of which one is spent counting, at most

double seconds_of(milliseconds time)
{
    return std::chrono::duration<double>(time).count();
}

// By both machines' clocks.
milliseconds age_of(const NodeReport &report)
{
    const uint64_t time = wall_clock_ms();
    return milliseconds(time - std::min(time, report.time_ms));
}

} // namespace

Fleet::Fleet(tq_context *context, uint32_t db, milliseconds between_counts)
    : context_(context), db_(db), between_counts_(between_counts), count_timer_(context->master, [this] { count(); })
{
}

int Fleet::start()
{
    const Record signs(s_policy__service_node__descriptor);
    const int result = tq_mom_subscribe(context_, db_, signs.message(), 0, &Fleet::on_node, this);
    if (result == 0) {
        heard_from_ = now();
        count_timer_.start(milliseconds(0));
    }
    return result;
}

int32_t Fleet::on_node(void *, const tq_mom_notification *change, void *arg) noexcept
{
    auto &seen = static_cast<Fleet *>(arg)->seen_;
    if (const auto name = change->result == 0 ? node_of(change->record) : std::nullopt) {
        if (change->event == TQ_MOM_EVENT_DELETED)
            seen.erase(*name);
        else
            seen[*name] = now();
    }
    return 0;
}

// ---- counting -------------------------------------------------------------------------------------------------------

int32_t Fleet::on_record(void *, const tq_mom_notification *entry, void *arg)
{
    auto &counts = *static_cast<Counts *>(arg);
    const auto key = entry->result == 0 ? key_of(entry->record) : std::nullopt;
    if (!key)
        return 0;
    const std::string &app = application_of(*key);
    auto known = counts.applications.find(app);
    if (known == counts.applications.end() && counts.applications.size() < most_counted_applications)
        known = counts.applications.try_emplace(app).first;
    if (known == counts.applications.end())
        counts.cut = true;
    else
        ++known->second[key->index()];
    return 0;
}

// A count that fails leaves the last one, whose age tells.
void Fleet::count()
{
    const milliseconds begin = now();
    Counts counts;
    int result = 0;
    for (const Table &table : tables())
        if (result == 0)
            result =
                tq_mom_scan_keys_sync(context_, db_, Record(*table.requested).message(), 0, &Fleet::on_record, &counts);
    const milliseconds took = now() - begin;
    if (result == 0) {
        counts_ = std::move(counts);
        counted_ = now();
        count_took_ = took;
    }
    count_timer_.start(std::max(between_counts_, took * (share_of_time - 1)));
}

void Fleet::add_counts(Exposition &page) const
{
    page.gauge("plx_fleet_requested_records", "Records that ask nodes for something, as they were counted last.");
    for (const auto &[app, by_table] : counts_.applications)
        for (const auto &[table, count] : by_table)
            page.add(count, {{"app", app}, {"table", table_name(*tables()[table].requested)}});
    page.gauge("plx_fleet_applications_cut", "1 when there are more than the 10000 application types counted.")
        .add(counts_.cut ? 1 : 0);
    page.gauge("plx_fleet_count_age_seconds", "Since they were counted.");
    if (counted_ != milliseconds(0))
        page.add_seconds(seconds_of(now() - counted_));
    page.gauge("plx_fleet_count_seconds", "How long it took.").add_seconds(seconds_of(count_took_));
}

// ---- nodes ----------------------------------------------------------------------------------------------------------

bool Fleet::lives(const NodeName &name, const Reports &reports) const
{
    const auto sign = seen_.find(name);
    if (sign != seen_.end())
        return now() - sign->second < counted_out;
    const auto report = reports.find(name);
    return now() - heard_from_ < counted_out && report != reports.end() && age_of(report->second) < counted_out;
}

void Fleet::add_nodes(Exposition &page, const Nodes &nodes, const Reports &reports) const
{
    const auto alive =
        static_cast<uint64_t>(std::ranges::count_if(nodes, [&](const NodeName &name) { return lives(name, reports); }));
    page.gauge("plx_fleet_nodes", "Nodes that have a record in the store.")
        .add(alive, {{"state", "alive"}})
        .add(nodes.size() - alive, {{"state", "silent"}});
    page.gauge("plx_fleet_node_up", "1 for each that shows that it lives, else 0.");
    for (const NodeName &name : nodes)
        page.add(lives(name, reports) ? 1 : 0, {{"node", text_of(name)}});
    const auto add = [&](const char *metric, const char *help, auto &&value) {
        page.gauge(metric, help);
        for (const auto &[name, report] : reports)
            page.add(value(report), {{"node", text_of(name)}});
    };
    page.gauge("plx_fleet_node_report_age_seconds", "Since the node's last report, by its clock and this machine's.");
    for (const auto &[name, report] : reports)
        page.add_seconds(seconds_of(age_of(report)), {{"node", text_of(name)}});
    page.gauge("plx_fleet_node_start_time_seconds", "When the node started, since 1970.");
    for (const auto &[name, report] : reports)
        page.add_seconds(static_cast<double>(report.started_ms) / 1000, {{"node", text_of(name)}});
    add("plx_fleet_node_backlog", "Changes that it has heard of and not answered.",
        [](const NodeReport &report) { return report.backlog; });
    add("plx_fleet_node_entries", "Entries in its forwarding plane.",
        [](const NodeReport &report) { return report.entries; });
    add("plx_fleet_node_room", "Entries that fit into it.", [](const NodeReport &report) { return report.room; });
    page.gauge("plx_fleet_node_records", "Records of an application type on a node, by what became of them.");
    for (const auto &[name, report] : reports)
        for (const auto &[app, application] : report.applications)
            page.add(application.programmed.count, {{"node", text_of(name)}, {"app", app}, {"state", "programmed"}})
                .add(application.refused, {{"node", text_of(name)}, {"app", app}, {"state", "refused"}});
}

// Without the store there is nothing of nodes: no number is not the number 0.
void Fleet::add_to(Exposition &page) const
{
    Nodes nodes;
    Reports reports;
    if (read_nodes(context_, db_, nodes) == 0 && read_reports(context_, db_, reports) == 0)
        add_nodes(page, nodes, reports);
    add_counts(page);
}

} // namespace plx::tool
