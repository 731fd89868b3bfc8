// `plx show`: what the store holds, as a table or as JSON.
//
// An ACE and an apply are shown with what the forwarding plane last said of them: the status record is read beside the
// request.
#include "commands.hpp"
#include "records.hpp"
#include "records/record.hpp"
#include "records/status.hpp"

#include <iostream>
#include <memory>

namespace plx::tool {

namespace {

class ShowRun {
  public:
    ShowRun(const Kind &kind, const RecordOptions &options) : kind_(kind), options_(options) {}
    int run();

  private:
    struct Status {
        uint64_t reply;
        int32_t status;
    };

    static int32_t on_status(void *, const tq_mom_notification *entry, void *arg);
    static int32_t on_record(void *, const tq_mom_notification *entry, void *arg);
    int scan(const ProtobufCMessageDescriptor &table, tq_mom_callback on_entry);
    std::string outcome(const ProtobufCMessage *record) const;
    void add(Row row);

    const Kind &kind_;
    const RecordOptions &options_;
    Context context_;
    std::string table_; // the one that is being read
    std::map<Key, Status> statuses_;
    std::vector<Row> rows_;
    uint64_t unreadable_ = 0;
};

int ShowRun::run()
{
    int exit_code = EXIT_DONE;
    context_ = open_store("show", options_, exit_code);
    if (context_ == nullptr)
        return exit_code;
    int result = kind_.status == nullptr ? 0 : scan(*kind_.status, &ShowRun::on_status);
    for (const ProtobufCMessageDescriptor *table : kind_.tables)
        if (result == 0)
            result = scan(*table, &ShowRun::on_record);
    print_table(rows_);
    if (unreadable_ != 0)
        std::cerr << "plx show: " << unreadable_ << " records cannot be read\n";
    if (result == 0)
        return EXIT_DONE;
    std::cerr << "plx show: store: " << tq_mom_strerror(result) << '\n';
    return EXIT_UNREACHABLE;
}

int ShowRun::scan(const ProtobufCMessageDescriptor &table, tq_mom_callback on_entry)
{
    table_ = table_name(table);
    const Record whole(table);
    return tq_mom_scan_sync(context_.get(), options_.db, whole.message(), 0, on_entry, this);
}

int32_t ShowRun::on_status(void *, const tq_mom_notification *entry, void *arg)
{
    auto *self = static_cast<ShowRun *>(arg);
    if (entry->record == nullptr || entry->result != 0 || !self->options_.take(entry->record))
        return 0;
    if (const auto key = key_of(entry->record))
        self->statuses_[*key] = {number_field(entry->record, "rep_uuid"),
                                 static_cast<int32_t>(number_field(entry->record, "p_status"))};
    return 0;
}

int32_t ShowRun::on_record(void *, const tq_mom_notification *entry, void *arg)
{
    auto *self = static_cast<ShowRun *>(arg);
    if (entry->record == nullptr || entry->result != 0) {
        ++self->unreadable_;
        return 0;
    }
    if (!self->options_.take(entry->record))
        return 0;
    Row row = Row::object();
    if (self->kind_.tables.size() > 1)
        row["table"] = self->table_;
    row.update(row_of(entry->record));
    if (self->kind_.status != nullptr)
        row["outcome"] = self->outcome(entry->record);
    self->add(std::move(row));
    return 0;
}

// What a service node said last. Each node writes the one status record, so this is one node's word, not all of theirs.
std::string ShowRun::outcome(const ProtobufCMessage *record) const
{
    const auto key = key_of(record);
    const auto found = key ? statuses_.find(*key) : statuses_.end();
    if (found == statuses_.end() || found->second.reply != number_field(record, "req_uuid"))
        return "unanswered";
    return std::string(status_text(found->second.status));
}

// Objects go out as they come; a table waits for its columns' widths.
void ShowRun::add(Row row)
{
    if (options_.json)
        print_json(row);
    else
        rows_.push_back(std::move(row));
}

} // namespace

void add_show_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<RecordOptions>();
    const auto what = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand(
        "show", "Show what the store holds: acl, ace, apply, port, node, commit, topic or counters.");
    command->add_option("WHAT", *what, "acl, ace, apply, port, node, commit, topic or counters")
        ->required()
        ->check([](const std::string &name) {
            return find_kind(name) == nullptr ? "there is nothing called '" + name + "'" : "";
        });
    options->add_to(*command);
    command->footer("Examples:\n"
                    "  plx show ace --app edge_filter --acl 10\n"
                    "  plx show counters --json");
    command->callback([options, what, &exit_code] { exit_code = ShowRun(*find_kind(*what), *options).run(); });
}

} // namespace plx::tool
