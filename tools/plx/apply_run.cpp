// See apply_run.hpp.
#include "apply_run.hpp"

#include "diff_report.hpp"
#include "output.hpp"
#include "plan.hpp"
#include "record_options.hpp"

#include <csignal>
#include <iostream>
#include <plx/plx_node.pb-c.h>
#include <tq_mom.h>

namespace plx::tool {

namespace {

// A live node writes its record every 5 seconds.
constexpr milliseconds heartbeat_heard{6500};
// A node that starts when the store does needs about half as long.
constexpr milliseconds untold_wait{1000};

} // namespace

int ApplyRun::run()
{
    policy_.application = options_.rollback_app;
    if (!options_.rollback && !know_file() && !(options_.plan.empty() ? read(policy_) : read_plan()))
        return EXIT_BAD_FILE;
    make_context();
    if (loop_ != nullptr)
        stop_.emplace(loop_.get());
    try {
        if (const int code = open_store(); code != EXIT_DONE)
            return code;
        if (options_.dry_run)
            return dry_run();
        if (const int code = prepare(); code != EXIT_DONE)
            return code;
        if (const int code = compare_known(); code != EXIT_DONE)
            return code;
    } catch (const Interrupted &) {
        return fail(stop_->signal() == SIGINT ? EXIT_INTERRUPTED : EXIT_TERMINATED, "interrupted; nothing was written");
    }
    if (options_.rollback)
        return roll_back();
    Application application(context_.get(), options_.db, policy_);
    if (known_)
        application.keep(sum_);
    try {
        return apply(application);
    } catch (const Interrupted &) {
        return interrupted(application);
    }
}

int ApplyRun::prepare()
{
    policies_.emplace(context_.get(), options_.db, policy_.application);
    if (options_.embedded())
        return EXIT_DONE;
    store_watch_.emplace(context_.get(), options_.db, [this](Grade, const std::string &text) { say(text); });
    if (const int code = take_lock(); code != EXIT_DONE)
        return code;
    const int code = take_back_what_was_left();
    return code == EXIT_DONE && !options_.plan.empty() ? check_plan() : code;
}

// Under the lock: nobody else applies between this look and the writing.
int ApplyRun::check_plan()
{
    PolicyDiff diff(policy_);
    if (const int result = diff.compare(context_.get(), options_.db); result != 0)
        return fail_store("nothing was written: store", result);
    return diff.state() == planned_from_
               ? EXIT_DONE
               : fail(EXIT_STALE_PLAN,
                      "nothing was written: the store is not what the plan was made from; make it anew");
}

int ApplyRun::dry_run()
{
    PolicyDiff diff(policy_);
    int result = diff.compare(context_.get(), options_.db);
    if (result != 0)
        return fail_store("store", result);
    const int code = tell_changes(policy_.application, diff.changes(), diff.unchanged());
    result = tell_objections(context_.get(), options_.db, policy_, diff.applies(), true);
    return result == 0 ? code : fail_store("store", result);
}

// Nodes start after the library listens: it hears of them at once, not at their second sign of life.
int ApplyRun::apply(Application &application)
{
    const auto answered = [&](const ProtobufCMessage *status, const std::string &node) {
        application.answered(status, node);
    };
    nodes_.emplace(context_.get(), options_.db);
    if (const int result = ask([&] { return nodes_->follow(policy_.application, answered); }); result != 0)
        return fail_store("store", result);
    if (const int result = ask([&] { return application.start(); }); result != 0)
        return fail(EXIT_UNREACHABLE, "cannot register with the library: result " + std::to_string(result));
    if (const int code = start_nodes(); code != EXIT_DONE)
        return code;
    if (const int code = wait_for_nodes(application); code != EXIT_DONE)
        return code;
    if (const int code = keep_policy(application); code != EXIT_DONE)
        return code;
    const int result = options_.atomic ? write_held(application) : write(application);
    if (!undone_)
        wait_for_outcomes(application);
    if (!undone_)
        keep_file(application);
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

int ApplyRun::fail_store(const std::string &what, int result)
{
    progress_.clear();
    return tell_store_error(what, result);
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

bool ApplyRun::read_plan()
{
    std::string error;
    auto plan = tool::read_plan(options_.plan, error);
    if (plan) {
        policy_ = std::move(plan->policy);
        planned_from_ = plan->state;
    } else {
        output().error(EXIT_BAD_FILE, "this is not a plan: " + error, {.file = options_.plan});
    }
    return plan.has_value();
}

// ---- service nodes --------------------------------------------------------------------------------------------------

int ApplyRun::start_nodes()
{
    if (!options_.embedded())
        return EXIT_DONE;
    std::vector<plane::SimulatedOptions> nodes(std::max(options_.nodes, 1U));
    for (size_t node = 0; node < std::min(nodes.size(), options_.table_sizes.size()); ++node)
        nodes[node].table_size = options_.table_sizes[node];
    for (const std::string &text : options_.simulate) {
        if (!plane::add_simulated(nodes, text))
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

// Asks who lives, and waits until as many do. A live node is heard within a heartbeat.
size_t ApplyRun::wait_for_life(size_t expected, milliseconds longest, const std::function<size_t()> &live)
{
    const auto count = [&] { return std::to_string(live()) + " of " + std::to_string(expected); };
    const milliseconds give_up = now() + std::max(heartbeat_heard, longest);
    call_nodes(context_.get(), options_.db);
    const milliseconds soon = std::min(give_up, now() + untold_wait);
    while (live() < expected && now() < soon)
        turn(soon);
    if (!options_.embedded() && live() < expected)
        say("waiting for service nodes to show that they live: " + count());
    while (live() < expected && now() < give_up) {
        progress_.show([&] { return "service nodes: " + count(); });
        turn(give_up);
    }
    return live();
}

// An outcome needs as many answers as the library knows nodes when it comes, so they must be known first.
int ApplyRun::wait_for_nodes(Application &application)
{
    const bool given = options_.nodes != 0 || options_.embedded();
    const size_t expected = options_.embedded() ? fleet_->size() : given ? options_.nodes : nodes_->recorded();
    const size_t live = wait_for_life(expected, given ? options_.wait() : milliseconds(0),
                                      [] { return static_cast<size_t>(Application::live_nodes()); });
    if (given && live < expected)
        return fail(EXIT_NO_ANSWER, "only " + std::to_string(live) + " of " + std::to_string(expected) +
                                        " service nodes are alive; nothing was written");
    if (live == 0)
        say("no service node is alive: until one comes, nobody confirms what is written");
    application.expect(nodes_->alive());
    return EXIT_DONE;
}

// Whether any that is expected is not there, or has not what it should. A node that was silent from the beginning is
// expected where no number was given.
bool ApplyRun::tell_missing_nodes()
{
    const NodeWatch::Names vanished = nodes_->vanished();
    const NodeWatch::Names silent = options_.nodes == 0 ? nodes_->silent() : NodeWatch::Names();
    const auto told = [this](const NodeWatch::Names &names, const std::string &what) {
        if (!names.empty())
            fail(EXIT_NO_ANSWER, what + ": " + listed(names));
    };
    told(silent, "service nodes that have a record and show no life");
    told(vanished, "service nodes that went away meanwhile");
    told(without_, "service nodes that do not say that they have what was asked for");
    return !vanished.empty() || !silent.empty() || !without_.empty();
}

// ---- the policy -----------------------------------------------------------------------------------------------------

// Handles what is due on the loop, waiting a moment for it at most.
void ApplyRun::turn(milliseconds until)
{
    const auto left = std::max(until - now(), milliseconds(0));
    tq_loop_run_once(loop_.get(), static_cast<int>(std::min(left, milliseconds(50)).count()));
    if (stop_->asked())
        throw Interrupted();
}

// "8120 of 10000 confirmed, 3100/s, 1 s left | slowest 0/2/0: 1880 behind"
void ApplyRun::show_progress(Application &application)
{
    const Ledger &ledger = application.ledger();
    const size_t total = ledger.size() - ledger.count(Outcome::stored) - ledger.count(Outcome::unchanged);
    const size_t open = ledger.count(Outcome::waiting) + ledger.count(Outcome::unwritten);
    const size_t done = total - std::min(total, open);
    const auto elapsed_ms = static_cast<uint64_t>(std::max<int64_t>((now() - begun_).count(), 1));
    const uint64_t rate = done * 1000 / elapsed_ms;
    if (options_.progress_json && now() >= next_progress_) {
        next_progress_ = now() + std::chrono::seconds(1);
        const auto [node, has] = nodes_->slowest();
        output().line("progress", {{"done", done}, {"total", total}, {"per_second", rate}, {"slowest", node}});
        std::cout.flush();
    }
    progress_.show([&] {
        std::string text =
            std::to_string(done) + " of " + std::to_string(total) + " confirmed, " + std::to_string(rate) + "/s";
        if (rate != 0 && open != 0)
            text += ", " + std::to_string(open / rate) + " s left";
        const auto [node, has] = nodes_->slowest();
        if (!node.empty() && has < total)
            text += " | slowest " + node + ": " + std::to_string(total - has) + " behind";
        return text;
    });
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
        turn(now());
        if (delivered() != before)
            quiet = -1;
    }
}

int ApplyRun::write(Application &application)
{
    begun_ = now();
    const auto pause = [&] {
        catch_up();
        show_progress(application);
    };
    const auto again = [&] { return connect() == 0; };
    return options_.only_changes() ? application.write_changes(pause, again) : application.write(pause, again);
}

// Before anything is released: whether a node would refuse any of it, as far as they say in time.
bool ApplyRun::nodes_object(Application &application)
{
    questions_.emplace(context_.get(), options_.db);
    const int asked = ask([&] {
        const int started = questions_->start();
        return started != 0 ? started : questions_->put_trial(policy_.application);
    });
    if (asked != 0)
        return false;
    const milliseconds give_up = now() + options_.timeout();
    while (!questions_->answered(nodes_->living()) && now() < give_up)
        turn(give_up);
    bool any = false;
    for (const auto &[name, answer] : questions_->take()) {
        std::map<uint64_t, int32_t> statuses;
        for (const NodeEntry &entry : answer.entries)
            if (answer.tried && entry.status != 0)
                statuses[entry.key] = entry.status;
        any = application.would_refuse(text_of(name), statuses) || any;
    }
    return any;
}

// The nodes keep to the copy until all is written, none of them objects, and it is released; what is refused then all
// the same, or not confirmed, is undone.
int ApplyRun::write_held(Application &application)
{
    int result = ask([&] { return policies_->hold(*copy_); });
    if (result != 0)
        return result;
    holding_ = true;
    application.begin_commit();
    result = write(application);
    bool whole = result == 0 && !application.store_lost() && application.ledger().count(Outcome::failed) == 0;
    whole = whole && !nodes_object(application);
    application.end_commit(whole);
    if (whole) {
        result = ask([&] { return policies_->release(); });
        holding_ = result != 0;
    }
    if (whole && result == 0)
        wait_for_outcomes(application);
    const Ledger &ledger = application.ledger();
    const size_t failures =
        ledger.count(Outcome::failed) + ledger.count(Outcome::aged) + ledger.count(Outcome::timed_out);
    if (whole && result == 0 && failures == 0 && without_.empty())
        return 0;
    undone_ = true;
    if (!whole)
        application.withhold();
    if (application.store_lost() ||
        put_back(*copy_, whole ? "not all of it could be made" : "nothing of it was made") != EXIT_DONE)
        return result != 0 ? result : static_cast<int>(TQ_MOM_DISCONNECTED);
    wait_for_policy_before();
    return result;
}

void ApplyRun::wait_for_policy_before()
{
    Digest wanted;
    if (policies_->digest(wanted, false) != 0)
        return;
    wait_for_reports(wanted);
    if (without_.empty())
        say("the policy before is in force on " + (nodes_->alive().empty() ? "no node" : listed(nodes_->alive())));
}

void ApplyRun::wait_for_outcomes(Application &application)
{
    Ledger &ledger = application.ledger();
    const milliseconds give_up = now() + options_.timeout();
    while (ledger.count(Outcome::waiting) != 0 && now() < give_up) {
        show_progress(application);
        turn(give_up);
    }
    application.time_out();
    progress_.clear();
    sum_ = application.sum();
    Digest wanted = sum_.on_nodes();
    const bool all = ledger.count(Outcome::failed) + ledger.count(Outcome::aged) + ledger.count(Outcome::timed_out) +
                         ledger.count(Outcome::unwritten) ==
                     0;
    if (all && application.not_swept() == 0 && policies_->digest(wanted, true) == 0)
        wait_for_reports(wanted);
}

// What was removed has no answer of its own: a node's report tells that it is gone. It is waited for as long as reports
// change.
void ApplyRun::wait_for_reports(const Digest &wanted)
{
    const milliseconds begun = now(), give_up = begun + options_.timeout();
    for (;;) {
        without_ = nodes_->without(wanted);
        if (without_.empty() || now() >= std::min(give_up, std::max(begun, nodes_->last_change()) + heartbeat_heard))
            return;
        progress_.show([&] { return "waiting for " + listed(without_) + " to have all"; });
        turn(give_up);
    }
}

// ---- the end --------------------------------------------------------------------------------------------------------

int ApplyRun::interrupted(Application &application)
{
    const int code = stop_->signal() == SIGINT ? EXIT_INTERRUPTED : EXIT_TERMINATED;
    const Ledger &ledger = application.ledger();
    const size_t written = ledger.size() - ledger.count(Outcome::unwritten) - ledger.count(Outcome::unchanged);
    stop_.reset(); // what follows is short, and ends by itself
    progress_.clear();
    ledger.print(std::cout);
    std::cout.flush();
    if (holding_ && copy_) {
        application.end_commit(false);
        if (put_back(*copy_, "interrupted") != EXIT_DONE)
            return code;
        return fail(code, "interrupted; of the new policy nothing is left in the store");
    }
    return fail(code, "interrupted: " + std::to_string(written) + " of " + std::to_string(ledger.size()) +
                          " records are written and stay in the store" +
                          (ledger.count(Outcome::unwritten) != 0 ? ", and so does what it held before" : ""));
}

int ApplyRun::report(Application &application, int result)
{
    const Ledger &ledger = application.ledger();
    progress_.clear();
    ledger.print(std::cout, options_.failed_only);
    const Application::Changes &changes = application.changes();
    Row &summary = output().summary();
    for (const auto &[name, count] : ledger.counts())
        summary[name] = count;
    summary["simulated"] = options_.embedded();
    summary["nodes"] = nodes_->alive();
    if (options_.only_changes())
        summary.update({{"added", changes.added}, {"changed", changes.changed}, {"removed", changes.removed}});
    if (!options_.json && options_.only_changes())
        std::cout << changes.added << " added, " << changes.changed << " changed, " << changes.removed << " removed, "
                  << ledger.count(Outcome::unchanged) << " unchanged\n";
    if (!options_.json)
        std::cout << ledger.summary() << (options_.embedded() ? "; simulated service nodes: " : "; service nodes: ")
                  << Application::live_nodes() << std::endl;
    return exit_code(application, result);
}

int ApplyRun::exit_code(Application &application, int result)
{
    const Ledger &ledger = application.ledger();
    if (application.store_lost())
        return fail(EXIT_UNREACHABLE, std::string(application.store_silent()
                                                      ? "the store did not answer in time, nor when asked once more"
                                                      : "the store went away") +
                                          (holding_ ? "; the nodes keep to the policy before: apply again"
                                                    : "; what it held of this policy before is not swept"));
    if (result != 0)
        return fail(may_pass(result) || result == TQ_MOM_DENIED ? EXIT_UNREACHABLE : EXIT_SOME_FAILED,
                    std::string("cannot replace what the store held before: ") + tq_mom_strerror(result));
    const int not_swept = application.not_swept();
    if (not_swept != 0)
        say(std::string("what the store held of this policy before is not all deleted: ") + tq_mom_strerror(not_swept) +
            "; apply it once more");
    if (application.denied())
        return fail(EXIT_UNREACHABLE, std::string("store: ") + tq_mom_strerror(TQ_MOM_DENIED));
    if (ledger.count(Outcome::failed) != 0)
        return EXIT_SOME_FAILED;
    if (tell_missing_nodes() || ledger.count(Outcome::aged) + ledger.count(Outcome::timed_out) != 0)
        return EXIT_NO_ANSWER;
    return not_swept != 0 ? EXIT_NOT_SWEPT : EXIT_DONE;
}

} // namespace plx::tool
