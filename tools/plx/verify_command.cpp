// `plx verify`: whether a policy file, the store, what each service node believes and what is in its plane are the
// same.
//
// The file is compared with the store record by record. Nodes are asked for sums over parts of what their planes have,
// and for the entries of those parts alone whose sums are not the store's.
#include "commands.hpp"
#include "display.hpp"
#include "nodes/holdings.hpp"
#include "nodes/questions.hpp"
#include "output.hpp"
#include "record_options.hpp"
#include "records/status.hpp"

#include <algorithm>
#include <iostream>
#include <memory>
#include <plx/s_policy.pb-c.h>

namespace plx::tool {

namespace {

constexpr size_t most_named = 20; // differences of one comparison
constexpr size_t parts_at_once = 8;

struct VerifyOptions : StoreOptions {
    std::string file;
    uint32_t timeout = 5; // seconds
};

class VerifyRun {
  public:
    explicit VerifyRun(const VerifyOptions &options) : options_(options) {}
    int run();

  private:
    bool read_file();
    int read_store();
    int find_nodes();
    int ask_nodes();
    void compare_file();
    int compare_node(const NodeName &name, const Questions::Answer &sums);
    void compare_report(const NodeName &name, const Digest &plane);
    int name_differences(const NodeName &name, const std::vector<uint32_t> &parts, std::vector<Difference> &found,
                         size_t &unnamed);
    void take(const std::vector<NodeEntry> &entries, const std::set<uint32_t> &parts, std::vector<Difference> &found);
    void tell(const std::string &one, const std::string &other, const std::string &what,
              const std::vector<Difference> &found, size_t unnamed);
    int verdict() const;

    const VerifyOptions &options_;
    std::string app_;
    Context context_;
    Holdings file_, store_;
    size_t unreadable_ = 0;
    std::set<NodeName> nodes_; // that have a record
    std::map<NodeName, NodeReport> reports_;
    std::optional<Questions> questions_;
    bool differs_ = false;
    size_t silent_ = 0;
};

int VerifyRun::run()
{
    if (!read_file())
        return EXIT_BAD_FILE;
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    for (const auto step : {&VerifyRun::read_store, &VerifyRun::find_nodes, &VerifyRun::ask_nodes})
        if (exit_code == EXIT_DONE)
            exit_code = (this->*step)();
    return exit_code == EXIT_DONE ? verdict() : exit_code;
}

bool VerifyRun::read_file()
{
    Errors errors;
    const auto policy = read_policy(options_.file, errors);
    plx::tool::tell(errors, options_.file);
    if (!policy || !errors.empty())
        return false;
    app_ = policy->application;
    file_ = Holdings::of(*policy);
    return true;
}

int VerifyRun::read_store()
{
    const int result = Holdings::read(context_.get(), options_.db, app_, store_, unreadable_);
    if (result != 0)
        return tell_store_error("store", result);
    if (unreadable_ != 0)
        output().error(EXIT_SOME_FAILED, std::to_string(unreadable_) + " records of the store cannot be read");
    compare_file();
    return EXIT_DONE;
}

void VerifyRun::compare_file()
{
    auto found = differences(file_, store_, "file", "store");
    const size_t unnamed = found.size() - std::min(found.size(), most_named);
    found.resize(found.size() - unnamed);
    const std::string records = std::to_string(store_.all().size()) + " records";
    tell("file", "store", found.empty() ? records : records + " for " + std::to_string(file_.all().size()), found,
         unnamed);
}

int32_t take_node(void *, const tq_mom_notification *found, void *arg)
{
    if (const auto name = node_of(found->record))
        static_cast<std::set<NodeName> *>(arg)->insert(*name);
    return 0;
}

int VerifyRun::find_nodes()
{
    const Record whole(s_policy__service_node__descriptor);
    const int result = tq_mom_scan_sync(context_.get(), options_.db, whole.message(), 0, &take_node, &nodes_);
    if (result != 0)
        return tell_store_error("store", result);
    if (nodes_.empty())
        output().note("no service node has a record in the store");
    return EXIT_DONE;
}

int VerifyRun::ask_nodes()
{
    if (nodes_.empty())
        return EXIT_DONE;
    Questions::Answers answers;
    int result = questions_.emplace(context_.get(), options_.db).start();
    if (result == 0)
        result = questions_->ask(app_, nodes_, {}, std::chrono::seconds(options_.timeout), answers);
    if (result == 0)
        result = read_reports(context_.get(), options_.db, reports_);
    if (result != 0)
        return tell_store_error("the nodes cannot be asked", result);
    for (const NodeName &name : nodes_) {
        const auto answer = answers.find(name);
        if (answer == answers.end() || !answer->second.error.empty()) {
            ++silent_;
            output().error(EXIT_NO_ANSWER, "node " + text_of(name) + ": " +
                                               (answer == answers.end() ? "no answer" : answer->second.error));
        } else if (const int failed = compare_node(name, answer->second); failed != EXIT_DONE) {
            return failed;
        }
    }
    return EXIT_DONE;
}

int VerifyRun::compare_node(const NodeName &name, const Questions::Answer &answer)
{
    const PartDigests wanted = store_.parts();
    std::vector<uint32_t> parts;
    Digest plane;
    for (uint32_t part = 0; part < wanted.size(); ++part) {
        plane.count += answer.sums[part].count;
        plane.lo += answer.sums[part].lo;
        plane.hi += answer.sums[part].hi;
        if (wanted[part] != answer.sums[part])
            parts.push_back(part);
    }
    std::vector<Difference> found;
    size_t unnamed = 0;
    if (const int failed = name_differences(name, parts, found, unnamed); failed != EXIT_DONE)
        return failed;
    const auto report = reports_.find(name);
    const std::string kind = report == reports_.end() ? "" : "   plane " + report->second.plane;
    tell("store", "node " + text_of(name),
         std::to_string(plane.count) + " of " + std::to_string(store_.all().size()) + kind, found, unnamed);
    compare_report(name, plane);
    return EXIT_DONE;
}

// What the node believes, which is what others see of it.
void VerifyRun::compare_report(const NodeName &name, const Digest &plane)
{
    const auto report = reports_.find(name);
    if (report == reports_.end() || report->second.backlog != 0)
        return;
    const Digest believed = report->second.applications[app_].programmed;
    if (believed != plane)
        tell("report", "node " + text_of(name),
             "it reports " + std::to_string(believed.count) + ", its plane has " + std::to_string(plane.count),
             {{"report", "not what the plane has"}}, 0);
}

int VerifyRun::name_differences(const NodeName &name, const std::vector<uint32_t> &parts,
                                std::vector<Difference> &found, size_t &unnamed)
{
    size_t at = 0;
    for (; at < parts.size() && found.size() < most_named; at += parts_at_once) {
        const std::span some = std::span(parts).subspan(at, std::min(parts_at_once, parts.size() - at));
        Questions::Answers answers;
        const int result = questions_->ask(app_, {name}, some, std::chrono::seconds(options_.timeout), answers);
        if (result != 0)
            return tell_store_error("the nodes cannot be asked", result);
        if (!answers.contains(name)) {
            ++silent_;
            return output().error(EXIT_NO_ANSWER, "node " + text_of(name) + ": no answer");
        }
        take(answers[name].entries, {some.begin(), some.end()}, found);
    }
    const size_t named = std::min(found.size(), most_named);
    unnamed = found.size() - named + (at < parts.size() ? parts.size() - at : 0);
    found.resize(named);
    if (found.empty() && !parts.empty())
        found.push_back({"records", "have changed while the plane was read"});
    return EXIT_DONE;
}

// An entry that was refused may still be in the plane as it was before.
void VerifyRun::take(const std::vector<NodeEntry> &entries, const std::set<uint32_t> &parts,
                     std::vector<Difference> &found)
{
    std::map<uint64_t, const NodeEntry *> there, refused;
    for (const NodeEntry &entry : entries)
        (entry.status == 0 ? there : refused)[entry.key] = &entry;
    for (const Holdings::One &one : store_.all()) {
        const auto twin = there.find(one.key);
        if (!parts.contains(static_cast<uint32_t>(part_of(one.key))) ||
            (twin != there.end() && twin->second->fingerprint == one.fingerprint))
            continue;
        const auto refusal = refused.find(one.key);
        std::string what = twin == there.end() ? "not in the plane" : "differs in the plane";
        if (refusal != refused.end())
            what = "refused: " + std::string(status_text(refusal->second->status)) + " (" +
                   std::to_string(refusal->second->status) + ')';
        found.push_back({one.name(), what, refusal == refused.end() ? 0 : refusal->second->status});
    }
    for (const auto &[key, entry] : there)
        if (store_.find(key) == nullptr)
            found.push_back({printable(entry->name), "not in the store"});
}

void VerifyRun::tell(const std::string &one, const std::string &other, const std::string &what,
                     const std::vector<Difference> &found, size_t unnamed)
{
    differs_ = differs_ || !found.empty();
    output().line("comparison",
                  {{"one", one}, {"other", other}, {"equal", found.empty()}, {"text", what}, {"unnamed", unnamed}});
    for (const Difference &difference : found) {
        Row row = {{"one", one}, {"other", other}, {"name", difference.name}, {"text", difference.what}};
        if (difference.status != 0)
            row["status"] = difference.status;
        output().line("difference", std::move(row));
    }
    if (output().json())
        return;
    std::cout << padded(padded(one, 6) + (found.empty() ? "  = " : " != ") + other, 24) << ' ' << what << '\n';
    for (const Difference &difference : found)
        std::cout << "        " << difference.name << ": " << difference.what << '\n';
    if (unnamed != 0)
        std::cout << "        and more\n";
}

int VerifyRun::verdict() const
{
    if (silent_ != 0)
        return EXIT_NO_ANSWER;
    if (unreadable_ != 0)
        return EXIT_SOME_FAILED;
    return differs_ ? EXIT_DIFFERS : EXIT_DONE;
}

} // namespace

void add_verify_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App *command = app.add_subcommand(
        "verify", "See whether a policy file, the store and the service nodes' planes are the same.");
    command->add_option("FILE", options->file, "policy file; - for standard input")->required();
    options->add_to(*command);
    command->add_option("--timeout", options->timeout, "seconds to wait for each answer of a node")
        ->check(CLI::Range(1U, 600U))
        ->capture_default_str();
    command->footer(
        "Example:\n"
        "  plx verify policy.yaml\n\n"
        "Exit code 0: all are the same; 6: they differ, and what differs is named; 4: a node did not answer.");
    command->callback([options, &exit_code] {
        output().begin("verify", options->json);
        exit_code = VerifyRun(*options).run();
    });
}

} // namespace plx::tool
