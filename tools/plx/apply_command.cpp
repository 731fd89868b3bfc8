// `plx apply`: a policy file, through the library and the store, to the service nodes, and what they said. How it goes
// is in apply_run.hpp; here is what can be asked for.
#include "apply_run.hpp"
#include "commands.hpp"
#include "output.hpp"

#include <cstdlib>
#include <memory>

namespace plx::tool {

namespace {

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
  slow=MS[@PATTERN]   take MS milliseconds for each change, a removal as well
  PATTERN is APP, APP/ACL or APP/ACL/SN, each part possibly *; none matches all.

Exit codes:
  0  everything is programmed or stored      5  store unreachable
  1  wrong usage                             6  --dry-run: something would change
  2  invalid file, nothing was written       7  --plan: the store has changed since
  3  some entries failed                     8  the output could not be written
  4  not every node has confirmed all        9  another apply is at work
  10 all is written, but old records are left that were to be deleted

Examples:
  plx apply policy.yaml
  plx apply --nodes 3 --table-size 1024,1024,32 policy.yaml
  plx apply --simulate 1:silent=edge_filter/10 --timeout 2 policy.yaml
  plx apply --store unix:/run/plx-store/store.sock --nodes 2 --wait 60 policy.yaml)";

// Where it comes from that, a simulation that is asked for needs no other word.
bool of_environment(const std::string &store)
{
    const char *given = std::getenv("PLX_STORE");
    return given != nullptr && store == given;
}

// Options of which it matters whether they were given.
struct Given {
    CLI::Option *file, *plan, *store, *sizes, *simulated;
};

// What is to be written, and from where.
void add_sources(CLI::App &command, ApplyOptions &options, Given &given)
{
    given.file = command.add_option("FILE", options.file, "policy, in YAML; - for standard input");
    auto *type = command.add_option("--app", options.rollback_app, "the application type that --rollback is for");
    command
        .add_flag("--rollback", options.rollback,
                  "instead of writing a file, go back to the policy of --app before the last apply; the next one comes "
                  "back")
        ->needs(type)
        ->excludes(given.file);
    given.plan = command.add_option("--plan", options.plan, "apply what plx diff -o has written, and nothing else")
                     ->excludes(given.file)
                     ->excludes("--rollback");
    command
        .add_flag("--dry-run", options.dry_run, "write nothing: show what would change, and what nodes would not take")
        ->excludes("--rollback");
}

void add_store(CLI::App &command, ApplyOptions &options, Given &given)
{
    given.store = command
                      .add_option("--store", options.store,
                                  "address of the store: unix:/path, redis://host:port, rediss:// with TLS; mem: for "
                                  "one in this process, with simulated nodes")
                      ->envname("PLX_STORE")
                      ->check([](const std::string &text) { return text.empty() ? "an empty address" : ""; })
                      ->capture_default_str();
    command.add_option("--db", options.db, "number of the policy database")->capture_default_str();
    given.sizes = command
                      .add_option("--table-size", options.table_sizes,
                                  "room of the simulated nodes in entries, of the first, the second ...")
                      ->delimiter(',')
                      ->allow_extra_args(false);
    given.simulated = command
                          .add_option("--simulate", options.simulate,
                                      "simulate nodes on a store in this process, and how one behaves; see below")
                          ->allow_extra_args(false);
}

void add_waits(CLI::App &command, ApplyOptions &options)
{
    command
        .add_option("--timeout", options.timeout_s, "seconds to wait for outcomes; the library itself waits for 180")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command
        .add_option("--wait", options.wait_s,
                    "seconds to wait for a store that is not there yet, and as many for --nodes")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command
        .add_option("--wait-lock", options.wait_lock_s,
                    "seconds to wait while another apply of this application is at work")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command
        .add_option("--lock-seconds", options.lock_s,
                    "seconds after which the application counts as free again if this command dies")
        ->check(CLI::Range(1U, 3600U))
        ->capture_default_str();
}

void add_modes(CLI::App &command, ApplyOptions &options)
{
    command.add_flag(
        "--atomic", options.atomic,
        "all or nothing: the service nodes keep to the policy before until all is written, and what any of "
        "them refuses is undone everywhere");
    command.add_flag("--failed-only", options.failed_only, "list only what is not as it was asked for");
    command.add_flag("--json", options.json, "everything as JSON, one object a line; plx-json(5) describes them");
    command.add_option("--progress", options.progress, "json: a line of type \"progress\" every second, with --json")
        ->check(CLI::IsMember({"json"}))
        ->needs("--json");
    command.add_flag("--changes-only", options.changes_only,
                     "write only what the store does not have as the file has it, and delete what the file does not "
                     "have");
    command
        .add_option(
            "--nodes", options.nodes,
            "service nodes: with simulated ones how many (1 when not given); else how many must be alive before "
            "anything is written (those with a record when not given)")
        ->check(CLI::Range(1U, 255U));
}

int apply(ApplyOptions &options, const Given &given)
{
    const bool simulate = given.sizes->count() + given.simulated->count() != 0;
    if (simulate && given.store->count() != 0 && !options.embedded() && !of_environment(options.store))
        throw CLI::ValidationError("--table-size and --simulate are for nodes on a mem: store");
    if (simulate && !options.embedded())
        options.store = "mem:";
    if (options.table_sizes.size() > std::max(options.nodes, 1U))
        throw CLI::ValidationError("--table-size has more sizes than there are nodes");
    if (given.file->count() + given.plan->count() == 0 && !options.rollback)
        throw CLI::RequiredError("FILE");
    options.progress_json = options.progress == "json";
    output().begin("apply", options.json);
    return ApplyRun(options).run();
}

} // namespace

void add_apply_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<ApplyOptions>();
    CLI::App *command = app.add_subcommand(
        "apply", "Write the policy of a file as a whole, replacing what the store holds of its application type, "
                 "and wait until the service nodes have answered for every entry.");
    Given given{};
    add_sources(*command, *options, given);
    add_store(*command, *options, given);
    add_waits(*command, *options);
    add_modes(*command, *options);
    command->footer(footer);
    command->callback([options, given, &exit_code] { exit_code = apply(*options, given); });
}

} // namespace plx::tool
