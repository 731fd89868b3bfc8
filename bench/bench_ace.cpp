// A whole fp_udp_set_ace on a store that answers at once: its time as the cache grows, its allocations, and the heap
// that a cached ACE takes.
//
// Caches of four sizes stand side by side, and the library is pointed at each in turn. A set is measured on entries
// taken at random, and again right after the same entries were set: the second figure is what the library itself costs,
// and the difference is the processor's wait for memory, which grows with any cache.
#include "support/counting.hpp"
#include "support/entry.hpp"
#include "support/harness.hpp"
#include "support/platform.hpp"

#include <array>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <random>

namespace {

constexpr uint32_t aces_per_acl = 1000;
constexpr std::array<uint32_t, 4> sizes = {1'000, 10'000, 100'000, 1'000'000};
constexpr uint32_t largest = sizes.back();

// ---- an application that sets ACEs by number

fp_udp_acl_key acl_key(uint32_t acl_id)
{
    fp_udp_acl_key key = {};
    std::strcpy(key.app_type, bench::app_type);
    key.acl_id = acl_id;
    return key;
}

struct entry {
    uint32_t acl_id;
    uint64_t sn;
};

entry entry_of(uint32_t number)
{
    return {number / aces_per_acl + 1, number};
}

void set_ace(const entry &e)
{
    static fp_udp_ace *ace = bench::new_entry(bench::library());
    const fp_udp_acl_key key = acl_key(e.acl_id);
    ace->sn = e.sn;
    bench::library().set_ace(bench::context(), &key, ace);
}

void delete_ace(const entry &e)
{
    const fp_udp_acl_key key = acl_key(e.acl_id);
    bench::library().delete_ace(bench::context(), &key, e.sn);
}

void set_acls(uint32_t count)
{
    for (uint32_t id = 1; id <= count; ++id) {
        fp_udp_acl acl = {};
        std::strcpy(acl.app_type, bench::app_type);
        acl.acl_id = id;
        bench::library().set_acl(bench::context(), &acl);
    }
}

// ---- caches beside each other

// The library's tables while it works on a cache of ACEs 0 to size - 1.
class cache {
  public:
    explicit cache(uint32_t size) : size_(size)
    {
        bench::library();
        fp_udp_acldb_init();
        acls_ = fp_udp_acl_node_list;
        aces_ = fp_udp_ace_node_list;
        set_acls(size / aces_per_acl + 1);
        for (uint32_t i = 0; i < size; ++i)
            set_ace(entry_of(i));
    }
    uint32_t size() const { return size_; }
    void use() const
    {
        fp_udp_acl_node_list = acls_;
        fp_udp_ace_node_list = aces_;
    }
    bool complete() const
    {
        use();
        return fp_udp_ace_node_hash_size() == size_;
    }

  private:
    uint32_t size_;
    fp_udp_acl_table *acls_;
    fp_udp_ace_table *aces_;
};

using caches = std::array<std::unique_ptr<cache>, sizes.size()>;

caches &all_caches()
{
    static caches made;
    for (size_t i = 0; i < sizes.size(); ++i)
        if (!made[i])
            made[i] = std::make_unique<cache>(sizes[i]);
    return made;
}

// ---- time

constexpr size_t batch = 8;  // calls between two looks at the clock
constexpr int rounds = 3;    // turns of each cache
constexpr int batches = 300; // of each kind in a turn

using entries = std::array<entry, batch>;

double time_sets(const entries &aces)
{
    return bench::nanoseconds([&] {
               for (const entry &e : aces)
                   set_ace(e);
           }) /
           batch;
}

void delete_all(const entries &aces)
{
    for (const entry &e : aces)
        delete_ace(e);
}

struct samples {
    std::vector<double> random, warm;
};

struct kinds {
    samples again; // entries that are cached
    samples fresh; // entries that are not
};

std::mt19937 random_numbers(20260101);

entry cached_entry(const cache &c)
{
    return entry_of(static_cast<uint32_t>(random_numbers()) % c.size());
}

entry new_entry(const cache &c)
{
    static uint64_t sn = largest;
    return {cached_entry(c).acl_id, ++sn};
}

void measure_batch(const cache &c, kinds &into)
{
    entries cached, added;
    for (size_t i = 0; i < batch; ++i) {
        cached[i] = cached_entry(c);
        added[i] = new_entry(c);
    }
    into.again.random.push_back(time_sets(cached));
    into.again.warm.push_back(time_sets(cached));
    into.fresh.random.push_back(time_sets(added));
    delete_all(added);
    into.fresh.warm.push_back(time_sets(added));
    delete_all(added);
}

// The first batches of a turn find the processor's caches full of the last turn's data.
void take_turn(const cache &c, kinds &into)
{
    c.use();
    kinds warming_up;
    for (int i = 0; i < batches; ++i)
        measure_batch(c, warming_up);
    for (int i = 0; i < batches; ++i)
        measure_batch(c, into);
}

std::string figure(const char *which, uint32_t size)
{
    return std::string(which) + " ns, " + std::to_string(size / 1000) + " k cached";
}

void report_curve(benchmark::State &state, const std::array<kinds, sizes.size()> &measured, samples kinds::*kind)
{
    for (size_t i = 0; i < sizes.size(); ++i) {
        state.counters[figure("warm", sizes[i])] = bench::median((measured[i].*kind).warm);
        state.counters[figure("random", sizes[i])] = bench::median((measured[i].*kind).random);
    }
    state.counters["warm, 1000 k to 1 k"] =
        bench::median((measured.back().*kind).warm) / bench::median((measured.front().*kind).warm);
}

void curve(benchmark::State &state, samples kinds::*kind)
{
    const caches &all = all_caches();
    bench::once(state, [&] {
        std::array<kinds, sizes.size()> measured;
        const uint64_t written = bench::store_writes;
        for (int round = 0; round < rounds; ++round)
            for (size_t i = 0; i < sizes.size(); ++i)
                take_turn(*all[i], measured[i]);
        report_curve(state, measured, kind);
        if (bench::store_writes - written != rounds * sizes.size() * 2 * batches * 4 * batch || !all.back()->complete())
            state.SkipWithError("a set did not come through");
    });
}

void set_again(benchmark::State &state)
{
    curve(state, &kinds::again);
}

void set_new(benchmark::State &state)
{
    curve(state, &kinds::fresh);
}

// ---- allocations

struct allocation_peaks {
    uint64_t usual = 0;   // most calls in one set that left the table as large as it was
    uint64_t growing = 0; // most calls in one set that made it grow
};

allocation_peaks most_allocations(uint32_t begin, uint32_t end)
{
    allocation_peaks most;
    for (uint32_t i = begin; i < end; ++i) {
        const uint32_t buckets = fp_udp_ace_node_list->n_buckets;
        const uint64_t before = bench::allocations.calls;
        set_ace(entry_of(i));
        uint64_t &peak = buckets == fp_udp_ace_node_list->n_buckets ? most.usual : most.growing;
        peak = std::max(peak, bench::allocations.calls - before);
    }
    return most;
}

void allocations(benchmark::State &state)
{
    bench::once(state, [&] {
        constexpr uint32_t count = 100'000;
        const cache empty(0);
        set_acls(count / aces_per_acl);
        const allocation_peaks fresh = most_allocations(0, count);
        const allocation_peaks again = most_allocations(0, count);
        state.counters["most in a new set"] = static_cast<double>(fresh.usual);
        state.counters["most when the table grows"] = static_cast<double>(fresh.growing);
        state.counters["most in a repeated set"] = static_cast<double>(std::max(again.usual, again.growing));
    });
}

// ---- heap

// What malloc has handed out, its own headers and rounding included.
double heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

int32_t answer(fp_udp_ace_node *node, void *)
{
    return fp_udp_req_node_del(FP_UDP_REQ_ACE, node);
}

void heap(benchmark::State &state)
{
    bench::library();
    set_ace(entry_of(0)); // what the first call sets up for good
    bench::once(state, [&] {
        const double before = heap_in_use();
        const auto usable_before = static_cast<double>(bench::allocations.live_bytes);
        const cache filled(largest);
        state.counters["unanswered, with headers"] = (heap_in_use() - before) / largest;
        state.counters["unanswered"] = (static_cast<double>(bench::allocations.live_bytes) - usable_before) / largest;
        fp_udp_ace_node_hash_traverse(answer, nullptr);
        state.counters["cached, with headers"] = (heap_in_use() - before) / largest;
        if (!filled.complete())
            state.SkipWithError("an entry is missing");
    });
}

constexpr double noise = 0.10;
constexpr double busy_memory = 0.25; // what other processes' use of the memory adds to waiting for it
constexpr bench::goal goals[] = {
    {"set_new", "warm ns, 100 k cached", 1000, noise},
    {"set_new", "random ns, 1000 k cached", 1000, busy_memory},
    {"set_again", "warm ns, 100 k cached", 1000, noise},
    {"set_again", "random ns, 1000 k cached", 1000, busy_memory},
    {"set_new", "warm, 1000 k to 1 k", 1.5, noise},
    {"set_again", "warm, 1000 k to 1 k", 1.5, noise},
    {"allocations", "most in a new set", 2, 0},
    {"allocations", "most in a repeated set", 0, 0},
    {"heap", "unanswered", 256, 0},
    {"heap", "cached, with headers", 256, 0},
};

} // namespace

int main(int argc, char **argv)
{
    bench::add("set_new", set_new);
    bench::add("set_again", set_again);
    bench::add("allocations", allocations);
    bench::add("heap", heap)->Repetitions(1); // last: it leaves a heap full of holes, and is the same each time
    return bench::run(argc, argv, goals);
}
