// The policy store on a Redis server, beside raw hiredis on the same server: writes, answers, scans, memory.
//
// Everything runs on one CPU: server, application and service node are processes that the harness's pinning reaches.
// The base is a blocking HMSET of an ACE's six fields, one round trip each, measured in turns with what is compared
// with it. The server keeps nothing on disk, on either side: a disk's own speed would drown the rest.
#include "store/redis_server.hpp"
#include "support/harness.hpp"

#include <plx/s_policy.pb-c.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <hiredis/hiredis.h>
#include <initializer_list>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char app[] = "security_app";
constexpr int turns = 20; // of either side in one repetition
constexpr int writes_per_turn = 250;
constexpr uint32_t db = 8;

[[noreturn]] void give_up(const char *what)
{
    std::fprintf(stderr, "bench_store: %s failed\n", what);
    std::exit(1);
}

void require(bool done, const char *what)
{
    if (!done)
        give_up(what);
}

// ---- the two sides

struct free_context {
    void operator()(redisContext *context) const { redisFree(context); }
    void operator()(tq_context *context) const { tq_context_free(context); }
};
using raw_client = std::unique_ptr<redisContext, free_context>;
using store_client = std::unique_ptr<tq_context, free_context>;

raw_client connect_raw(const redis_server &server)
{
    raw_client raw(redisConnectUnix(server.socket().c_str()));
    require(raw != nullptr && raw->err == 0, "connecting");
    freeReplyObject(redisCommand(raw.get(), "AUTH plx-operator change-me-operator"));
    return raw;
}

/// A server of its own and a client of either kind.
struct bench_store {
    explicit bench_store(const std::string &options = "")
    {
        server.start({"--appendonly", "no"});
        raw = connect_raw(server);
        client.reset(tq_context_new(server.url("suite", options).c_str()));
        require(client != nullptr && tq_mom_client_connect_sync(client.get(), db) == 0, "connecting");
    }
    redis_server server;
    raw_client raw;
    store_client client;
};

const std::string &value()
{
    static const std::string bytes(60, 'v');
    return bytes;
}

std::string raw_key(const char *prefix, uint64_t sn)
{
    return std::string(prefix) + ":" + app + ":10:" + std::to_string(sn);
}

int append_raw_write(redisContext *raw, const char *prefix, uint64_t sn)
{
    const std::string key = raw_key(prefix, sn);
    const std::string request = std::to_string(1'700'000'000'000'000 + sn);
    const std::array<const char *, 14> words = {
        "HMSET",         key.c_str(),   "value", value().c_str(), "c_status", "0",       "req_uuid",
        request.c_str(), "default_ace", "0",     "priv",          "",         "ace_pri", "17"};
    return redisAppendCommandArgv(raw, static_cast<int>(words.size()), const_cast<const char **>(words.data()),
                                  nullptr);
}

void take_raw_answers(redisContext *raw, int count)
{
    for (; count > 0; --count) {
        void *reply = nullptr;
        require(redisGetReply(raw, &reply) == REDIS_OK, "a raw command");
        freeReplyObject(reply);
    }
}

void write_raw(redisContext *raw, uint64_t sn)
{
    append_raw_write(raw, "base", sn);
    take_raw_answers(raw, 1);
}

void write_ace(tq_context *client, uint64_t sn, uint64_t request)
{
    constexpr uint32_t fields[] = {6, 7, 8, 9, 10, 11};
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    key.t_app_type = const_cast<char *>(app);
    key.acl_id = 10;
    key.sn = sn;
    ace.index = &key;
    ace.value = {value().size(), reinterpret_cast<uint8_t *>(const_cast<char *>(value().data()))};
    ace.req_uuid = request;
    ace.ace_pri = 17;
    require(tq_mom_hmset_sync(client, db, &ace.base, fields, std::size(fields)) == 0, "a write");
}

/// The CPU time that processes take, this one among them.
class cpu_meter {
  public:
    explicit cpu_meter(std::initializer_list<pid_t> others)
    {
        for (const pid_t pid : others) {
            clockid_t clock = 0;
            require(clock_getcpuclockid(pid, &clock) == 0, "a CPU clock");
            clocks_.push_back(clock);
        }
    }
    /// Nanoseconds of all of them.
    template <typename Work> double of(Work work) const
    {
        const double before = now();
        work();
        return now() - before;
    }

  private:
    double now() const
    {
        double sum = 0;
        for (const clockid_t clock : clocks_) {
            timespec time{};
            clock_gettime(clock, &time);
            sum += 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
        }
        return sum;
    }
    std::vector<clockid_t> clocks_{CLOCK_PROCESS_CPUTIME_ID};
};

// ---- writes

/// CPU times of our writes over those of the base, in turns.
double write_ratio(bench_store &store, pid_t listener = 0)
{
    const auto meter = listener == 0 ? cpu_meter{store.server.pid()} : cpu_meter{store.server.pid(), listener};
    double base = 0;
    double ours = 0;
    uint64_t sn = 0;
    for (int turn = 0; turn < turns; ++turn) {
        const uint64_t first = sn;
        base += meter.of([&] {
            for (int i = 0; i < writes_per_turn; ++i)
                write_raw(store.raw.get(), sn++ % 5000);
        });
        sn = first;
        ours += meter.of([&] {
            for (int i = 0; i < writes_per_turn; ++i, ++sn)
                write_ace(store.client.get(), sn % 5000, sn);
        });
    }
    return ours / base;
}

/// Another process: `body` until it is killed with the object.
class companion {
  public:
    template <typename Body> explicit companion(Body body)
    {
        int ready[2];
        require(pipe(ready) == 0, "a pipe");
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            body([&] { require(write(ready[1], "", 1) == 1, "starting"); });
            _exit(0);
        }
        char byte = 0;
        require(read(ready[0], &byte, 1) == 1, "starting a process");
        close(ready[0]);
        close(ready[1]);
    }
    ~companion()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }
    companion(const companion &) = delete;
    companion &operator=(const companion &) = delete;

  private:
    pid_t pid_ = 0;
};

int32_t ignore(void *, const tq_mom_notification *, void *)
{
    return 0;
}

void subscribe(tq_context *client, const ProtobufCMessage *all, tq_mom_callback callback, void *arg)
{
    require(tq_mom_subscribe(client, db, all, 0, callback, arg) == 0, "subscribing");
}

void writes(benchmark::State &state)
{
    bench::once(state, [&] {
        bench_store store;
        bench_store no_spin("spin=0");
        write_ratio(store); // both sides warm
        state.counters["over base"] = write_ratio(store);
        state.counters["over base, no spinning"] = write_ratio(no_spin);
        const std::string url = store.server.url();
        const companion listener([&](auto ready) {
            const store_client client(tq_context_new(url.c_str()));
            SPolicy__Ace all = S_POLICY__ACE__INIT;
            subscribe(client.get(), &all.base, ignore, nullptr);
            ready();
            tq_loop_run(client->master);
        });
        state.counters["over base, one subscriber"] = write_ratio(store, listener.pid());
    });
}

// ---- from a write to its answer

/// A service node: answers each request in batches of one turn of its loop.
struct node {
    store_client client;
    tq_thread *flush = nullptr;

    static int on_flush(tq_thread *timer)
    {
        require(tq_mom_batch_end(static_cast<node *>(tq_thread_arg(timer))->client.get(), nullptr, 0) == 0,
                "answering");
        return 0;
    }

    static int32_t on_ace(void *, const tq_mom_notification *told, void *arg)
    {
        auto &self = *static_cast<node *>(arg);
        constexpr timeval at_once{0, 0};
        constexpr uint32_t fields[] = {6, 7};
        if (self.flush == nullptr) {
            tq_mom_batch_begin(self.client.get());
            tq_thread_insert_timer_timeval(self.client->master, &self.flush, on_flush, &self, &at_once, "answers");
        }
        const auto *ace = reinterpret_cast<const SPolicy__Ace *>(told->record);
        SPolicy__AcePsta answer = S_POLICY__ACE_PSTA__INIT;
        answer.index = ace->index;
        answer.rep_uuid = ace->req_uuid;
        return tq_mom_hmset_sync(self.client.get(), db, &answer.base, fields, std::size(fields));
    }
};

/// The application's side: how many answers have come.
struct answers {
    uint64_t count = 0;
    static int32_t on_answer(void *, const tq_mom_notification *, void *arg)
    {
        return ++static_cast<answers *>(arg)->count, 0;
    }
};

/// The median, so that what else the machine does falls on neither side.
double base_write(bench_store &store)
{
    std::vector<double> times;
    for (uint64_t i = 0; i < 2000; ++i)
        times.push_back(bench::nanoseconds([&] { write_raw(store.raw.get(), i); }));
    return bench::median(times);
}

void one_in_flight(bench_store &store, answers &heard, benchmark::State &state)
{
    constexpr int count = 2000;
    std::vector<double> times;
    const double base = base_write(store);
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t before = heard.count;
        times.push_back(bench::nanoseconds([&] {
            write_ace(store.client.get(), i % 1000, i);
            while (heard.count == before)
                tq_loop_run_once(store.client->master, 100);
        }));
    }
    std::sort(times.begin(), times.end());
    state.counters["one in flight, median over base"] = times[count / 2] / base;
    state.counters["one in flight, p99 over base"] = times[count * 99 / 100] / base;
}

/// Writes `count` ACEs, as many in flight as the window holds, until all are answered.
void write_answered(bench_store &store, answers &heard, uint64_t count, uint64_t window)
{
    const uint64_t before = heard.count;
    uint64_t sent = 0;
    while (heard.count - before < count) {
        require(tq_mom_batch_begin(store.client.get()) == 0, "a batch");
        for (; sent < count && sent - (heard.count - before) < window; ++sent)
            write_ace(store.client.get(), sent % 1000, sent);
        require(tq_mom_batch_end(store.client.get(), nullptr, 0) == 0, "a batch");
        tq_loop_run_once(store.client->master, 100);
    }
}

void many_in_flight(bench_store &store, answers &heard, pid_t service, benchmark::State &state)
{
    const cpu_meter meter{store.server.pid(), service};
    constexpr uint64_t count = 1000;
    double base = 0;
    double ours = 0;
    for (int turn = 0; turn < turns; ++turn) {
        base += meter.of([&] {
            for (uint64_t i = 0; i < count; ++i)
                write_raw(store.raw.get(), i);
        });
        ours += meter.of([&] { write_answered(store, heard, count, 128); });
    }
    state.counters["128 in flight, over base"] = ours / base;
}

void round_trips(benchmark::State &state)
{
    bench::once(state, [&] {
        bench_store store;
        const std::string url = store.server.url();
        const companion service([&](auto ready) {
            node self{store_client(tq_context_new(url.c_str()))};
            SPolicy__Ace all = S_POLICY__ACE__INIT;
            subscribe(self.client.get(), &all.base, node::on_ace, &self);
            ready();
            tq_loop_run(self.client->master);
        });
        answers heard;
        SPolicy__AcePsta all = S_POLICY__ACE_PSTA__INIT;
        subscribe(store.client.get(), &all.base, answers::on_answer, &heard);
        one_in_flight(store, heard, state);
        many_in_flight(store, heard, service.pid(), state);
    });
}

// ---- scans and memory

constexpr int records = 100'000;

void fill_raw(bench_store &store, const char *prefix, int count)
{
    for (int i = 0; i < count; ++i) {
        append_raw_write(store.raw.get(), prefix, static_cast<uint64_t>(i));
        if (i % 1000 == 999)
            take_raw_answers(store.raw.get(), 1000);
    }
}

void fill_store(bench_store &store)
{
    require(tq_mom_batch_begin(store.client.get()) == 0, "filling");
    for (uint64_t i = 0; i < records; ++i)
        write_ace(store.client.get(), i, i);
    require(tq_mom_batch_end(store.client.get(), nullptr, 0) == 0, "filling");
}

/// SCAN COUNT 1000 over all keys, and an HGETALL of each that is a base record.
int scan_raw(redisContext *raw)
{
    int found = 0;
    std::string cursor = "0";
    do {
        auto *page = static_cast<redisReply *>(redisCommand(raw, "SCAN %s COUNT 1000 MATCH base:*", cursor.c_str()));
        require(page != nullptr && page->type == REDIS_REPLY_ARRAY, "a raw scan");
        cursor = page->element[0]->str;
        const auto keys = std::span(page->element[1]->element, page->element[1]->elements);
        for (const auto *key : keys)
            redisAppendCommand(raw, "HGETALL %b", key->str, key->len);
        take_raw_answers(raw, static_cast<int>(keys.size()));
        found += static_cast<int>(keys.size());
        freeReplyObject(page);
    } while (cursor != "0");
    return found;
}

double scan_time(const bench_store &store)
{
    int found = 0;
    const auto count = [](void *, const tq_mom_notification *told, void *arg) {
        return *static_cast<int *>(arg) += told->record != nullptr, 0;
    };
    SPolicy__Ace all = S_POLICY__ACE__INIT;
    const double time = cpu_meter{store.server.pid()}.of(
        [&] { tq_mom_scan_sync(store.client.get(), db, &all.base, 0, count, &found); });
    require(found == records, "a scan");
    return time;
}

double raw_scan_time(const bench_store &store)
{
    int found = 0;
    const double time = cpu_meter{store.server.pid()}.of([&] { found = scan_raw(store.raw.get()); });
    require(found >= records, "a raw scan");
    return time;
}

/// The same records on either side, filled once for all repetitions.
struct filled_stores {
    explicit filled_stores(int foreign)
    {
        fill_raw(base, "base", records);
        fill_store(store);
        fill_raw(base, "foreign", foreign);
        fill_raw(store, "foreign", foreign);
        scan_time(store);
        raw_scan_time(base);
    }
    bench_store base;
    bench_store store;
};

void scans(benchmark::State &state)
{
    static const filled_stores stores(0);
    bench::once(state, [&] { state.counters["over raw"] = scan_time(stores.store) / raw_scan_time(stores.base); });
}

void scans_among_others(benchmark::State &state)
{
    static const filled_stores stores(10 * records);
    bench::once(state, [&] { state.counters["over raw"] = scan_time(stores.store) / raw_scan_time(stores.base); });
}

double memory(redisContext *raw)
{
    auto *info = static_cast<redisReply *>(redisCommand(raw, "INFO memory"));
    require(info != nullptr && info->type == REDIS_REPLY_STRING, "INFO");
    const double used = std::atof(std::strstr(info->str, "used_memory:") + 12);
    freeReplyObject(info);
    return used;
}

void server_memory(benchmark::State &state)
{
    bench::once(state, [&] {
        bench_store base;
        bench_store store("log=1");
        const double empty = memory(base.raw.get());
        fill_raw(base, "base", records);
        const double bare = (memory(base.raw.get()) - empty) / records;
        const double before = memory(store.raw.get());
        fill_store(store);
        const double ours = (memory(store.raw.get()) - before) / records;
        state.counters["bare hash, bytes"] = bare;
        state.counters["record and index, bytes"] = ours;
        state.counters["beyond 1.05 hashes, bytes"] = ours - 1.05 * bare;
    });
}

constexpr bench::goal goals[] = {
    {"writes", "over base", 1 / 0.85, 0.10},
    {"writes", "over base, one subscriber", 1 / 0.65, 0.10},
    {"round_trips", "one in flight, median over base", 4, 0.10},
    {"round_trips", "one in flight, p99 over base", 8, 0.10},
    {"round_trips", "128 in flight, over base", 1 / 1.2, 0.10},
    {"scans", "over raw", 1 / 0.85, 0.10},
    {"scans_among_others", "over raw", 1 / 2.5, 0.10},
    {"memory", "beyond 1.05 hashes, bytes", 80, 0},
};

} // namespace

int main(int argc, char **argv)
{
    bench::add("writes", writes);
    bench::add("round_trips", round_trips);
    bench::add("scans", scans);
    bench::add("scans_among_others", scans_among_others);
    bench::add("memory", server_memory);
    return bench::run(argc, argv, goals);
}
