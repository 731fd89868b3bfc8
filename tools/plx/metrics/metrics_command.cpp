// `plx metrics`: serves what the store tells of all nodes and applications, until it is stopped.
#include "commands.hpp"
#include "metrics/fleet.hpp"
#include "metrics/http_server.hpp"
#include "metrics/numbers.hpp"
#include "output.hpp"
#include "record_options.hpp"
#include "signals.hpp"
#include "store_watch.hpp"

#include <memory>
#include <optional>
#include <systemd/sd-daemon.h>

namespace plx::tool {

namespace {

struct MetricsOptions : StoreOptions {
    std::string listen = "9753";
    uint32_t count_interval = 60; // seconds
};

class MetricsRun {
  public:
    explicit MetricsRun(const MetricsOptions &options) : options_(options) {}
    int run();

  private:
    std::string page() const;
    bool listen();
    void start();

    const MetricsOptions &options_;
    Context context_;
    std::optional<Fleet> fleet_;
    std::optional<HttpServer> server_;
    std::optional<StoreWatch> store_watch_;
    std::optional<Timer> start_timer_;
    int told_ = 0;   // of what the store answers, at the start
    int failed_ = 0; // with what no waiting helps
};

int MetricsRun::run()
{
    context_.reset(tq_context_new(options_.store.c_str()));
    if (context_ == nullptr)
        return tell_no_context(options_.store);
    const StopOnSignal stop(context_->master);
    fleet_.emplace(context_.get(), options_.db, std::chrono::seconds(options_.count_interval));
    if (!listen())
        return EXIT_USAGE;
    start_timer_.emplace(context_->master, [this] { start(); });
    start_timer_->start(milliseconds(0));
    sd_notify(0, "READY=1");
    tq_loop_run(context_->master);
    return failed_ == 0 ? EXIT_DONE : tell_store_error("store " + shown_address(options_.store), failed_);
}

bool MetricsRun::listen()
{
    server_.emplace(context_->master, [this] { return page(); });
    if (const std::string error = server_->listen(options_.listen); !error.empty())
        return output().error(EXIT_USAGE, "--listen " + options_.listen + ": " + error) == EXIT_DONE;
    if (server_->beyond_this_machine())
        output().log(Grade::warning, "everybody who reaches " + options_.listen + " can read the numbers");
    return true;
}

// Until the store is there, but for one that will not have it later either.
void MetricsRun::start()
{
    constexpr milliseconds between_tries{500};
    const int result = fleet_->start();
    if (result == TQ_MOM_DENIED || result == TQ_MOM_BAD_LOGIN || result == TQ_MOM_NO_PASSWORD) {
        failed_ = result;
        tq_loop_stop(context_->master);
    } else if (result != 0) {
        if (result != told_)
            output().log(Grade::warning,
                         "waiting for the store " + shown_address(options_.store) + ": " + tq_mom_strerror(result));
        told_ = result;
        start_timer_->start(between_tries);
    } else {
        output().log(Grade::info, "serving");
        store_watch_.emplace(context_.get(), options_.db);
    }
}

std::string MetricsRun::page() const
{
    Exposition page;
    add_program(page, context_->master);
    add_store_client(page, context_.get(), options_.db);
    fleet_->add_to(page);
    return std::move(page).take();
}

} // namespace

void add_metrics_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<MetricsOptions>();
    CLI::App *command =
        app.add_subcommand("metrics", "Serve numbers of all nodes and applications for Prometheus, until interrupted.");
    options->add_to(*command);
    command->add_option("--listen", options->listen, "where: PORT (of the loopback), ADDRESS:PORT or unix:/path")
        ->capture_default_str();
    command
        ->add_option("--count-interval", options->count_interval,
                     "seconds between two counts of the records that are asked for")
        ->check(CLI::Range(1U, 86'400U))
        ->capture_default_str();
    command->footer("The page is /metrics; plx-metrics(1) tells what each number means. plx node --metrics serves a "
                    "node's own.");
    command->callback([options, &exit_code] {
        output().begin("metrics", options->json);
        exit_code = MetricsRun(*options).run();
    });
}

} // namespace plx::tool
