// `plx top`: the service nodes and the busiest entries, drawn again and again until it is stopped. On a terminal each
// drawing takes the place of the last; elsewhere they follow each other.
#include "commands.hpp"
#include "display.hpp"
#include "nodes/node_rows.hpp"
#include "output.hpp"
#include "record_options.hpp"
#include "rows.hpp"
#include "signals.hpp"

#include <algorithm>
#include <iostream>
#include <memory>
#include <plx/s_policy.pb-c.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace plx::tool {

namespace {

struct TopOptions : StoreOptions {
    uint32_t interval = 1; // seconds
    uint32_t entries = 10;
    uint64_t count = 0; // drawings; 0: no end
};

// Hits of an entry as they were published last, and how fast they grew since the time before.
struct Traffic {
    uint64_t packets = 0, bytes = 0, time_ms = 0;
    double packets_per_second = 0, bytes_per_second = 0;

    void take(uint64_t now_packets, uint64_t now_bytes, uint64_t now_ms)
    {
        const bool grew = time_ms != 0 && now_ms > time_ms && now_packets >= packets && now_bytes >= bytes;
        const double seconds = static_cast<double>(now_ms - time_ms) / 1000;
        packets_per_second = grew ? static_cast<double>(now_packets - packets) / seconds : 0;
        bytes_per_second = grew ? static_cast<double>(now_bytes - bytes) / seconds : 0;
        packets = now_packets;
        bytes = now_bytes;
        time_ms = now_ms;
    }
};

// A terminal without cursor and wrapped lines, until it goes.
class Screen {
  public:
    Screen() : terminal_(!output().json() && isatty(STDOUT_FILENO) != 0)
    {
        if (terminal_)
            std::cout << "\033[?25l\033[?7l";
    }
    ~Screen()
    {
        if (terminal_)
            std::cout << "\033[?7h\033[?25h" << std::flush;
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    void clear() const { std::cout << (terminal_ ? "\033[H\033[2J" : ""); }
    // Lines that are left for entries below so many others.
    size_t room(size_t others, size_t wanted) const
    {
        winsize size{};
        if (!terminal_ || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0)
            return wanted;
        return std::min(wanted, size.ws_row - std::min<size_t>(others, size.ws_row));
    }

  private:
    bool terminal_;
};

class TopRun {
  public:
    explicit TopRun(const TopOptions &options) : options_(options) {}
    int run();

  private:
    static int32_t on_counter(void *, const tq_mom_notification *change, void *arg);
    int start();
    void look();
    void draw(const Screen &screen) const;
    void tell() const;
    std::vector<Row> node_rows() const;
    std::vector<Row> entry_rows(size_t most) const;

    const TopOptions &options_;
    Context context_;
    std::optional<NodeWatch> nodes_;
    std::map<AceKey, Traffic> traffic_;
    int store_ = 0; // the last result
};

int TopRun::run()
{
    int exit_code = EXIT_DONE;
    context_ = open_store(options_, exit_code);
    if (context_ == nullptr)
        return exit_code;
    const StopOnSignal stop(context_->master);
    if (const int result = start(); result != 0)
        return tell_store_error("store", result);
    const Screen screen;
    for (uint64_t drawn = 0; std::cout && !stop.asked();) {
        const milliseconds next = now() + std::chrono::seconds(options_.interval);
        look();
        options_.json ? tell() : draw(screen);
        if (++drawn == options_.count)
            break;
        while (!stop.asked() && now() < next)
            tq_loop_run_once(context_->master, static_cast<int>((next - now()).count()));
    }
    return EXIT_DONE;
}

int TopRun::start()
{
    const Record counters(s_policy__ace_counter__descriptor);
    const int result = tq_mom_subscribe(context_.get(), options_.db, counters.message(), 0, &TopRun::on_counter, this);
    return result != 0 ? result : nodes_.emplace(context_.get(), options_.db).start();
}

int32_t TopRun::on_counter(void *, const tq_mom_notification *change, void *arg)
{
    auto *self = static_cast<TopRun *>(arg);
    const auto key = change->result == 0 ? key_of(change->record) : std::nullopt;
    const auto *ace = key ? std::get_if<AceKey>(&*key) : nullptr;
    if (ace != nullptr && change->event == TQ_MOM_EVENT_DELETED)
        self->traffic_.erase(*ace);
    else if (ace != nullptr)
        self->traffic_[*ace].take(number_field(change->record, "counter_pkt"),
                                  number_field(change->record, "counter_byte"),
                                  number_field(change->record, "timestamp"));
    return 0;
}

// A store that is away is told once, and so is that it is back.
void TopRun::look()
{
    constexpr milliseconds patience{300};
    const int result = nodes_->look(patience);
    if (result != store_)
        output().note(result != 0 ? std::string("store: ") + tq_mom_strerror(result) : "the store is back");
    store_ = result;
}

std::vector<Row> TopRun::node_rows() const
{
    std::vector<Row> rows;
    for (const auto &[name, node] : nodes_->all())
        rows.push_back(row_of(name, node, nodes_->state(node), nullptr));
    return rows;
}

std::vector<Row> TopRun::entry_rows(size_t most) const
{
    std::vector<std::pair<const AceKey *, const Traffic *>> busy;
    for (const auto &[key, traffic] : traffic_)
        if (traffic.packets_per_second > 0)
            busy.emplace_back(&key, &traffic);
    std::ranges::stable_sort(
        busy, [](const auto &a, const auto &b) { return a.second->packets_per_second > b.second->packets_per_second; });
    busy.resize(std::min(busy.size(), most));
    std::vector<Row> rows;
    rows.reserve(busy.size());
    for (const auto &[key, traffic] : busy)
        rows.push_back({{"APPLICATION", key->app},
                        {"ENTRY", described(*key)},
                        {"PACKETS/S", static_cast<uint64_t>(traffic->packets_per_second)},
                        {"BYTES/S", static_cast<uint64_t>(traffic->bytes_per_second)},
                        {"PACKETS", traffic->packets}});
    return rows;
}

void TopRun::draw(const Screen &screen) const
{
    char time[30] = "";
    tq_time_2_string(time, sizeof time);
    const std::vector<Row> nodes = node_rows();
    uint64_t programmed = 0, refused = 0;
    for (const auto &[name, node] : nodes_->all()) {
        programmed += node.report ? node.report->programmed : 0;
        refused += node.report ? node.report->refused : 0;
    }
    screen.clear();
    std::cout << time << "  " << shown_address(options_.store)
              << (store_ == 0 ? "" : std::string(": ") + tq_mom_strerror(store_)) << "\n"
              << nodes.size() << " nodes, " << programmed << " programmed, " << refused << " refused\n\n";
    print_table(nodes);
    const std::vector<Row> entries = entry_rows(screen.room(nodes.size() + 7, options_.entries));
    std::cout << '\n';
    print_table(entries);
    std::cout << std::flush;
}

void TopRun::tell() const
{
    for (const auto &[name, node] : nodes_->all())
        output().line("node", json_of(name, node, nodes_->state(node)));
    for (const Row &entry : entry_rows(options_.entries))
        output().line("entry", {{"app", entry["APPLICATION"]},
                                {"name", entry["ENTRY"]},
                                {"packets_per_second", entry["PACKETS/S"]},
                                {"bytes_per_second", entry["BYTES/S"]},
                                {"packets", entry["PACKETS"]}});
    std::cout << std::flush;
}

} // namespace

void add_top_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<TopOptions>();
    CLI::App *command =
        app.add_subcommand("top", "Watch the service nodes and the busiest entries, until interrupted.");
    options->add_to(*command);
    command->add_option("--interval", options->interval, "seconds between two drawings")
        ->check(CLI::Range(1U, 3600U))
        ->capture_default_str();
    command->add_option("--entries", options->entries, "of the busiest entries, at most so many")
        ->check(CLI::Range(0U, 1000U))
        ->capture_default_str();
    command->add_option("--count", options->count, "end after so many drawings");
    command->footer(
        "Rates are those between the last two publications of an entry's counters (plx node --counter-rate).");
    command->callback([options, &exit_code] {
        output().begin("top", options->json);
        exit_code = TopRun(*options).run();
    });
}

} // namespace plx::tool
