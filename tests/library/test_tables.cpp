// The node tables: where a node is placed, how a table grows, what a search reports.
#include <cstring>
#include <random>
#include <support/application.h>

namespace {

class tables : public library_case {
  protected:
    tables() { fp_udp_acldb_init(); }
};

template <class Node> Node node_of(uint32_t id, const std::string &type = "a")
{
    Node node{};
    node.acl = make_info(type, id);
    return node;
}

fp_udp_ace_node ace_node(uint32_t id, uint64_t sn, const std::string &type = "a")
{
    auto node = node_of<fp_udp_ace_node>(id, type);
    node.ace.sn = sn;
    return node;
}

fp_udp_apply_node apply_node(uint32_t phyid, uint32_t pri, uint32_t id, const std::string &type = "a",
                             const std::string &apply_type = "b")
{
    auto node = node_of<fp_udp_apply_node>(id, type);
    node.apply = make_apply_info(apply_type, phyid, pri);
    return node;
}

// Where a node lands in an empty table as large as asked.
template <class Table, class Node> uint32_t home(Table *table, int32_t (*insert)(Node *), Node node, uint32_t buckets)
{
    std::vector<uint32_t> flags(buckets / 16 + 1, 0xAAAAAAAA);
    std::vector<Node *> keys(buckets);
    const Table kept = std::exchange(*table, {buckets, 0, 0, buckets / 2, flags.data(), keys.data(), nullptr});
    insert(&node);
    *table = kept;
    return static_cast<uint32_t>(std::find(keys.begin(), keys.end(), &node) - keys.begin());
}

TEST_F(tables, the_word_hash_places_nodes)
{
    const uint32_t buckets = 1 << 20;
    const auto acl_home = [](uint32_t id) {
        return home(fp_udp_acl_node_list, fp_udp_acl_node_hash_insert, node_of<fp_udp_acl_node>(id), buckets);
    };
    EXPECT_EQ(acl_home(0), 0x8965BBE9 % buckets);
    EXPECT_EQ(acl_home(1), 0xFA8BD2A8 % buckets);
    EXPECT_EQ(home(fp_udp_ace_node_list, fp_udp_ace_node_hash_insert, ace_node(1, 1), buckets), 0x18550E7F % buckets);
    EXPECT_EQ(home(fp_udp_apply_node_list, fp_udp_apply_node_hash_insert, apply_node(1, 0, 1), buckets),
              0x0109CE5D % buckets);
}

// The table on plain numbers: what a bucket holds is an id, or one of these.
struct plain_table {
    static constexpr int empty = -1, deleted = -2;
    std::vector<int> buckets;
    std::vector<uint32_t> homes;
    size_t bound = 0;

    size_t count(bool occupied) const
    {
        return static_cast<size_t>(
            std::count_if(buckets.begin(), buckets.end(), [=](int b) { return occupied ? b != empty : b >= 0; }));
    }
    // The first empty bucket on an id's way, or the last deleted one before.
    size_t place(const std::vector<int> &in, int id) const
    {
        const size_t mask = in.size() - 1;
        size_t at = homes[static_cast<size_t>(id)] & mask, found = in.size();
        for (size_t step = 0; in[at] != empty; at = (at + ++step) & mask)
            found = in[at] == deleted ? at : found;
        return found == in.size() ? at : found;
    }
    // A half empty one is purged, a fuller one doubles: each id goes to its first empty bucket, changing places with
    // one not yet moved.
    void make_room()
    {
        std::vector<int> old = buckets;
        std::vector<int> grown(buckets.size() > 2 * count(false) ? buckets.size() : std::max<size_t>(4, 2 * old.size()),
                               empty);
        old.resize(grown.size(), empty);
        for (int &bucket : old)
            for (int carried = std::exchange(bucket, empty); carried >= 0;) {
                const size_t to = place(grown, carried);
                grown[to] = carried;
                carried = std::exchange(old[to], empty);
            }
        buckets = grown;
        bound = static_cast<size_t>(static_cast<double>(grown.size()) * 0.77 + 0.5);
    }
    void insert(int id)
    {
        if (count(true) >= bound)
            make_room();
        if (std::find(buckets.begin(), buckets.end(), id) == buckets.end())
            buckets[place(buckets, id)] = id;
    }
    void remove(int id) { std::replace(buckets.begin(), buckets.end(), id, deleted); }
};

TEST_F(tables, random_insertions_and_removals_leave_each_bucket_as_the_plain_table_has_it)
{
    constexpr uint32_t ids = 200;
    std::deque<fp_udp_acl_node> nodes, twins; // a twin has the key of one that may be there, which stays
    plain_table plain;
    for (uint32_t id = 0; id < ids; id++) {
        nodes.push_back(node_of<fp_udp_acl_node>(id));
        twins.push_back(nodes.back());
        plain.homes.push_back(home(fp_udp_acl_node_list, fp_udp_acl_node_hash_insert, nodes.back(), 1 << 16));
    }
    std::mt19937 random(1);
    for (int step = 0; step < 6000; step++) {
        const auto id = static_cast<uint32_t>(random() % (step < 3000 ? 40 : ids)); // many come back to their place
        const bool held = fp_udp_acl_node_hash_find(&twins[id]) == &nodes[id];
        ASSERT_EQ(held, std::count(plain.buckets.begin(), plain.buckets.end(), static_cast<int>(id)) == 1) << id;
        if (random() % 2) {
            fp_udp_acl_node_hash_remove(&twins[id]);
            plain.remove(static_cast<int>(id));
        } else {
            EXPECT_EQ(fp_udp_acl_node_hash_insert(held ? &twins[id] : &nodes[id]), 0);
            plain.insert(static_cast<int>(id));
        }
        const fp_udp_acl_table &table = *fp_udp_acl_node_list;
        std::vector<int> buckets;
        for (uint32_t i = 0; i < table.n_buckets; i++) {
            const uint32_t bits = table.flags[i / 16] >> 2 * (i % 16) & 3;
            buckets.push_back(bits & 2 ? plain_table::empty
                              : bits   ? plain_table::deleted
                                       : int(table.keys[i]->acl.acl_id));
        }
        ASSERT_EQ(buckets, plain.buckets) << step;
        ASSERT_EQ(std::tuple(table.size, table.n_occupied, table.upper_bound, table.vals),
                  std::tuple(plain.count(false), plain.count(true), plain.bound, nullptr));
    }
}

TEST_F(tables, keys_with_another_type_differ_and_those_with_another_direction_do_not)
{
    auto first = node_of<fp_udp_acl_node>(1), other = node_of<fp_udp_acl_node>(1, "b");
    fp_udp_acl_node_hash_insert(&first);
    EXPECT_EQ(fp_udp_acl_node_hash_find(&other), nullptr);
    fp_udp_apply_node in = apply_node(1, 2, 3), out = in;
    out.apply.dir = 1;
    fp_udp_apply_node_hash_insert(&in);
    EXPECT_EQ(fp_udp_apply_node_hash_find(&out), &in);

    fp_udp_ace_node key = ace_node(1, 1);
    EXPECT_EQ(fp_udp_ace_node_hash_find(&key), nullptr);
    fp_udp_ace_node_hash_remove(&key);
    EXPECT_EQ(fp_udp_ace_node_hash_find(nullptr), nullptr);
    EXPECT_EQ(fp_udp_ace_node_hash_traverse([](fp_udp_ace_node *, void *) { return 1; }, nullptr), 0);
}

// One bucket, so that every search compares.
template <class Table, class Node>
void expect_says(Table *table, int32_t (*insert)(Node *), Node *(*find)(const Node *), Node held,
                 const std::vector<std::pair<Node, lines>> &rows)
{
    uint32_t flags = 0xAAAAAAAA;
    Node *keys = nullptr;
    const Table kept = std::exchange(*table, {1, 0, 0, 1, &flags, &keys, nullptr});
    insert(&held);
    for (const auto &[key, messages] : rows) {
        find(&key);
        for (const auto &line : fake::log.kept)
            EXPECT_EQ(line.file, "app/fp_udp_acldb.cpp");
        EXPECT_EQ(fake::log.take("N"), messages);
    }
    *table = kept;
}

TEST_F(tables, comparisons_report_the_first_difference)
{
    const std::string type = "N APP_TYPE DO NOT EQUAL.", name = "N APP_TYPE NOT EQUAL", id = "N ACL ID DO NOT EQUAL.";
    expect_says<fp_udp_acl_table, fp_udp_acl_node>(fp_udp_acl_node_list, fp_udp_acl_node_hash_insert,
                                                   fp_udp_acl_node_hash_find, node_of<fp_udp_acl_node>(1),
                                                   {{node_of<fp_udp_acl_node>(9), {"N NOT EQUAL"}},
                                                    {node_of<fp_udp_acl_node>(1, "ab"), {"N NOT EQUAL", name}},
                                                    {node_of<fp_udp_acl_node>(1, "b"), {type, name}}});
    expect_says<fp_udp_ace_table, fp_udp_ace_node>(fp_udp_ace_node_list, fp_udp_ace_node_hash_insert,
                                                   fp_udp_ace_node_hash_find, ace_node(1, 1),
                                                   {{ace_node(2, 1), {id}},
                                                    {ace_node(1, 1ULL << 32), {"N SN DO NOT EQUAL."}},
                                                    {ace_node(1, 1, "b"), {type, name}}});
    expect_says<fp_udp_apply_table, fp_udp_apply_node>(fp_udp_apply_node_list, fp_udp_apply_node_hash_insert,
                                                       fp_udp_apply_node_hash_find, apply_node(1, 1, 1),
                                                       {{apply_node(2, 2, 2), {"N PHYID DO NOT EQUAL."}},
                                                        {apply_node(1, 2, 2), {"N PRIORITY DO NOT EQUAL."}},
                                                        {apply_node(1, 1, 2), {id}},
                                                        {apply_node(1, 1, 1, ""), {"N NOT EQUAL"}},
                                                        {apply_node(1, 1, 1, "a", "c"), {type}}});
}

TEST_F(tables, a_traversal_goes_by_bucket_and_survives_removals)
{
    std::deque<fp_udp_acl_node> nodes;
    for (uint32_t i = 0; i < 20; i++)
        fp_udp_acl_node_hash_insert(&nodes.emplace_back(node_of<fp_udp_acl_node>(i)));
    const uint32_t buckets = fp_udp_acl_node_list->n_buckets;
    std::vector<fp_udp_acl_node *> order, seen;
    for (uint32_t i = 0; i < buckets; i++)
        if ((fp_udp_acl_node_list->flags[i / 16] >> 2 * (i % 16) & 3) == 0)
            order.push_back(fp_udp_acl_node_list->keys[i]);
    const auto visit = [](fp_udp_acl_node *node, void *arg) {
        auto *all = static_cast<std::vector<fp_udp_acl_node *> *>(arg);
        all->push_back(node);
        return all->size() == 27 ? 5 : 0;
    };
    for (auto [start, count] : {std::pair{0U, 5U}, {5U, 0U}, {5U, UINT32_MAX}, {buckets, 1U}})
        EXPECT_EQ(fp_udp_acl_node_hash_traverse_with_index(visit, start, count, &seen), 0);
    EXPECT_EQ(seen, order);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(visit, &seen), 5);
    EXPECT_EQ(seen.size(), 27U);
    seen.resize(20);
    EXPECT_EQ(fp_udp_acl_node_traverse_op(visit, &seen), 0);
    EXPECT_EQ(seen.size(), 27U);

    const auto remove_all = [](fp_udp_acl_node *, void *arg) {
        for (fp_udp_acl_node &node : *static_cast<std::deque<fp_udp_acl_node> *>(arg))
            fp_udp_acl_node_hash_remove(&node);
        return 0;
    };
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(remove_all, &nodes), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
}

} // namespace
