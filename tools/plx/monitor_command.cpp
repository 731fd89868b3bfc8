// `plx monitor`: every change of the store's records as it happens, until it is stopped.
#include "commands.hpp"
#include "record_options.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include "rows.hpp"
#include "signals.hpp"
#include "store_watch.hpp"

#include <deque>
#include <iostream>
#include <memory>
#include <set>

namespace plx::tool {

namespace {

struct MonitorOptions : RecordOptions {
    std::vector<std::string> kinds; // empty: all
    uint64_t count = 0;             // changes to show; 0: no end
};

class MonitorRun {
  public:
    explicit MonitorRun(const MonitorOptions &options) : options_(options) {}
    int run();

  private:
    // One subscription: which table it is of.
    struct Feed {
        MonitorRun *owner;
        const ProtobufCMessageDescriptor *table;
    };

    static int32_t on_change(void *, const tq_mom_notification *change, void *arg);
    int subscribe(const ProtobufCMessageDescriptor &table);
    int subscribe();
    void show(const Feed &feed, const tq_mom_notification &change);

    const MonitorOptions &options_;
    std::deque<Feed> feeds_; // subscriptions keep pointers to their elements
    Context context_;
    uint64_t shown_ = 0;
};

const char *event_name(int32_t event)
{
    switch (event) {
    case TQ_MOM_EVENT_STATUS:
        return "status";
    case TQ_MOM_EVENT_DELETED:
        return "deleted";
    case TQ_MOM_EVENT_SET:
        return "set";
    case TQ_MOM_EVENT_PUBLISHED:
        return "published";
    case TQ_MOM_EVENT_RESYNC:
        return "changes-lost";
    default:
        return "unknown";
    }
}

int MonitorRun::run()
{
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    if (context_ == nullptr)
        return exit_code;
    const StopOnSignal stop(context_->master);
    if (const int result = subscribe(); result != 0)
        return tell_store_error("store", result);
    const StoreWatch lost(context_.get(), options_.db);
    output().note("watching " + std::to_string(feeds_.size()) + " tables");
    tq_loop_run(context_->master);
    return EXIT_DONE;
}

int MonitorRun::subscribe()
{
    std::set<const ProtobufCMessageDescriptor *> tables;
    for (const Kind &kind : kinds()) {
        if (!options_.kinds.empty() &&
            std::find(options_.kinds.begin(), options_.kinds.end(), kind.name) == options_.kinds.end())
            continue;
        tables.insert(kind.tables.begin(), kind.tables.end());
        if (kind.status != nullptr)
            tables.insert(kind.status);
    }
    for (const ProtobufCMessageDescriptor *table : tables)
        if (const int result = subscribe(*table); result != 0)
            return result;
    return 0;
}

int MonitorRun::subscribe(const ProtobufCMessageDescriptor &table)
{
    feeds_.push_back({this, &table});
    const Record whole(table);
    return tq_mom_subscribe(context_.get(), options_.db, whole.message(), 0, &MonitorRun::on_change, &feeds_.back());
}

int32_t MonitorRun::on_change(void *, const tq_mom_notification *change, void *arg)
{
    const auto *feed = static_cast<const Feed *>(arg);
    const bool about_all = change->event == TQ_MOM_EVENT_RESYNC || change->result != 0;
    if (about_all || feed->owner->options_.take(change->record))
        feed->owner->show(*feed, *change);
    return 0;
}

void MonitorRun::show(const Feed &feed, const tq_mom_notification &change)
{
    if (options_.count != 0 && shown_ == options_.count)
        return;
    char time[30] = "";
    tq_time_2_string(time, sizeof time);
    Row row = {{"time", time}, {"event", event_name(change.event)}, {"table", table_name(*feed.table)}};
    row.update(row_of(change.record, options_.full, change.event != TQ_MOM_EVENT_DELETED));
    if (change.event == TQ_MOM_EVENT_STATUS && change.record != nullptr)
        row["outcome"] = status_text(static_cast<int32_t>(number_field(change.record, "p_status")));
    if (change.result != 0)
        row["error"] = tq_mom_strerror(change.result);
    if (options_.json)
        output().line("change", std::move(row));
    else
        std::cout << line_of(options_.all ? row : without_internal(row)) << '\n';
    std::cout.flush();
    if (++shown_ == options_.count || !std::cout)
        tq_loop_stop(context_->master);
}

} // namespace

void add_monitor_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<MonitorOptions>();
    CLI::App *command =
        app.add_subcommand("monitor", "Show each change in the store as it happens, until interrupted.");
    command
        ->add_option("WHAT", options->kinds,
                     "acl, ace, apply, port, node, commit, topic, counters; all when none is named")
        ->check([](const std::string &name) {
            return find_kind(name) == nullptr ? "there is nothing called '" + name + "'" : "";
        });
    options->add_to(*command);
    command->add_option("--count", options->count, "end after so many changes");
    command->footer("Examples:\n"
                    "  plx monitor ace apply --app edge_filter\n"
                    "  plx monitor --json | jq .");
    command->callback([options, &exit_code] {
        output().begin("monitor", options->json);
        exit_code = MonitorRun(*options).run();
    });
}

} // namespace plx::tool
