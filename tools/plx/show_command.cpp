// `plx show`: what the store holds, as a table or as JSON.
//
// An ACE and an apply are shown with what the forwarding plane last said of them: the status record is read beside the
// request. What cannot be read is told, and the rest is shown.
#include "commands.hpp"
#include "nodes/node_records.hpp"
#include "record_options.hpp"
#include "records/record.hpp"
#include "records/status.hpp"
#include "rows.hpp"

#include <memory>

namespace plx::tool {

namespace {

constexpr uint64_t most_told = 20; // records that cannot be read

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
    void scan(const ProtobufCMessageDescriptor &table, tq_mom_callback on_entry);
    int read(const Record &wanted, tq_mom_callback on_entry);
    bool readable(const tq_mom_notification &entry);
    std::string outcome(const ProtobufCMessage *record) const;
    void add(Row row);

    const Kind &kind_;
    const RecordOptions &options_;
    Context context_;
    std::string table_; // the one that is being read
    std::map<Key, Status> statuses_;
    std::vector<Row> rows_;
    std::string last_; // the record before the one at hand
    uint64_t unreadable_ = 0;
    bool statuses_whole_ = true;
    int result_ = 0; // the first failure of the store
};

int ShowRun::run()
{
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    if (context_ == nullptr)
        return exit_code;
    if (kind_.status != nullptr) {
        scan(*kind_.status, &ShowRun::on_status);
        statuses_whole_ = result_ == 0 && unreadable_ == 0;
    }
    for (const ProtobufCMessageDescriptor *table : kind_.tables)
        scan(*table, &ShowRun::on_record);
    print_table(rows_);
    if (unreadable_ > most_told)
        output().error(EXIT_SOME_FAILED,
                       "and " + std::to_string(unreadable_ - most_told) + " more records cannot be read");
    if (result_ != 0)
        return EXIT_UNREACHABLE;
    return unreadable_ == 0 ? EXIT_DONE : EXIT_SOME_FAILED;
}

// A table that fails does not keep the others from being shown.
void ShowRun::scan(const ProtobufCMessageDescriptor &table, tq_mom_callback on_entry)
{
    table_ = table_name(table);
    last_.clear();
    Record wanted(table);
    uint32_t given = 0;
    const int result = options_.select(wanted, given)
                           ? read(wanted, on_entry)
                           : tq_mom_scan_sync(context_.get(), options_.db, wanted.message(), given, on_entry, this);
    if (result == 0)
        return;
    tell_store_error(table_ + ": store", result);
    result_ = result_ == 0 ? result : result_;
}

// The one record whose key is known whole.
int ShowRun::read(const Record &wanted, tq_mom_callback on_entry)
{
    const Found found(tq_mom_hgetall_sync(context_.get(), options_.db, wanted.message()));
    const int status = found == nullptr ? static_cast<int>(TQ_MOM_DISCONNECTED) : found->status;
    const tq_mom_notification entry{TQ_MOM_EVENT_SET, found == nullptr ? nullptr : found->record, status, 0};
    const bool there = entry.record != nullptr || status == TQ_MOM_CORRUPT;
    if (there)
        on_entry(context_.get(), &entry, this);
    return there ? 0 : status;
}

// Records come in the order of their keys: one that comes without its own is behind the last.
bool ShowRun::readable(const tq_mom_notification &entry)
{
    const std::string key = line_of(row_of(entry.record, false, false));
    if (entry.record != nullptr)
        last_ = key;
    if (entry.record != nullptr && entry.result == 0)
        return true;
    if (++unreadable_ <= most_told) {
        const std::string place = last_.empty() ? "at the start" : "behind " + last_;
        output().error(EXIT_SOME_FAILED, table_ + ": " + (!key.empty() ? key : "the record " + place) +
                                             " cannot be read: " + tq_mom_strerror(entry.result));
    }
    return false;
}

int32_t ShowRun::on_status(void *, const tq_mom_notification *entry, void *arg)
{
    auto *self = static_cast<ShowRun *>(arg);
    if (!self->readable(*entry) || !self->options_.take(entry->record))
        return 0;
    if (const auto key = key_of(entry->record))
        self->statuses_[*key] = {number_field(entry->record, "rep_uuid"),
                                 static_cast<int32_t>(number_field(entry->record, "p_status"))};
    return 0;
}

int32_t ShowRun::on_record(void *, const tq_mom_notification *entry, void *arg)
{
    auto *self = static_cast<ShowRun *>(arg);
    if (!self->readable(*entry) || !self->options_.take(entry->record))
        return 0;
    Row row = Row::object();
    if (self->kind_.tables.size() > 1)
        row["table"] = self->table_;
    row.update(row_of(entry->record, self->options_.full));
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
    if (found == statuses_.end() && !statuses_whole_)
        return "unknown";
    if (found == statuses_.end() || found->second.reply != number_field(record, "req_uuid"))
        return "unanswered";
    return std::string(status_text(found->second.status));
}

// Objects go out as they come; a table waits for its columns' widths.
void ShowRun::add(Row row)
{
    if (options_.json)
        output().line("record", std::move(row));
    else
        rows_.push_back(options_.all ? std::move(row) : without_internal(row));
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
                    "  plx show counters --json\n\n"
                    "Of a long value the first bytes are shown, then how many more there are (with --json in the\n"
                    "object's \"cut\", by column). Exit code 3: some records cannot be read; the rest is shown.");
    command->callback([options, what, &exit_code] {
        output().begin("show", options->json);
        exit_code = *what == "node" ? show_nodes(*options) : ShowRun(*find_kind(*what), *options).run();
    });
}

} // namespace plx::tool
