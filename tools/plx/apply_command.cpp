// `plx apply`: a policy file, through the library and the store, to the service nodes, and what they said.
#include "application.hpp"
#include "commands.hpp"
#include "output.hpp"
#include "plane/simulated/fleet.hpp"
#include "record_options.hpp"
#include "records/host.hpp"
#include "records/record.hpp"

#include <cstdio>
#include <iostream>
#include <memory>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>
#include <unistd.h>

namespace plx::tool {

namespace {

// A live node writes its record every 5 seconds.
constexpr milliseconds heartbeat_heard{6500};

struct ApplyOptions {
    std::string file;
    std::string store = "mem:";
    uint32_t db = 8;
    double timeout_s = 200; // above the 180 s after which the library itself stops waiting
    double wait_s = 30;     // for a store or for nodes that are yet to come
    bool atomic = false;
    bool changes_only = false;
    bool json = false;
    uint32_t nodes = 0; // 0: not given
    std::vector<size_t> table_sizes;
    std::vector<std::string> simulate;

    bool embedded() const { return store.starts_with("mem:"); }
    milliseconds wait() const { return milliseconds(static_cast<int64_t>(wait_s * 1000)); }
};

// A line that is written over while things go on, on a terminal; nothing elsewhere.
class Progress {
  public:
    ~Progress() { clear(); }

    // `text` is asked for when it is shown.
    template <typename Text> void show(Text &&text)
    {
        if (!terminal_ || now() < next_)
            return;
        next_ = now() + milliseconds(100);
        std::cerr << "\r\x1b[K" << text() << std::flush;
        shown_ = true;
    }

    void clear()
    {
        if (shown_)
            std::cerr << "\r\x1b[K" << std::flush;
        shown_ = false;
    }

  private:
    bool terminal_ = isatty(STDERR_FILENO) == 1;
    bool shown_ = false;
    milliseconds next_{0};
};

class ApplyRun {
  public:
    explicit ApplyRun(const ApplyOptions &options) : options_(options) {}
    int run();

  private:
    bool read(Policy &policy);
    int open_store();
    int connect();
    int start_nodes();
    int expect_nodes();
    void call_nodes();
    int wait_for_nodes();
    uint64_t delivered();
    void catch_up();
    int write(Application &application);
    void wait_for_outcomes(Application &application);
    int report(Application &application, int result);
    void turn(milliseconds until);
    void say(const std::string &message);
    int fail(int exit_code, const std::string &message);

    const ApplyOptions &options_;
    Loop loop_;
    Context context_;
    std::unique_ptr<plane::Fleet> fleet_;
    Progress progress_;
    uint32_t expected_nodes_ = 0;
};

int ApplyRun::run()
{
    Policy policy;
    if (!read(policy))
        return EXIT_BAD_FILE;
    if (const int code = open_store(); code != EXIT_DONE)
        return code;
    // nodes start after the library listens: it hears of them at once, not at their second sign of life
    Application application(context_.get(), options_.db, policy);
    if (const int result = application.start(); result != 0)
        return fail(EXIT_UNREACHABLE, "cannot register with the library: result " + std::to_string(result));
    if (const int code = start_nodes(); code != EXIT_DONE)
        return code;
    if (const int code = wait_for_nodes(); code != EXIT_DONE)
        return code;
    const int result = write(application);
    wait_for_outcomes(application);
    return report(application, result);
}

void ApplyRun::say(const std::string &message)
{
    progress_.clear();
    output().note(message);
}

int ApplyRun::fail(int exit_code, const std::string &message)
{
    progress_.clear();
    return output().error(exit_code, message);
}

bool ApplyRun::read(Policy &policy)
{
    Errors errors;
    if (auto checked = read_policy(options_.file, errors))
        policy = std::move(*checked);
    tell(errors, options_.file);
    if (!errors.empty())
        say("nothing was written: " + std::to_string(errors.size()) + (errors.size() == 1 ? " error" : " errors") +
            " in the policy");
    return errors.empty();
}

int ApplyRun::open_store()
{
    loop_.reset(tq_loop_new());
    if (loop_ != nullptr)
        context_.reset(tq_context_new_on(options_.store.c_str(), loop_.get()));
    if (context_ == nullptr)
        return tell_no_context(options_.store);
    if (const int result = connect(); result != 0)
        return tell_store_error("store " + shown_address(options_.store), result);
    return EXIT_DONE;
}

// What may pass when a server starts or comes back. A refusal does not.
bool may_pass(int result)
{
    return result == TQ_MOM_DISCONNECTED || result == TQ_MOM_TIMEOUT || result == TQ_MOM_LOADING;
}

// A store that is not there yet is waited for.
int ApplyRun::connect()
{
    const milliseconds give_up = now() + options_.wait();
    int told = 0;
    for (;;) {
        const int result = tq_mom_client_connect_sync(context_.get(), options_.db);
        if (!may_pass(result) || now() >= give_up)
            return result;
        if (result != told)
            say("waiting for the store " + shown_address(options_.store) + ": " + tq_mom_strerror(result));
        told = result;
        turn(give_up);
    }
}

// ---- service nodes --------------------------------------------------------------------------------------------------

// "2:silent" is for the second node.
bool simulate(const std::string &text, std::vector<plane::SimulatedOptions> &nodes)
{
    const size_t colon = text.find(':');
    const std::string number = text.substr(0, colon);
    if (colon == std::string::npos || number.empty() || number.find_first_not_of("0123456789") != std::string::npos ||
        number.size() > 4)
        return false;
    const size_t node = std::stoul(number);
    return node >= 1 && node <= nodes.size() && nodes[node - 1].add(std::string_view(text).substr(colon + 1));
}

int ApplyRun::start_nodes()
{
    expected_nodes_ = options_.nodes;
    if (!options_.embedded())
        return EXIT_DONE;
    expected_nodes_ = std::max(expected_nodes_, 1U);
    std::vector<plane::SimulatedOptions> nodes(expected_nodes_);
    for (size_t node = 0; node < std::min(nodes.size(), options_.table_sizes.size()); ++node)
        nodes[node].table_size = options_.table_sizes[node];
    for (const std::string &text : options_.simulate) {
        if (!simulate(text, nodes))
            return fail(EXIT_USAGE, "--simulate: '" + text + "' is not NODE:WHAT; see plx apply --help");
    }
    plane::NodeOptions node_options;
    node_options.db = options_.db;
    fleet_ = std::make_unique<plane::Fleet>(options_.store, loop_.get(), node_options);
    for (plane::SimulatedOptions &node : nodes) {
        if (const int result = fleet_->add(std::move(node)); result != 0)
            return fail(EXIT_UNREACHABLE, std::string("cannot start a node: ") + tq_mom_strerror(result));
    }
    return EXIT_DONE;
}

int32_t count_record(void *, const tq_mom_notification *, void *arg)
{
    ++*static_cast<uint32_t *>(arg);
    return 0;
}

// Where no number is given, those that have a record.
int ApplyRun::expect_nodes()
{
    const Record whole(s_policy__service_node__descriptor);
    const int result =
        tq_mom_scan_sync(context_.get(), options_.db, whole.message(), 0, &count_record, &expected_nodes_);
    return result == 0 ? EXIT_DONE : fail(EXIT_UNREACHABLE, std::string("store: ") + tq_mom_strerror(result));
}

// Those that live show it at once. One that does not understand, or where this may not be written, is heard of at its
// next sign of life.
void ApplyRun::call_nodes()
{
    Record call(plx_node__node_call__descriptor);
    call.set_number("number", now_us());
    tq_mom_set_sync(context_.get(), options_.db, call.message());
}

// An outcome needs as many answers as the library knows nodes when it comes, so they must be known first.
int ApplyRun::wait_for_nodes()
{
    const bool given = expected_nodes_ != 0;
    if (const int code = given ? EXIT_DONE : expect_nodes(); code != EXIT_DONE)
        return code;
    const auto live = [] { return static_cast<uint32_t>(Application::live_nodes()); };
    const auto count = [&] { return std::to_string(live()) + " of " + std::to_string(expected_nodes_); };
    const milliseconds give_up = now() + (given ? std::max(heartbeat_heard, options_.wait()) : heartbeat_heard);
    call_nodes();
    const milliseconds soon = std::min(give_up, now() + milliseconds(500));
    while (live() < expected_nodes_ && now() < soon)
        turn(soon);
    if (!options_.embedded() && live() < expected_nodes_)
        say("waiting for service nodes to show that they live: " + count());
    while (live() < expected_nodes_ && now() < give_up) {
        progress_.show([&] { return "service nodes: " + count(); });
        turn(give_up);
    }
    if (given && live() < expected_nodes_)
        return fail(EXIT_NO_ANSWER, "only " + count() + " service nodes are alive; nothing was written");
    if (live() == 0)
        say("no service node is alive: until one comes, nobody confirms what is written");
    return EXIT_DONE;
}

// ---- the policy -----------------------------------------------------------------------------------------------------

// Handles what is due on the loop, waiting a moment for it at most.
void ApplyRun::turn(milliseconds until)
{
    const auto left = std::max(until - now(), milliseconds(0));
    tq_loop_run_once(loop_.get(), static_cast<int>(std::min(left, milliseconds(50)).count()));
}

std::string progress_text(Application &application)
{
    return std::to_string(Application::live_nodes()) + " nodes: " + application.ledger().summary();
}

uint64_t ApplyRun::delivered()
{
    tq_mom_counters counters{};
    tq_mom_counters_get(context_.get(), &counters);
    return counters.delivered;
}

// Hears all that has come: the more nodes answer, the further would fall behind who hears a part of it at a time. Nodes
// on this loop take a turn of it to answer.
void ApplyRun::catch_up()
{
    constexpr int quiet_turns = 2;
    for (int quiet = 0; quiet < quiet_turns; ++quiet) {
        const uint64_t before = delivered();
        tq_loop_run_once(loop_.get(), 0);
        if (delivered() != before)
            quiet = -1;
    }
}

int ApplyRun::write(Application &application)
{
    const auto pause = [&] {
        catch_up();
        progress_.show([&] { return progress_text(application); });
    };
    const auto again = [&] { return connect() == 0; };
    const auto write = [&] {
        return options_.changes_only ? application.write_changes(pause, again) : application.write(pause, again);
    };
    return options_.atomic ? application.atomically(write) : write();
}

void ApplyRun::wait_for_outcomes(Application &application)
{
    Ledger &ledger = application.ledger();
    const milliseconds give_up = now() + milliseconds(static_cast<int64_t>(options_.timeout_s * 1000));
    while (ledger.count(Outcome::waiting) != 0 && now() < give_up) {
        progress_.show([&] { return progress_text(application); });
        turn(give_up);
    }
    ledger.end_waiting(Outcome::timed_out, "no answer in time");
    progress_.clear();
}

int ApplyRun::report(Application &application, int result)
{
    const Ledger &ledger = application.ledger();
    ledger.print(std::cout);
    if (options_.changes_only) {
        const Application::Changes &changes = application.changes();
        std::cout << changes.added << " added, " << changes.changed << " changed, " << changes.removed << " removed, "
                  << ledger.count(Outcome::unchanged) << " unchanged" << std::endl;
    }
    std::cout << ledger.summary() << "; service nodes: " << Application::live_nodes() << std::endl;
    if (application.store_lost())
        return fail(EXIT_UNREACHABLE, "the store went away; what it held of this policy before is not swept");
    if (result != 0)
        return fail(result == TQ_MOM_DISCONNECTED || result == TQ_MOM_TIMEOUT ? EXIT_UNREACHABLE : EXIT_SOME_FAILED,
                    std::string("cannot replace what the store held before: ") + tq_mom_strerror(result));
    const int not_swept = application.not_swept();
    if (not_swept != 0)
        say(std::string("what the store held of this policy before is not all deleted: ") + tq_mom_strerror(not_swept) +
            "; apply it once more");
    if (ledger.count(Outcome::failed) != 0)
        return EXIT_SOME_FAILED;
    if (ledger.count(Outcome::aged) + ledger.count(Outcome::timed_out) != 0)
        return EXIT_NO_ANSWER;
    return not_swept != 0 ? EXIT_NOT_SWEPT : EXIT_DONE;
}

constexpr const char *footer = R"(A policy file:
  application: edge_filter          # application type, at most 31 characters
  acls:
    - id: 10
      class: 1                      # 0 to 255
      name: anti-spoofing           # optional, at most 31 characters
      entries:
        - sn: 10                    # unique in its ACL
          name: private-10          # optional
          priority: 100             # optional, 0 when absent
          match: {etype: ipv4, ipv4_src: 10.0.0.0/8}
          action: {fwd: deny, counter: 10}
        - sn: 1000                  # and so on: an entry for each line of the file
          match: {etype: ipv4, ipv4_src: {prefixes: blocklist.txt}}
          action: {fwd: deny}
        - sn: 9999
          default: true             # the ACL's default entry, one at most
          action: {fwd: permit}
          control: {no_deny: true}
  applies:
    - {acl: 10, port: 1-4, direction: in, priority: 5}
  plx-policy(5) describes the file, plx-attributes(7) every attribute and how its value is written.

Outcomes:
  programmed   every live service node has answered
  stored       in the store, where it needs no confirmation: an ACL, or an entry of
               an ACL that is applied to no port
  failed       refused by a service node or by the store; the status says why
  aged         the library stopped waiting before enough nodes had answered
  timed out    this command did (--timeout)
  unchanged    in the store as it is in the file, and not written (--changes-only); not listed

Simulated nodes (--simulate NODE:WHAT, NODE counted from 1), WHAT being one of:
  size=N              room for N entries
  refuse[=PATTERN]    refuse what matches
  silent[=PATTERN]    take it, and never answer
  delay=MS[@PATTERN]  answer MS milliseconds later
  PATTERN is APP, APP/ACL or APP/ACL/SN, each part possibly *; none matches all.

Exit codes:
  0  everything is programmed or stored      3  some entries failed
  1  wrong usage                             4  some entries aged or timed out
  2  invalid file, nothing was written       5  store unreachable
                                             8  the output could not be written
  10 all is written, but old records are left that were to be deleted

Examples:
  plx apply policy.yaml
  plx apply --nodes 3 --table-size 1024,1024,32 policy.yaml
  plx apply --simulate 1:silent=edge_filter/10 --timeout 2 policy.yaml
  plx apply --store unix:/run/plx-store/store.sock --nodes 2 --wait 60 policy.yaml)";

} // namespace

void add_apply_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<ApplyOptions>();
    CLI::App *command = app.add_subcommand(
        "apply", "Write the policy of a file as a whole, replacing what the store holds of its application type, "
                 "and wait until the service nodes have answered for every entry.");
    command->add_option("FILE", options->file, "policy, in YAML")->required();
    command->add_option("--store", options->store, "address of the store: mem:, unix:/path, redis://host:port")
        ->envname("PLX_STORE")
        ->capture_default_str();
    command->add_option("--db", options->db, "number of the policy database")->capture_default_str();
    command
        ->add_option("--timeout", options->timeout_s, "seconds to wait for outcomes; the library itself waits for 180")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command
        ->add_option("--wait", options->wait_s,
                     "seconds to wait for a store that is not there yet, and as many for --nodes")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command->add_flag("--atomic", options->atomic,
                      "have the service nodes hold the changes back until all are written, and make them together");
    command->add_flag("--json", options->json, "everything as JSON, one object a line; plx-json(5) describes them");
    command->add_flag("--changes-only", options->changes_only,
                      "write only what the store does not have as the file has it, and delete what the file does not "
                      "have");
    command
        ->add_option("--nodes", options->nodes,
                     "service nodes: on a mem: store, how many to simulate (1 when not given); on others, how many "
                     "must be alive before anything is written (those with a record when not given)")
        ->check(CLI::Range(1U, 255U));
    auto *sizes = command
                      ->add_option("--table-size", options->table_sizes,
                                   "room of the simulated nodes in entries, of the first, the second ...")
                      ->delimiter(',')
                      ->allow_extra_args(false);
    auto *simulated = command->add_option("--simulate", options->simulate, "how a simulated node behaves; see below")
                          ->allow_extra_args(false);
    command->footer(footer);
    command->callback([options, sizes, simulated, &exit_code] {
        if (!options->embedded() && sizes->count() + simulated->count() != 0)
            throw CLI::ValidationError("--table-size and --simulate are for nodes on a mem: store");
        if (options->table_sizes.size() > std::max(options->nodes, 1U))
            throw CLI::ValidationError("--table-size has more sizes than there are nodes");
        output().begin("apply", options->json);
        exit_code = ApplyRun(*options).run();
    });
}

} // namespace plx::tool
