// The library on a Redis server, beside raw hiredis on the same server: writes, answers, start-up scans, memory.
//
// Everything runs on one CPU: server, application and service node are processes that the harness's pinning reaches.
// The base is a blocking HMSET of an ACE's six fields, one round trip each, measured in turns with what is compared
// with it. The server keeps nothing on disk, on either side: a disk's own speed would drown the rest.
#include "support/harness.hpp"
#include "support/store_side.hpp"

#include "plane/node.hpp"
#include "plane/simulated/simulated.hpp"

#include <algorithm>
#include <optional>
#include <plx/s_policy.pb-c.h>
#include <tq_loop.h>

namespace {

using bench::application;
using bench::companion;
using bench::cpu_meter;
using bench::figures;
using bench::raw_client;
using bench::require;

constexpr int turns = 20; // of either side in one repetition
constexpr uint64_t writes_per_turn = 250;
constexpr uint64_t entries = 5000;
constexpr char base_keys[] = "plx{base}"; // both sides as the same user, who may use keys like this
constexpr char foreign_keys[] = "foreign";

struct quick_server : redis_server {
    quick_server() { start({"--appendonly", "no"}); }
};

void report(benchmark::State &state, const figures &taken)
{
    for (const auto &[name, value] : taken)
        state.counters[name] = value;
}

// ---- writes

// The cost of set_ace over that of the base.
figures write_ratio(const redis_server &server, const std::string &suffix, const std::string &options,
                    pid_t listener = 0)
{
    application app(server.url("suite", options), application::hears::nothing);
    raw_client raw(server);
    const auto meter = listener == 0 ? cpu_meter{server.pid()} : cpu_meter{server.pid(), listener};
    for (uint64_t sn = 0; sn < entries; ++sn)
        app.set_ace(sn);
    raw.adopt(server);
    raw.fill(base_keys, entries);
    double base = 0;
    double ours = 0;
    for (uint64_t turn = 0; turn < turns; ++turn) {
        const uint64_t first = turn * writes_per_turn;
        base += meter.of([&] {
            for (uint64_t i = first; i < first + writes_per_turn; ++i)
                raw.write(base_keys, i % entries);
        });
        ours += meter.of([&] {
            for (uint64_t i = first; i < first + writes_per_turn; ++i)
                app.set_ace(i % entries);
        });
    }
    return {{"over base" + suffix, ours / base}};
}

// What set_ace costs in a bracket, over entries that are there or new ones: over the base, and over what the server and
// a bare client take for the same hashes, index and log in groups of that size.
figures bulk_speed(const redis_server &server, const std::string &name, bool overwrites)
{
    constexpr uint64_t count = turns * writes_per_turn;
    constexpr uint64_t group = 64;
    constexpr char grouped_keys[] = "plx{base}grouped";
    application app(server.url("suite"), application::hears::nothing);
    raw_client raw(server);
    const cpu_meter meter{server.pid()};
    for (uint64_t sn = 0; overwrites && sn < count; ++sn)
        app.set_ace(sn);
    app.set_ace(0); // the raw client writes what it finds there
    raw.adopt(server);
    raw.fill(base_keys, entries);
    for (uint64_t sn = 0; overwrites && sn < count; sn += group)
        raw.write_group(grouped_keys, sn, std::min(sn + group, count));
    double base = 0, groups = 0, ours = 0;
    require(plx_bulk_begin(app.context()) == 0, "a bracket");
    for (uint64_t first = 0; first < count; first += writes_per_turn) {
        const uint64_t end = first + writes_per_turn;
        base += meter.of([&] {
            for (uint64_t i = first; i < end; ++i)
                raw.write(base_keys, i % entries);
        });
        groups += meter.of([&] {
            for (uint64_t i = first; i < end; i += group)
                raw.write_group(grouped_keys, i, std::min(i + group, end));
        });
        ours += meter.of([&] {
            for (uint64_t i = first; i < end; ++i)
                app.set_ace(i);
            require(plx_bulk_flush(app.context()) == 0, "a bracket");
        });
    }
    require(plx_bulk_end(app.context()) == 0, "a bracket");
    return {{name + ", over base", ours / base}, {name + ", over raw groups", ours / groups}};
}

void bulk(benchmark::State &state)
{
    bench::once(state, [&] {
        const quick_server server;
        report(state, bench::in_process([&] { return bulk_speed(server, "new", false); }));
        report(state, bench::in_process([&] { return bulk_speed(server, "overwrites", true); }));
    });
}

int32_t ignore(void *, const tq_mom_notification *, void *)
{
    return 0;
}

void listen(const std::string &store, const std::function<void()> &ready)
{
    const bench::store_client client(tq_context_new(store.c_str()));
    const SPolicy__Ace all = S_POLICY__ACE__INIT;
    require(tq_mom_subscribe(client.get(), bench::policy_db, &all.base, 0, ignore, nullptr) == 0, "subscribing");
    ready();
    tq_loop_run(client->master);
}

void writes(benchmark::State &state)
{
    bench::once(state, [&] {
        const quick_server server;
        report(state, bench::in_process([&] { return write_ratio(server, "", ""); }));
        report(state, bench::in_process([&] { return write_ratio(server, ", spinning", "spin=50"); }));
        const companion listener([&](auto ready) { listen(server.url(), ready); });
        report(state, bench::in_process([&] { return write_ratio(server, ", one subscriber", "", listener.pid()); }));
    });
}

// ---- from a write to its outcome

void serve(const std::string &store, const std::function<void()> &ready)
{
    plx::plane::SimulatedPlane plane({.table_size = 2 * entries, .rules = {}});
    plx::Context context(tq_context_new(store.c_str()));
    tq_thread_master *const loop = context->master;
    plx::plane::Node node(std::move(context), plane, {});
    require(node.start() == 0, "a service node");
    ready();
    tq_loop_run(loop);
}

std::vector<double> sorted_times(uint64_t count, const std::function<void(uint64_t)> &work)
{
    std::vector<double> times;
    for (uint64_t i = 0; i < count; ++i)
        times.push_back(bench::nanoseconds([&] { work(i); }));
    std::sort(times.begin(), times.end());
    return times;
}

// Over the base's median, so that what else the machine does falls on neither side; what it does to the base's slowest
// is shown beside.
figures one_in_flight(application &app, raw_client &raw)
{
    constexpr uint64_t count = 2000;
    constexpr uint64_t middle = count / 2;
    constexpr uint64_t slow = count * 99 / 100;
    const auto base = sorted_times(count, [&](uint64_t i) { raw.write(base_keys, i); });
    const auto ours = sorted_times(count, [&](uint64_t i) {
        const uint64_t before = app.outcomes();
        app.set_ace(i % 1000);
        while (app.outcomes() == before)
            app.turn();
    });
    return {{"one in flight, median over base", ours[middle] / base[middle]},
            {"one in flight, p99 over base", ours[slow] / base[middle]},
            {"base itself, p99 over median", base[slow] / base[middle]}};
}

// Sets `count` ACEs, as many in flight as the window holds, until all outcomes are reported.
void set_and_hear(application &app, uint64_t count, uint64_t window)
{
    const uint64_t before = app.outcomes();
    uint64_t sent = 0;
    require(plx_bulk_begin(app.context()) == 0, "a bracket");
    while (app.outcomes() - before < count) {
        for (; sent < count && sent - (app.outcomes() - before) < window; ++sent)
            app.set_ace(sent % 1000);
        require(plx_bulk_flush(app.context()) == 0, "a bracket");
        app.turn();
    }
    require(plx_bulk_end(app.context()) == 0, "a bracket");
}

figures many_in_flight(application &app, raw_client &raw, const cpu_meter &meter)
{
    constexpr uint64_t count = 5000; // so that the beginning and the end of the window count little
    double base = 0;
    double ours = 0;
    for (int turn = 0; turn < 4; ++turn) {
        base += meter.of([&] {
            for (uint64_t i = 0; i < count; ++i)
                raw.write(base_keys, i);
        });
        ours += meter.of([&] { set_and_hear(app, count, 128); });
    }
    return {{"128 in flight, over base", ours / base}};
}

void round_trips(benchmark::State &state)
{
    bench::once(state, [&] {
        const quick_server server;
        const companion node([&](auto ready) { serve(server.url(), ready); });
        report(state, bench::in_process([&] {
                   application app(server.url(), application::hears::outcomes);
                   raw_client raw(server);
                   set_and_hear(app, 2000, 128);
                   raw.adopt(server);
                   figures taken = one_in_flight(app, raw);
                   const figures more = many_in_flight(app, raw, cpu_meter{server.pid(), node.pid()});
                   taken.insert(taken.end(), more.begin(), more.end());
                   return taken;
               }));
    });
}

// ---- start-up scans and memory

// As an application writes them, without waiting for each.
void fill_store(const redis_server &server, uint64_t count)
{
    bench::in_process([&] {
        application app(server.url(), application::hears::nothing);
        require(plx_bulk_begin(app.context()) == 0, "filling");
        for (uint64_t i = 0; i < count; ++i)
            app.set_ace(i);
        require(plx_bulk_end(app.context()) == 0, "filling");
        return figures{{"filled", static_cast<double>(count)}};
    });
}

// The same records on a server of either side, filled once for all repetitions.
struct filled_servers {
    filled_servers(uint64_t count, uint64_t foreign) : records(count)
    {
        fill_store(ours, count);
        raw_client raw(base, true);
        raw.adopt(ours);
        raw.fill(base_keys, count);
        raw.fill(foreign_keys, foreign);
        raw_client among(ours, true);
        among.adopt(ours);
        among.fill(foreign_keys, foreign);
    }

    // An application's registration, which takes every ACE into the cache, over raw scanning.
    figures scan_ratio() const
    {
        raw_client raw(base, true);
        const double scan = cpu_meter{base.pid()}.of([&] { require(raw.scan(base_keys) >= records, "a raw scan"); });
        const double start = cpu_meter{ours.pid()}.of([&] {
            const application app(ours.url(), application::hears::changes);
            require(fp_udp_ace_node_hash_size() == records, "a start-up scan");
        });
        return {{"over raw", start / scan}};
    }

    // How long registration and a resynchronisation keep the loop, by the clock.
    figures longest_turns() const
    {
        std::optional<application> app;
        const double start = bench::nanoseconds([&] { app.emplace(ours.url(), application::hears::changes); });
        raw_client(ours, true).lose_changes();
        double longest = 0;
        for (int turn = 0; turn < 100 && app->outcomes() < records; ++turn)
            longest = std::max(longest, bench::nanoseconds([&] { app->turn(); }));
        require(app->outcomes() == records, "a resynchronisation");
        return {{"registration, ms", start / 1e6},
                {"resynchronisation, ms", longest / 1e6},
                {"resynchronisation over registration", longest / start}};
    }

    uint64_t records;
    quick_server base;
    quick_server ours;
};

template <uint64_t Records, uint64_t Foreign> void start_up(benchmark::State &state)
{
    static const filled_servers servers(Records, Foreign);
    bench::once(state, [&] { report(state, bench::in_process([&] { return servers.scan_ratio(); })); });
}

void turns_of_200k(benchmark::State &state)
{
    static const filled_servers servers(200'000, 0);
    bench::once(state, [&] { report(state, bench::in_process([&] { return servers.longest_turns(); })); });
}

void server_memory(benchmark::State &state)
{
    constexpr uint64_t records = 100'000;
    bench::once(state, [&] {
        const quick_server ours;
        const quick_server base;
        raw_client store(ours, true);
        raw_client raw(base, true);
        const double empty = raw.used_memory();
        const double before = store.used_memory();
        fill_store(ours, records);
        store.trim_log();
        raw.adopt(ours);
        raw.fill("plx{8:ace}", records);
        const double bare = (raw.used_memory() - empty) / records;
        const double taken = (store.used_memory() - before) / records;
        state.counters["bare hash, bytes"] = bare;
        state.counters["record and index, bytes"] = taken;
        state.counters["beyond 1.05 hashes, bytes"] = taken - 1.05 * bare;
    });
}

constexpr bench::goal goals[] = {
    {"writes", "over base", 1 / 0.85, 0.10},
    {"writes", "over base, one subscriber", 1 / 0.65, 0.10},
    {"bulk", "overwrites, over raw groups", 1.4, 0.10},
    {"bulk", "new, over raw groups", 1.4, 0.10},
    {"round_trips", "one in flight, median over base", 4, 0.10},
    {"round_trips", "one in flight, p99 over base", 8, 0.10},
    {"round_trips", "128 in flight, over base", 1 / 1.2, 0.10},
    {"start_up_100k", "over raw", 1 / 0.85, 0.10},
    {"start_up_1M", "over raw", 1 / 0.85, 0.10},
    {"start_up_among_others", "over raw", 1 / 2.5, 0.10},
    {"turns_of_200k", "resynchronisation over registration", 1.3, 0.10},
    {"memory", "beyond 1.05 hashes, bytes", 80, 0.10},
};

} // namespace

int main(int argc, char **argv)
{
    bench::add("writes", writes);
    bench::add("bulk", bulk);
    bench::add("round_trips", round_trips);
    bench::add("start_up_100k", start_up<100'000, 0>);
    bench::add("start_up_1M", start_up<1'000'000, 0>);
    bench::add("start_up_among_others", start_up<100'000, 1'000'000>);
    bench::add("turns_of_200k", turns_of_200k);
    bench::add("memory", server_memory);
    return bench::run(argc, argv, goals);
}
