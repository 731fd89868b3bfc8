// See numbers.hpp.
#include "metrics/numbers.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <tq_zlog.h>

namespace plx::tool {

namespace {

using plane::Counters;
using plane::Node;

constexpr size_t most_applications_shown = 256;

struct Outcome {
    Status status;
    std::string_view name;
};
constexpr std::array outcomes{
    Outcome{Status::ok, "ok"},
    Outcome{Status::table_full, "table_full"},
    Outcome{Status::unsupported, "unsupported"},
    Outcome{Status::malformed, "malformed"},
    Outcome{Status::bad_value, "bad_value"},
    Outcome{Status::refused, "refused"},
    Outcome{Status::out_of_range, "out_of_range"},
    Outcome{Status::contradiction, "contradiction"},
    Outcome{Status::not_permitted, "not_permitted"},
    Outcome{Status::plane_error, "plane_error"},
    Outcome{Status::no_interface, "no_interface"},
};

#define PLX_RESULT_NAME(name, number, text, advice) #name,
constexpr std::array store_results{TQ_MOM_RESULTS(PLX_RESULT_NAME)}; // in the order of their numbers
#undef PLX_RESULT_NAME
static_assert(store_results.size() == TQ_MOM_RESULT_COUNT);

std::string lower(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

double seconds_of(milliseconds time)
{
    return std::chrono::duration<double>(time).count();
}

void add_records(Exposition &page, const Node::Numbers &node)
{
    uint64_t programmed = 0, refused = 0;
    for (const auto &[name, application] : node.applications) {
        programmed += application.programmed.count;
        refused += application.refused;
    }
    page.gauge("plx_node_records", "Records of all tables that the node has taken up, by what became of them.")
        .add(programmed, {{"state", "programmed"}})
        .add(refused, {{"state", "refused"}})
        .add(node.records - programmed - refused, {{"state", "lost"}});
    page.gauge("plx_node_applications", "Application types of which the node has records.")
        .add(node.applications.size());
    page.gauge("plx_node_application_records", "The same of each application type, of 256 at most.");
    size_t shown = 0;
    for (const auto &[name, application] : node.applications) {
        if (shown++ == most_applications_shown)
            break;
        page.add(application.programmed.count, {{"app", name}, {"state", "programmed"}});
        page.add(application.refused, {{"app", name}, {"state", "refused"}});
    }
    page.gauge("plx_node_held", "Tables of an application of which something is held that the store has lost.")
        .add(node.held);
}

void add_answers(Exposition &page, const Node::Numbers &node)
{
    page.counter("plx_node_answers_total", "Answers to requests that the store has taken, by what they say.");
    for (const auto &[status, name] : outcomes) {
        const auto found = node.answers.outcomes.find(status);
        page.add(found == node.answers.outcomes.end() ? 0 : found->second, {{"outcome", name}});
    }
    page.family("plx_node_answer_seconds", Exposition::Kind::histogram,
                "From hearing of a request, or finding it in a table, to sending its answer to the store.")
        .add(node.answers.successes, {{"result", "success"}})
        .add(node.answers.refusals, {{"result", "refusal"}});
    page.counter("plx_node_answer_failures_total", "Answers that the store did not take; they are given again.")
        .add(node.answers.failed);
    page.gauge("plx_node_backlog", "Changes to be made, and answers that the store may not have.")
        .add(node.heard, {{"waiting", "change"}})
        .add(node.answering, {{"waiting", "answer"}});
}

void add_life(Exposition &page, const Node::Numbers &node)
{
    page.counter("plx_node_heartbeats_total", "Signs of life that the store has taken.").add(node.heartbeats);
    page.counter("plx_node_heartbeat_failures_total", "Signs of life that it has not taken, or that were not given.")
        .add(node.failed_heartbeats);
    page.gauge("plx_node_heartbeat_age_seconds", "Since the last that it took; applications count a node out at 20.")
        .add_seconds(seconds_of(node.since_heartbeat));
    page.counter("plx_node_comparisons_total", "Walks over the store's tables, to make what differs.")
        .add(node.comparisons);
}

void add_plane(Exposition &page, const Node::Numbers &node)
{
    page.gauge("plx_plane_entries", "Entries that are in the forwarding plane.").add(node.plane.entries);
    page.gauge("plx_plane_room", "Entries that fit into it.").add(node.plane.room);
    page.counter("plx_plane_errors_total", "Errors that the kernel gave; 0 of a simulated plane.")
        .add(node.plane.errors);
    page.family("plx_plane_call_seconds", Exposition::Kind::histogram, "How long it took to take changes.")
        .add(node.plane_calls);
}

struct Busy {
    Counters counters;
    AceKey ace;
    bool operator<(const Busy &other) const { return std::tie(counters, ace) < std::tie(other.counters, other.ace); }
};

// As counters are published; so many are kept as are wanted.
std::vector<Busy> busiest(const Node &node, size_t most)
{
    std::vector<Busy> all; // the least of them first, once there are enough
    const auto greater = [](const Busy &a, const Busy &b) { return b < a; };
    node.each_counted([&](const AceKey &ace, const Counters &counters) {
        if (all.size() == most && !(all.front().counters < counters))
            return;
        if (all.size() == most) {
            std::ranges::pop_heap(all, greater);
            all.pop_back();
        }
        all.push_back({counters, ace});
        std::ranges::push_heap(all, greater);
    });
    std::ranges::sort(all, {}, &Busy::ace);
    return all;
}

void add_entries(Exposition &page, const Node &node, size_t most)
{
    const std::vector<Busy> all = most == 0 ? std::vector<Busy>() : busiest(node, most);
    const auto add = [&](uint64_t Counters::*counter) {
        for (const auto &[counters, ace] : all)
            page.add(counters.*counter,
                     {{"app", ace.app}, {"acl", std::to_string(ace.acl)}, {"sn", std::to_string(ace.sn)}});
    };
    page.counter("plx_entry_packets_total", "Packets that hit an entry, where asked for (--metrics-entries).");
    add(&Counters::packets);
    page.counter("plx_entry_bytes_total", "And their bytes.");
    add(&Counters::bytes);
}

} // namespace

void add_program(Exposition &page, const tq_thread_master *loop)
{
    tq_loop_counters counters{};
    tq_loop_counters_get(loop, &counters);
    page.gauge("plx_build_info", "1; the version is its label.").add(1, {{"version", PLX_VERSION}});
    page.counter("plx_loop_timers_total", "Timers of the event loop that fired.").add(counters.timers);
    page.counter("plx_loop_late_timers_total", "Of these, those that were late by a tenth of a second or more.")
        .add(counters.late);
    page.gauge("plx_loop_worst_delay_seconds", "How late the worst one was.")
        .add_seconds(static_cast<double>(counters.worst_us) / 1e6);
    page.counter("plx_loop_exceptions_total", "Exceptions that callbacks let out.").add(counters.exceptions);
    page.counter("plx_log_held_back_total", "Log messages that were held back as repetitions.")
        .add(tq_zlog_held_back());
}

// Two connections are one for calls and one for changes.
void add_store_client(Exposition &page, tq_context *context, uint32_t db)
{
    constexpr uint64_t first_connections = 2;
    tq_mom_counters counters{};
    tq_mom_counters_get(context, &counters);
    page.gauge("plx_store_up", "1 while the store is connected and changes can be heard, else 0.")
        .add(tq_mom_state_get(context, db, 0) == 0 ? 1 : 0);
    page.counter("plx_store_calls_total", "Calls to the store, by what came of them.");
    for (size_t result = 0; result < store_results.size(); ++result)
        page.add(counters.results[result], {{"result", lower(store_results.at(result))}});
    page.counter("plx_store_reconnects_total", "Connections to a server beyond the first two.")
        .add(counters.connections - std::min(counters.connections, first_connections));
    page.counter("plx_store_changes_total", "Changes that were heard of.").add(counters.delivered);
    page.counter("plx_store_losses_total", "How often changes were lost; tables are then read anew.")
        .add(counters.losses);
    page.counter("plx_store_repaired_total", "Records that were told in place of lost changes.")
        .add(counters.recovered);
    page.counter("plx_store_exceptions_total", "Exceptions that callbacks of the store client let out.")
        .add(counters.exceptions);
}

void add_node(Exposition &page, const Node &node, const std::string &name, size_t most_entries)
{
    const Node::Numbers numbers = node.numbers();
    page.gauge("plx_node_info", "1; who the node is, and its forwarding plane, are its labels.")
        .add(1, {{"node", name}, {"plane", numbers.plane.kind}});
    add_records(page, numbers);
    add_answers(page, numbers);
    add_life(page, numbers);
    add_plane(page, numbers);
    add_entries(page, node, most_entries);
}

} // namespace plx::tool
