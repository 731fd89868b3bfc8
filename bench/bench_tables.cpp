// The ACE node table at a million entries, beside std::unordered_set and absl::flat_hash_set of the same node pointers
// with the same hash and the same tests of the key's fields.
//
// All three hold the same nodes and are asked the same keys, a slice of them each in turn. Inserting starts from an
// empty table, so that all growth is in it. Search keys are built one by one from a compact list, as the library builds
// them.
#include "support/counting.hpp"
#include "support/harness.hpp"

#include "fp_udp_acldb/word_hash.hpp"

#include <absl/container/flat_hash_set.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <plx/cache.h>
#include <random>
#include <unordered_set>

namespace {

constexpr size_t entries = 1'000'000;
constexpr size_t slice = 50'000;
constexpr uint32_t acls = 1000;

struct entry_key {
    uint64_t sn;
    uint32_t acl_id;
};

// ---- the contenders

struct key_hash {
    size_t operator()(const fp_udp_ace_node *n) const noexcept
    {
        return plx::acldb::word_hash(n->acl.acl_id, static_cast<uint32_t>(n->ace.sn),
                                     static_cast<uint32_t>(n->ace.sn >> 32));
    }
};

// As the library tests names: equal bytes first, which is nearly always so, then the texts.
bool same_name(const char (&a)[FP_UDP_APP_TYPE_SIZE], const char (&b)[FP_UDP_APP_TYPE_SIZE])
{
    std::array<uint64_t, FP_UDP_APP_TYPE_SIZE / sizeof(uint64_t)> x, y;
    std::memcpy(x.data(), a, sizeof a);
    std::memcpy(y.data(), b, sizeof b);
    if (((x[0] ^ y[0]) | (x[1] ^ y[1]) | (x[2] ^ y[2]) | (x[3] ^ y[3])) == 0)
        return true;
    const size_t length = strnlen(a, sizeof a);
    return length == strnlen(b, sizeof b) && std::memcmp(a, b, length) == 0;
}

struct key_equal {
    bool operator()(const fp_udp_ace_node *a, const fp_udp_ace_node *b) const noexcept
    {
        return a->acl.acl_id == b->acl.acl_id && a->ace.sn == b->ace.sn && same_name(a->acl.app_type, b->acl.app_type);
    }
};

class node_table {
  public:
    node_table() { fp_udp_ace_node_hash_init(); }
    ~node_table()
    {
        std::free(fp_udp_ace_node_list->flags);
        std::free(static_cast<void *>(fp_udp_ace_node_list->keys));
        std::free(fp_udp_ace_node_list);
        fp_udp_ace_node_list = nullptr;
    }
    node_table(const node_table &) = delete;
    node_table &operator=(const node_table &) = delete;

    void insert(fp_udp_ace_node *node) { fp_udp_ace_node_hash_insert(node); }
    const fp_udp_ace_node *find(fp_udp_ace_node *key) const { return fp_udp_ace_node_hash_find(key); }
    void remove(fp_udp_ace_node *key) { fp_udp_ace_node_hash_remove(key); }
    size_t size() const { return fp_udp_ace_node_hash_size(); }
};

template <class Set> class standard_set {
  public:
    void insert(fp_udp_ace_node *node) { set_.insert(node); }
    const fp_udp_ace_node *find(fp_udp_ace_node *key) const
    {
        const auto at = set_.find(key);
        return at == set_.end() ? nullptr : *at;
    }
    void remove(fp_udp_ace_node *key) { set_.erase(key); }
    size_t size() const { return set_.size(); }

  private:
    Set set_;
};

using unordered_set = standard_set<std::unordered_set<fp_udp_ace_node *, key_hash, key_equal>>;
using flat_set = standard_set<absl::flat_hash_set<fp_udp_ace_node *, key_hash, key_equal>>;

// ---- what they hold and are asked

struct freed {
    void operator()(void *block) const { std::free(block); }
};
using owned_node = std::unique_ptr<fp_udp_ace_node, freed>;

void set_key(fp_udp_ace_node &node, const entry_key &key)
{
    node.acl.acl_id = key.acl_id;
    node.ace.sn = key.sn;
}

fp_udp_ace_node blank_node()
{
    fp_udp_ace_node node = {};
    std::strcpy(node.acl.app_type, "security_app");
    return node;
}

struct world {
    std::vector<owned_node> nodes; // in the order in which they were allocated
    std::vector<entry_key> present;
    std::vector<entry_key> absent;
};

world make_world()
{
    world w;
    for (uint32_t i = 0; i < entries; ++i) {
        w.present.push_back({i / acls + 1, i % acls});
        w.absent.push_back({i / acls + 1 + entries, i % acls});
        w.nodes.emplace_back(new (std::malloc(sizeof(fp_udp_ace_node))) fp_udp_ace_node(blank_node()));
        set_key(*w.nodes.back(), w.present.back());
    }
    std::mt19937 random(20260101);
    std::shuffle(w.present.begin(), w.present.end(), random);
    std::shuffle(w.absent.begin(), w.absent.end(), random);
    return w;
}

world &the_world()
{
    static world w = make_world();
    return w;
}

// ---- measuring

struct times {
    double ours = 0, standard = 0, flat = 0;

    void report(benchmark::State &state) const
    {
        state.counters["node table ns"] = ours / entries;
        state.counters["unordered_set ns"] = standard / entries;
        state.counters["flat_hash_set ns"] = flat / entries;
        state.counters["ratio to unordered_set"] = ours / standard;
        state.counters["ratio to flat_hash_set"] = ours / flat;
    }
};

struct contenders {
    std::unique_ptr<node_table> ours = std::make_unique<node_table>();
    std::unique_ptr<unordered_set> standard = std::make_unique<unordered_set>();
    std::unique_ptr<flat_set> flat = std::make_unique<flat_set>();
};

template <class Table> void insert_slice(Table &table, size_t begin)
{
    for (size_t i = begin; i < begin + slice; ++i)
        table.insert(the_world().nodes[i].get());
}

// The number of keys that were found.
template <class Table> size_t find_slice(const Table &table, const std::vector<entry_key> &keys, size_t begin)
{
    fp_udp_ace_node key = blank_node();
    size_t found = 0;
    for (size_t i = begin; i < begin + slice; ++i) {
        set_key(key, keys[i]);
        found += table.find(&key) != nullptr;
    }
    return found;
}

template <class Table> void remove_slice(Table &table, size_t begin)
{
    fp_udp_ace_node key = blank_node();
    for (size_t i = begin; i < begin + slice; ++i) {
        set_key(key, the_world().present[i]);
        table.remove(&key);
    }
}

// Gives each contender each slice, going round who is first.
template <class Operation> times take_turns(contenders &tables, Operation operation)
{
    times total;
    for (size_t begin = 0, turn = 0; begin < entries; begin += slice, ++turn)
        for (size_t i = 0; i < 3; ++i) {
            const size_t who = (turn + i) % 3;
            if (who == 0)
                total.ours += bench::cpu_nanoseconds([&] { operation(*tables.ours, begin); });
            else if (who == 1)
                total.standard += bench::cpu_nanoseconds([&] { operation(*tables.standard, begin); });
            else
                total.flat += bench::cpu_nanoseconds([&] { operation(*tables.flat, begin); });
        }
    return total;
}

times fill(contenders &tables)
{
    return take_turns(tables, [](auto &table, size_t begin) { insert_slice(table, begin); });
}

std::unique_ptr<contenders> filled; // what the searches share

contenders &searched()
{
    if (!filled) {
        filled = std::make_unique<contenders>();
        fill(*filled);
    }
    return *filled;
}

bool hold(const contenders &tables, size_t count)
{
    return tables.ours->size() == count && tables.standard->size() == count && tables.flat->size() == count;
}

void insert(benchmark::State &state)
{
    the_world();
    filled.reset();
    bench::once(state, [&] {
        contenders tables;
        fill(tables).report(state);
        if (!hold(tables, entries))
            state.SkipWithError("an entry is missing");
    });
}

void find(benchmark::State &state, const std::vector<entry_key> &keys, size_t expected)
{
    contenders &tables = searched();
    bench::once(state, [&] {
        size_t found = 0;
        take_turns(tables, [&](auto &table, size_t begin) { found += find_slice(table, keys, begin); }).report(state);
        if (found != expected)
            state.SkipWithError("a search is wrong");
    });
}

void find_hit(benchmark::State &state)
{
    find(state, the_world().present, 3 * entries);
}

void find_miss(benchmark::State &state)
{
    find(state, the_world().absent, 0);
}

void remove(benchmark::State &state)
{
    contenders &tables = searched();
    bench::once(state, [&] {
        take_turns(tables, [](auto &table, size_t begin) { remove_slice(table, begin); }).report(state);
        if (!hold(tables, 0))
            state.SkipWithError("an entry is left");
    });
    filled.reset();
}

// The one insert of a fill that rebuilds the table into two million buckets, which the application waits for.
void longest_insert(benchmark::State &state)
{
    the_world();
    filled.reset();
    bench::once(state, [&] {
        node_table table;
        double longest = 0;
        for (const owned_node &node : the_world().nodes) {
            const bool rebuilds = fp_udp_ace_node_list->n_occupied >= fp_udp_ace_node_list->upper_bound;
            if (!rebuilds)
                table.insert(node.get());
            else
                longest = std::max(longest, bench::cpu_nanoseconds([&] { table.insert(node.get()); }));
        }
        state.counters["ms"] = longest / 1e6;
    });
}

template <class Table> double bytes_per_entry()
{
    const int64_t before = bench::allocations.live_bytes;
    const auto table = std::make_unique<Table>();
    for (size_t begin = 0; begin < entries; begin += slice)
        insert_slice(*table, begin);
    return static_cast<double>(bench::allocations.live_bytes - before) / entries;
}

void memory(benchmark::State &state)
{
    the_world();
    filled.reset();
    bench::once(state, [&] {
        state.counters["node table bytes"] = bytes_per_entry<node_table>();
        state.counters["unordered_set bytes"] = bytes_per_entry<unordered_set>();
        state.counters["flat_hash_set bytes"] = bytes_per_entry<flat_set>();
    });
}

constexpr double noise = 0.10;
constexpr bench::goal goals[] = {
    {"insert", "ratio to unordered_set", 1.0, noise},
    {"insert", "ratio to flat_hash_set", 1.0, noise},
    {"find_hit", "ratio to unordered_set", 1.0, noise},
    {"find_hit", "ratio to flat_hash_set", 1.0, noise},
    {"memory", "node table bytes", 18.0, 0},
};

} // namespace

int main(int argc, char **argv)
{
    bench::add("insert", insert);
    bench::add("find_hit", find_hit);
    bench::add("find_miss", find_miss);
    bench::add("remove", remove);
    bench::add("longest_insert", longest_insert);
    bench::add("memory", memory)->Repetitions(1); // counted, the same each time
    return bench::run(argc, argv, goals);
}
