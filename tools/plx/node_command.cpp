// `plx node`: a service node as a daemon, over a simulated forwarding plane or the Linux kernel's.
//
// It starts before or after the store, waits for it, and says so; one that refuses it is not waited for. On SIGTERM
// or SIGINT it takes its record out of the store and ends.
#include "commands.hpp"
#include "metrics/http_server.hpp"
#include "metrics/numbers.hpp"
#include "nftables_flags.hpp"
#include "nodes/node_records.hpp"
#include "nodes/node_watch.hpp"
#include "output.hpp"
#include "plane/nftables/nftables_plane.hpp"
#include "plane/node.hpp"
#include "plane/simulated/simulated.hpp"
#include "record_options.hpp"
#include "records/host.hpp"
#include "records/record.hpp"
#include "rows.hpp"
#include "signals.hpp"
#include "store_watch.hpp"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <optional>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <random>
#include <sched.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace plx::tool {

namespace {

void log(const std::string &text)
{
    output().log(Grade::info, text);
}

void warn(const std::string &text)
{
    output().log(Grade::warning, text);
}

struct NodeCommandOptions {
    std::string store = "unix:/run/plx-store/store.sock";
    std::string plane = "sim";
    plane::NodeOptions node;
    std::optional<size_t> table_size;
    std::vector<std::string> simulate;
    NftablesFlags nftables;
    std::string metrics; // where numbers are served; "": nowhere
    size_t metrics_entries = 0;
    bool json = false;
};

class NodeRun {
  public:
    explicit NodeRun(NodeCommandOptions options) : options_(std::move(options)) {}
    int run();

  private:
    bool serve_numbers();
    std::string numbers() const;
    bool make_plane();
    bool make_simulated();
    bool make_nftables();
    int start_nftables();
    void read_ports();
    void release();
    int wait_for_store(const StopOnSignal &stop);
    int start(const StopOnSignal &stop);
    int look_for_twin(const StopOnSignal &stop, bool &found);
    int claim(const StopOnSignal &stop, bool &lost);
    void run_until(milliseconds end, const StopOnSignal &stop, const bool &enough);
    Context new_context() const { return Context(tq_context_new_on(options_.store.c_str(), loop_.get())); }
    Record record(const ProtobufCMessageDescriptor &table) const;
    void retire();
    bool refuse(const std::string &text) const { return output().error(EXIT_USAGE, text) == EXIT_DONE; }

    NodeCommandOptions options_;
    Loop loop_;
    std::unique_ptr<plane::Plane> plane_;
    plane::nftables::NftablesPlane *nftables_ = nullptr; // the plane, when it is one
    std::optional<plane::Node> node_;
    tq_context *connection_ = nullptr; // the node's
    std::optional<HttpServer> server_;
    std::optional<StoreWatch> store_watch_; // of the node's connection
    bool twin_ = false;                     // another node of this identity lives
};

bool NodeRun::serve_numbers()
{
    if (options_.metrics.empty())
        return true;
    server_.emplace(loop_.get(), [this] { return numbers(); });
    if (const std::string error = server_->listen(options_.metrics); !error.empty())
        return refuse("--metrics " + options_.metrics + ": " + error);
    if (server_->beyond_this_machine())
        warn("everybody who reaches " + options_.metrics + " can read the numbers");
    return true;
}

// While the store is waited for there are only those of the program.
std::string NodeRun::numbers() const
{
    Exposition page;
    add_program(page, loop_.get());
    if (node_) {
        const auto &id = options_.node;
        add_store_client(page, connection_, id.db);
        add_node(page, *node_, text_of(NodeName{id.dev, id.slot, id.id}), options_.metrics_entries);
    }
    return std::move(page).take();
}

bool NodeRun::make_plane()
{
    const bool kernel = options_.plane == "nftables";
    if (!kernel && options_.nftables.any())
        return refuse("--port and the options beside it are for --plane nftables");
    if (kernel && !options_.simulate.empty())
        return refuse("--simulate is for --plane sim");
    return kernel ? make_nftables() : make_simulated();
}

bool NodeRun::make_simulated()
{
    plane::SimulatedOptions simulated;
    simulated.table_size = options_.table_size.value_or(simulated.table_size);
    for (const std::string &text : options_.simulate)
        if (!simulated.add(text))
            return refuse("--simulate: '" + text + "' is not understood; see plx node --help");
    plane_ = std::make_unique<plane::SimulatedPlane>(std::move(simulated));
    return true;
}

bool NodeRun::make_nftables()
{
    std::string error;
    auto config = config_of(options_.nftables, error);
    if (!config)
        return refuse(error);
    if (config->ports.empty())
        warn("no port is here: every apply belongs to another node (--port, --ports)");
    for (const Form *form : config->ignored)
        log("ignoring " + std::string(form->name) + " of every entry, as told");
    const auto &id = options_.node;
    plane::nftables::NftablesOptions options;
    for (const uint32_t part : {id.db, id.dev, id.slot, id.id})
        options.table += (options.table.empty() ? "plx_" : "_") + std::to_string(part);
    options.config = std::move(*config);
    options.table_size = options_.table_size.value_or(options.table_size);
    auto plane = std::make_unique<plane::nftables::NftablesPlane>(std::move(options), warn);
    nftables_ = plane.get();
    plane_ = std::move(plane);
    if (const int failure = start_nftables(); failure != 0) {
        const std::string holder = failure == EPERM ? nftables_->holder() : "";
        return refuse(std::string("cannot use the kernel's nf_tables: ") + strerror(failure) +
                      (!holder.empty()    ? "; " + holder + " has the table of this identity (--dev, --slot, --id)"
                       : failure == EPERM ? "; it takes CAP_NET_ADMIN"
                                          : ""));
    }
    return true;
}

// A socket stays in the namespace that it was opened in; the store is where the command was started.
int NodeRun::start_nftables()
{
    if (options_.nftables.netns.empty())
        return nftables_->start();
    const int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = open(("/run/netns/" + options_.nftables.netns).c_str(), O_RDONLY | O_CLOEXEC);
    if (there < 0)
        warn("there is no network namespace '" + options_.nftables.netns + "'");
    int error = home < 0 || there < 0 || setns(there, CLONE_NEWNET) != 0 ? errno : 0;
    if (error == 0) {
        error = nftables_->start();
        if (setns(home, CLONE_NEWNET) != 0)
            error = errno;
    }
    close(home);
    close(there);
    return error;
}

void NodeRun::read_ports()
{
    std::string error;
    auto ports = nftables_ == nullptr ? std::nullopt : ports_of(options_.nftables, error);
    if (ports) {
        log("ports read again: " + std::to_string(ports->size()));
        nftables_->set_ports(std::move(*ports));
        if (node_)
            node_->look();
    } else if (!error.empty()) {
        warn("the ports stay as they are: " + error);
    }
}

void NodeRun::release()
{
    if (node_)
        node_->release();
}

int NodeRun::run()
{
    std::random_device random;
    options_.node.token = static_cast<uint64_t>(random()) << 32 | random();
    loop_.reset(tq_loop_new());
    if (loop_ == nullptr)
        return tell_no_context(options_.store);
    if (!serve_numbers() || !make_plane())
        return EXIT_USAGE;
    if (new_context() == nullptr)
        return tell_no_context(options_.store);
    const StopOnSignal stop(loop_.get(), [this](int signal) { signal == SIGHUP ? read_ports() : release(); });
    const int result = wait_for_store(stop);
    if (result != 0)
        return output().error(EXIT_UNREACHABLE, std::string("cannot start: ") + tq_mom_strerror(result));
    if (twin_)
        return output().error(EXIT_TWIN, "a node of this identity lives: give each its own --dev, --slot and --id");
    if (node_) {
        log("ready");
        sd_notify(0, "READY=1");
        tq_loop_run(loop_.get());
        sd_notify(0, "STOPPING=1");
        retire();
    }
    log("ended");
    return EXIT_DONE;
}

// Tries until the node runs, the process is asked to end, or the store refuses what will not be allowed later either.
int NodeRun::wait_for_store(const StopOnSignal &stop)
{
    constexpr milliseconds between_tries{500};
    int told = 0;
    while (!stop.asked()) {
        const int result = start(stop);
        if (result == 0 || result == TQ_MOM_DENIED || result == TQ_MOM_BAD_LOGIN || result == TQ_MOM_NO_PASSWORD)
            return result;
        if (result != told)
            warn("waiting for the store " + shown_address(options_.store) + ": " + tq_mom_strerror(result));
        told = result;
        run_until(now() + between_tries, stop, false);
    }
    return 0;
}

// Whether another node of this identity lives. One that left its record behind may be dead: who lives shows it when
// it is called, and at its next heartbeat in any case.
int NodeRun::look_for_twin(const StopOnSignal &stop, bool &found)
{
    constexpr milliseconds until_an_answer{1000}, until_a_heartbeat{6000};
    const Context context = new_context();
    const Record own = record(s_policy__service_node__descriptor);
    const Found left(tq_mom_hgetall_sync(context.get(), options_.node.db, own.message()));
    if (left == nullptr || left->status != 0 || left->record == nullptr)
        return left == nullptr ? int{TQ_MOM_DISCONNECTED} : left->status;
    const auto hear = [](void *, const tq_mom_notification *told, void *arg) -> int32_t {
        *static_cast<bool *>(arg) = *static_cast<bool *>(arg) || told->event == TQ_MOM_EVENT_PUBLISHED;
        return 0;
    };
    if (const int result = tq_mom_subscribe(context.get(), options_.node.db, own.message(), 3, hear, &found))
        return result;
    const bool called = call_nodes(context.get(), options_.node.db) == 0;
    const milliseconds end = now() + (called ? until_an_answer : until_a_heartbeat);
    run_until(end, stop, found);
    return 0;
}

void NodeRun::run_until(milliseconds end, const StopOnSignal &stop, const bool &enough)
{
    while (!enough && !stop.asked() && now() < end)
        tq_loop_run_once(loop_.get(), static_cast<int>((end - now()).count()));
}

// Of those that start at the same moment none sees another live. Each leaves its token where its report will be, and
// the last one's stays; one that runs already, whose record the store has lost, puts its own there when it is called.
int NodeRun::claim(const StopOnSignal &stop, bool &lost)
{
    constexpr milliseconds until_all_have_claimed{250};
    const Context context = new_context();
    Record own = record(plx_node__node_report__descriptor);
    own.set_number("token", options_.node.token);
    if (const int result = tq_mom_set_sync(context.get(), options_.node.db, own.message()); result != 0)
        return result;
    (void)call_nodes(context.get(), options_.node.db);
    run_until(now() + until_all_have_claimed, stop, false);
    const Found left(tq_mom_hgetall_sync(context.get(), options_.node.db, own.message()));
    if (left == nullptr || left->status != 0)
        return left == nullptr ? int{TQ_MOM_DISCONNECTED} : left->status;
    lost = left->record != nullptr && number_field(left->record, "token") != options_.node.token;
    return 0;
}

// A node takes a failed heartbeat for a late one, so its first is tried out here: who may not write it is told at
// once.
int NodeRun::start(const StopOnSignal &stop)
{
    int result = look_for_twin(stop, twin_);
    if (result == 0 && !twin_)
        result = claim(stop, twin_);
    if (result != 0 || twin_ || stop.asked())
        return result;
    result =
        tq_mom_set_sync(new_context().get(), options_.node.db, record(s_policy__service_node__descriptor).message());
    if (result != 0)
        return result;
    plane::NodeOptions options = options_.node;
    options.tell = warn;
    Context context = new_context();
    connection_ = context.get();
    node_.emplace(std::move(context), *plane_, std::move(options));
    result = node_->start();
    if (result == 0)
        store_watch_.emplace(connection_, options_.node.db);
    else
        node_.reset();
    return result;
}

Record NodeRun::record(const ProtobufCMessageDescriptor &table) const
{
    Record record(table);
    record.set_key_number(0, options_.node.dev);
    record.set_key_number(1, options_.node.slot);
    record.set_key_number(2, options_.node.id);
    return record;
}

// Without its record, those who come later do not wait for this node.
void NodeRun::retire()
{
    store_watch_.reset();
    node_.reset();
    const Context context = new_context();
    for (const auto *table : {&s_policy__service_node__descriptor, &plx_node__node_report__descriptor})
        if (const int result = tq_mom_del_sync(context.get(), options_.node.db, record(*table).message()); result != 0)
            warn("its " + table_name(*table) + " stays in the store: " + tq_mom_strerror(result));
}

// Who the node is, and where.
void add_identity(CLI::App &command, NodeCommandOptions &options)
{
    command
        .add_option("--store", options.store, "address of the store: unix:/path, redis://host:port, rediss:// with TLS")
        ->envname("PLX_STORE")
        ->capture_default_str();
    command.add_option("--db", options.node.db, "number of the policy database")->capture_default_str();
    command.add_option("--dev", options.node.dev, "device number")->capture_default_str();
    command.add_option("--slot", options.node.slot, "slot number")->capture_default_str();
    command.add_option("--id", options.node.id, "number of the service on its slot")->capture_default_str();
}

template <typename Unit>
CLI::Option *add_time(CLI::App &command, const char *name, milliseconds &time, const char *text)
{
    return command
        .add_option_function<uint32_t>(
            name, [&time](uint32_t count) { time = Unit(count); }, text)
        ->default_str(std::to_string(std::chrono::duration_cast<Unit>(time).count()));
}

void add_behaviour(CLI::App &command, NodeCommandOptions &options)
{
    add_time<milliseconds>(command, "--heartbeat", options.node.heartbeat,
                           "milliseconds between two signs of life; applications count a node out after 20 s without")
        ->check(CLI::Range(10U, 5000U));
    add_time<std::chrono::seconds>(
        command, "--hold", options.node.hold,
        "seconds for which that stays programmed which the store has lost, if its application does not "
        "write it again before; 0: until it has")
        ->check(CLI::Range(0U, 31'536'000U));
    command
        .add_option("--counter-rate", options.node.counter_rate,
                    "counters published in a second, at most; those of other entries follow in turn")
        ->check(CLI::Range(1U, 1'000'000U))
        ->capture_default_str();
}

void add_plane(CLI::App &command, NodeCommandOptions &options)
{
    command
        .add_option("--plane", options.plane, "forwarding plane behind the node: sim, or nftables, the Linux kernel's")
        ->check(CLI::IsMember({"sim", "nftables"}))
        ->capture_default_str();
    command.add_option("--table-size", options.table_size,
                       "room of the plane in entries; 4096 of sim, 1000000 of nftables");
    command.add_option("--simulate", options.simulate, "how the simulated plane behaves; see below")
        ->allow_extra_args(false);
    add_options(command, options.nftables);
}

void add_numbers(CLI::App &command, NodeCommandOptions &options)
{
    command.add_option("--metrics", options.metrics,
                       "serve numbers for Prometheus there: PORT (of the loopback), ADDRESS:PORT or unix:/path");
    command
        .add_option("--metrics-entries", options.metrics_entries,
                    "with the counters of so many entries, those that most packets hit; none when not given")
        ->check(CLI::Range(0U, 10'000U));
}

constexpr char node_footer[] =
    "Behaviour of the simulated plane (--simulate), any number of:\n"
    "  size=N  refuse[=PATTERN]  silent[=PATTERN]  delay=MS[@PATTERN]  slow=MS[@PATTERN]\n"
    "  PATTERN is APP, APP/ACL or APP/ACL/SN, each part possibly *; none matches all.\n\n"
    "The plane nftables is described in plx-nftables(7). SIGHUP reads the file of --ports again.\n"
    "A store that comes back without what it held withdraws nothing for a while (--hold). SIGUSR1 ends that.\n"
    "SIGTERM and SIGINT end the node. It tells systemd when it is ready (Type=notify).";

} // namespace

void add_node_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<NodeCommandOptions>();
    CLI::App *command =
        app.add_subcommand("node", "Run a service node: take up what the store asks for, program it, and answer.");
    add_identity(*command, *options);
    add_behaviour(*command, *options);
    add_plane(*command, *options);
    add_numbers(*command, *options);
    command->add_flag("--json", options->json, "what it tells, one JSON object a line, on standard output");
    command->footer(node_footer);
    add_forget_command(*command, exit_code);
    command->callback([options, command, &exit_code] {
        if (!command->get_subcommands().empty())
            return;
        const auto &node = options->node;
        output().begin("node", options->json, "node " + text_of(NodeName{node.dev, node.slot, node.id}));
        exit_code = NodeRun(*options).run();
    });
}

} // namespace plx::tool
