// `plx verify`: whether a policy file, the store, what live applications have cached, what each service node believes
// and what is in its plane are the same.
//
// The file is compared with the store record by record, applications by the identifiers of their last writes, nodes by
// what their planes have.
#include "commands.hpp"
#include "display.hpp"
#include "nodes/caches.hpp"
#include "nodes/node_watch.hpp"
#include "nodes/planes.hpp"
#include "output.hpp"
#include "policy_diff.hpp"
#include "record_options.hpp"

#include <algorithm>
#include <iostream>
#include <memory>

namespace plx::tool {

namespace {

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
    int ask_applications();
    int find_nodes();
    int ask_nodes();
    void compare_file(const PolicyDiff &diff);
    void tell_no_application() const;
    void compare_cache(Cache &cache, const PartDigests &sums);
    int compare_node(const NodeName &name, const Digest &plane, Planes &planes);
    void compare_report(const NodeName &name, const Digest &plane);
    void take(const std::vector<CachedRecord> &cached, uint32_t part, std::vector<Difference> &found) const;
    void silent(const std::string &who, const std::string &error);
    void tell(const std::string &one, const std::string &other, const std::string &what, const Differences &found);
    int verdict() const;

    const VerifyOptions &options_;
    Policy policy_;
    std::string app_;
    Context context_;
    Holdings store_;
    size_t unreadable_ = 0;
    std::set<NodeName> nodes_; // that have a record
    std::map<NodeName, NodeReport> reports_;
    bool differs_ = false;
    size_t silent_ = 0;
};

int VerifyRun::run()
{
    if (!read_file())
        return EXIT_BAD_FILE;
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    for (const auto step :
         {&VerifyRun::read_store, &VerifyRun::ask_applications, &VerifyRun::find_nodes, &VerifyRun::ask_nodes})
        if (exit_code == EXIT_DONE)
            exit_code = (this->*step)();
    return exit_code == EXIT_DONE ? verdict() : exit_code;
}

bool VerifyRun::read_file()
{
    Errors errors;
    auto policy = read_policy(options_.file, errors);
    plx::tool::tell(errors, options_.file);
    if (!policy || !errors.empty())
        return false;
    policy_ = std::move(*policy);
    app_ = policy_.application;
    return true;
}

int VerifyRun::read_store()
{
    PolicyDiff diff(policy_);
    if (const int result = diff.compare(context_.get(), options_.db, &store_); result != 0)
        return tell_store_error("store", result);
    unreadable_ = diff.unreadable();
    if (unreadable_ != 0)
        output().error(EXIT_SOME_FAILED, std::to_string(unreadable_) + " records of the store cannot be read");
    compare_file(diff);
    return EXIT_DONE;
}

// Names are for people, and nodes do not have them: they are not compared.
void VerifyRun::compare_file(const PolicyDiff &diff)
{
    Differences found;
    for (ItemChange change : diff.changes()) {
        std::erase_if(change.how, [](const std::string &how) { return how.starts_with("name: "); });
        if (change.kind != '~' || !change.how.empty())
            found.named.push_back({change.record, change.kind == '+'   ? "not in the store"
                                                  : change.kind == '-' ? "not in the file"
                                                                       : "differs: " + change.how_text()});
    }
    for (const Holdings::One &one : store_.all())
        if (std::holds_alternative<PortBindKey>(one.record))
            found.named.push_back({one.name(), "not in the file"});
    found.bound();
    size_t wanted = 0;
    for_each_record(policy_, [&wanted](const Key &, const Requested &) { ++wanted; });
    const std::string records = std::to_string(store_.all().size()) + " records";
    tell("file", "store", found.named.empty() ? records : records + " for " + std::to_string(wanted), found);
}

void VerifyRun::silent(const std::string &who, const std::string &error)
{
    ++silent_;
    output().error(EXIT_NO_ANSWER, who + ": " + error);
}

// ---- live applications ----------------------------------------------------------------------------------------------

int VerifyRun::ask_applications()
{
    std::vector<std::unique_ptr<Cache>> caches;
    if (const int error = find_caches(app_, caches); error != 0)
        output().note("applications cannot be asked: " + shell_error(error));
    size_t live = 0;
    for (const auto &cache : caches) {
        std::optional<PartDigests> sums;
        std::string error;
        if (!cache->read(sums, error))
            silent("application " + printable(cache->name()), error);
        if (!sums)
            continue;
        ++live;
        compare_cache(*cache, *sums);
    }
    if (live == 0)
        tell_no_application();
    return EXIT_DONE;
}

void VerifyRun::tell_no_application() const
{
    const std::string text = "no live application of " + printable(app_) + " can be asked here";
    output().line("note", {{"text", text}});
    if (!output().json())
        std::cout << padded("cache", 24) << ' ' << text << '\n';
}

void VerifyRun::compare_cache(Cache &cache, const PartDigests &sums)
{
    Differences found;
    std::string error;
    for (const uint32_t part : different_parts(store_.writes(), sums)) {
        std::vector<CachedRecord> records;
        if (found.named.size() > most_named || !cache.read_part(part, records, error))
            break;
        take(records, part, found.named);
    }
    found.bound();
    if (!error.empty())
        return silent("application " + printable(cache.name()), error);
    tell("store", "cache " + printable(cache.name()),
         std::to_string(sum(sums).count) + " of " + std::to_string(store_.all().size()), found);
}

// What another program wrote since, an application has not cached as it is now. What it did not write itself it knows
// by key alone.
void VerifyRun::take(const std::vector<CachedRecord> &cached, uint32_t part, std::vector<Difference> &found) const
{
    std::map<uint64_t, const CachedRecord *> there;
    for (const CachedRecord &record : cached)
        there[digest_of(record.key)] = &record;
    for (const Holdings::One &one : store_.all()) {
        if (part_of(one.key) != part || std::holds_alternative<PortBindKey>(one.record))
            continue;
        const auto twin = there.find(one.key);
        if (twin == there.end())
            found.push_back({one.name(), "not in the cache"});
        else if (twin->second->request != one.request && twin->second->request != 0)
            found.push_back({one.name(), "last written by another"});
    }
    for (const auto &[key, record] : there)
        if (store_.find(key) == nullptr)
            found.push_back({printable(described(record->key)), "not in the store"});
}

// ---- service nodes --------------------------------------------------------------------------------------------------

int VerifyRun::find_nodes()
{
    const int result = read_nodes(context_.get(), options_.db, nodes_);
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
    Planes planes(context_.get(), options_.db, app_, "store", std::chrono::seconds(options_.timeout));
    int result = planes.ask(nodes_);
    if (result == 0)
        result = read_reports(context_.get(), options_.db, reports_);
    if (result != 0)
        return tell_store_error("the nodes cannot be asked", result);
    for (const NodeName &name : nodes_) {
        std::string error;
        const auto plane = planes.has(name, error);
        if (!plane)
            silent("node " + text_of(name), error);
        else if (const int failed = compare_node(name, *plane, planes); failed != EXIT_DONE)
            return failed;
    }
    return EXIT_DONE;
}

int VerifyRun::compare_node(const NodeName &name, const Digest &plane, Planes &planes)
{
    Differences found;
    std::string error;
    if (const int result = planes.compare(name, store_, found, error); result != 0)
        return tell_store_error("the nodes cannot be asked", result);
    if (!error.empty()) {
        silent("node " + text_of(name), error);
        return EXIT_NO_ANSWER;
    }
    const auto report = reports_.find(name);
    const std::string kind = report == reports_.end() ? "" : "   plane " + printable(report->second.plane);
    tell("store", "node " + text_of(name),
         std::to_string(plane.count) + " of " + std::to_string(store_.all().size()) + kind, found);
    compare_report(name, plane);
    return EXIT_DONE;
}

// What the node believes, which is what others see of it.
void VerifyRun::compare_report(const NodeName &name, const Digest &plane)
{
    const auto report = reports_.find(name);
    if (report == reports_.end() || report->second.backlog != 0)
        return;
    const auto believed = report->second.programmed_of(app_);
    if (believed && *believed != plane)
        tell("report", "node " + text_of(name),
             "it reports " + std::to_string(believed->count) + ", its plane has " + std::to_string(plane.count),
             {{{"report", "not what the plane has"}}, 0});
}

void VerifyRun::tell(const std::string &one, const std::string &other, const std::string &what,
                     const Differences &found)
{
    differs_ = differs_ || !found.named.empty();
    output().line(
        "comparison",
        {{"one", one}, {"other", other}, {"equal", found.named.empty()}, {"text", what}, {"unnamed", found.unnamed}});
    for (const Difference &difference : found.named) {
        Row row = {{"one", one}, {"other", other}, {"name", difference.name}, {"text", difference.what}};
        if (difference.status != 0)
            row["status"] = difference.status;
        output().line("difference", std::move(row));
    }
    if (output().json())
        return;
    std::cout << padded(padded(one, 6) + (found.named.empty() ? "  = " : " != ") + other, 24) << ' ' << what << '\n';
    for (const Difference &difference : found.named)
        std::cout << "        " << difference.name << ": " << difference.what << '\n';
    if (found.unnamed != 0)
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
        "verify", "See whether a policy file, the store, live applications' caches and the service nodes' "
                  "planes are the same.");
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
