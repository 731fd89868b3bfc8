// The node tables: where a node is placed, how a table grows, what a search reports.
#include <cstring>
#include <support/application.h>

namespace {

class tables : public library_case {
  protected:
    tables()
    {
        fp_udp_acl_node_hash_init();
        fp_udp_ace_node_hash_init();
        fp_udp_apply_node_hash_init();
    }
};

fp_udp_acl_node acl_node(uint32_t id, const std::string &type = "a")
{
    fp_udp_acl_node node{};
    node.acl = make_info(type, id);
    return node;
}

fp_udp_ace_node ace_node(uint32_t id, uint64_t sn, const std::string &type = "a")
{
    fp_udp_ace_node node{};
    node.acl = make_info(type, id);
    node.ace.sn = sn;
    return node;
}

fp_udp_apply_node apply_node(uint32_t phyid, uint32_t pri, uint32_t id, const std::string &type = "a",
                             const std::string &apply_type = "b")
{
    fp_udp_apply_node node{};
    node.acl = make_info(type, id);
    node.apply = make_apply_info(apply_type, phyid, pri);
    return node;
}

// Makes an empty table as large as asked, so that a node lands in the bucket that its hash names.
template <class Table> struct sized_table {
    sized_table(Table *&table, uint32_t buckets) : slot(table), kept(*table), flags(buckets / 16 + 1), keys(buckets)
    {
        memset(flags.data(), 0xAA, flags.size() * sizeof flags[0]);
        *slot = {buckets, 0, 0, buckets / 2, flags.data(), keys.data(), nullptr};
    }
    ~sized_table() { *slot = kept; }
    template <class Node> uint32_t bucket_of(const Node *node) const
    {
        return static_cast<uint32_t>(std::find(keys.begin(), keys.end(), node) - keys.begin());
    }

    Table *slot;
    Table kept;
    std::vector<uint32_t> flags;
    std::vector<typename std::remove_pointer<decltype(Table::keys)>::type> keys;
};

uint32_t home(uint32_t acl_id, uint32_t buckets)
{
    sized_table large(fp_udp_acl_node_list, buckets);
    fp_udp_acl_node node = acl_node(acl_id);
    fp_udp_acl_node_hash_insert(&node);
    return large.bucket_of(&node);
}

TEST_F(tables, the_word_hash_places_nodes)
{
    const uint32_t buckets = 1 << 20;
    EXPECT_EQ(home(0, buckets), 0x8965BBE9 % buckets);
    EXPECT_EQ(home(1, buckets), 0xFA8BD2A8 % buckets);
    fp_udp_ace_node ace = ace_node(1, 1);
    fp_udp_apply_node apply = apply_node(1, 0, 1);
    sized_table aces(fp_udp_ace_node_list, buckets);
    sized_table applies(fp_udp_apply_node_list, buckets);
    fp_udp_ace_node_hash_insert(&ace);
    fp_udp_apply_node_hash_insert(&apply);
    EXPECT_EQ(aces.bucket_of(&ace), 0x18550E7F % buckets);
    EXPECT_EQ(applies.bucket_of(&apply), 0x0109CE5D % buckets);
}

TEST_F(tables, a_table_half_empty_at_its_bound_is_purged_and_a_fuller_one_doubles)
{
    for (auto [removed, buckets, occupied] : {std::tuple{5U, 16U, 8U}, {4U, 32U, 9U}}) {
        std::deque<fp_udp_acl_node> nodes;
        for (uint32_t i = 0; i < 12; i++)
            fp_udp_acl_node_hash_insert(&nodes.emplace_back(acl_node(i)));
        for (uint32_t i = 0; i < removed; i++)
            fp_udp_acl_node_hash_remove(&nodes[i]);
        EXPECT_EQ(fp_udp_acl_node_list->n_occupied, 12U);
        fp_udp_acl_node_hash_insert(&nodes.emplace_back(acl_node(12)));
        EXPECT_EQ(fp_udp_acl_node_list->n_buckets, buckets);
        EXPECT_EQ(fp_udp_acl_node_list->n_occupied, occupied);
        for (uint32_t i = 0; i < nodes.size(); i++)
            EXPECT_EQ(fp_udp_acl_node_hash_find(&nodes[i]), i < removed ? nullptr : &nodes[i]);
        free(fp_udp_acl_node_list->keys);
        free(fp_udp_acl_node_list->flags);
        free(fp_udp_acl_node_list);
        fp_udp_acl_node_hash_init();
    }
}

TEST_F(tables, a_table_doubles_at_its_bound_and_moves_each_node_by_the_kick_out_walk)
{
    // The walk on plain numbers: each displaced id goes to its first empty bucket, changing places with one not yet
    // moved.
    std::deque<fp_udp_acl_node> nodes;
    std::vector<uint32_t> model; // bucket -> id + 1
    uint32_t bound = 0, size = 0;
    auto place = [&](std::vector<uint32_t> &at, uint32_t id) {
        uint32_t mask = static_cast<uint32_t>(at.size()) - 1, i = home(id, 1 << 16) & mask, step = 0;
        while (at[i])
            i = (i + ++step) & mask;
        return i;
    };
    for (uint32_t id = 0; id < 60; id++) {
        if (size >= bound) {
            uint32_t m = model.empty() ? 4 : static_cast<uint32_t>(model.size()) * 2;
            std::vector<uint32_t> old = model, grown(m);
            old.resize(m);
            std::vector<bool> moved(m, false);
            for (uint32_t j = 0; j < model.size(); j++) {
                uint32_t carried = std::exchange(old[j], 0);
                while (carried) {
                    uint32_t to = place(grown, carried - 1);
                    grown[to] = carried;
                    carried = to < model.size() ? std::exchange(old[to], 0) : 0;
                }
            }
            model = grown;
            bound = static_cast<uint32_t>(m * 0.77 + 0.5);
        }
        model[place(model, id)] = id + 1;
        size++;
        fp_udp_acl_node_hash_insert(&nodes.emplace_back(acl_node(id)));
        std::vector<uint32_t> expected, seen;
        std::copy_if(model.begin(), model.end(), std::back_inserter(expected), [](uint32_t x) { return x != 0; });
        fp_udp_acl_node_hash_traverse(
            [](fp_udp_acl_node *node, void *arg) {
                static_cast<std::vector<uint32_t> *>(arg)->push_back(node->acl.acl_id + 1);
                return 0;
            },
            &seen);
        ASSERT_EQ(seen, expected) << id;
        const fp_udp_acl_table &table = *fp_udp_acl_node_list;
        EXPECT_EQ(std::tuple(table.n_buckets, table.upper_bound, table.size, table.vals),
                  std::tuple(model.size(), bound, size, nullptr));
    }
}

TEST_F(tables, a_new_node_takes_the_most_recent_deleted_bucket_of_its_probe)
{
    const uint32_t buckets = 64;
    std::vector<uint32_t> colliding;
    for (uint32_t id = 0; colliding.size() < 5; id++)
        if (home(id, buckets) == 40)
            colliding.push_back(id);
    std::deque<fp_udp_acl_node> nodes;
    for (uint32_t id : colliding)
        nodes.push_back(acl_node(id));
    sized_table table(fp_udp_acl_node_list, buckets);
    for (size_t i = 0; i < 4; i++)
        fp_udp_acl_node_hash_insert(&nodes[i]);
    EXPECT_EQ(table.bucket_of(&nodes[3]), 46U); // 40, 41, 43, 46
    fp_udp_acl_node_hash_remove(&nodes[0]);
    fp_udp_acl_node_hash_remove(&nodes[2]);
    EXPECT_EQ(fp_udp_acl_node_hash_find(&nodes[3]), &nodes[3]);
    fp_udp_acl_node_hash_insert(&nodes[4]);
    EXPECT_EQ(table.keys[43], &nodes[4]);
    EXPECT_EQ(fp_udp_acl_node_list->size, 3U);
    EXPECT_EQ(fp_udp_acl_node_list->n_occupied, 4U);
}

TEST_F(tables, the_first_node_of_a_key_stays)
{
    fp_udp_acl_node first = acl_node(1), second = acl_node(1), other = acl_node(1, "b");
    for (auto *node : {&first, &second, &other})
        EXPECT_EQ(fp_udp_acl_node_hash_insert(node), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_find(&second), &first);
    EXPECT_EQ(fp_udp_acl_node_hash_find(&other), &other);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 2U);
    fp_udp_acl_node_hash_remove(&second);
    fp_udp_acl_node_hash_remove(&second);
    EXPECT_EQ(fp_udp_acl_node_hash_find(&first), nullptr);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 1U);

    fp_udp_apply_node in = apply_node(1, 2, 3), out = in;
    out.apply.dir = 1;
    fp_udp_apply_node_hash_insert(&in);
    EXPECT_EQ(fp_udp_apply_node_hash_find(&out), &in);
}

TEST_F(tables, an_empty_table_and_a_null_key_find_nothing)
{
    fp_udp_ace_node key = ace_node(1, 1);
    EXPECT_EQ(fp_udp_ace_node_hash_find(&key), nullptr);
    fp_udp_ace_node_hash_remove(&key);
    fp_udp_ace_node_hash_insert(&key);
    EXPECT_EQ(fp_udp_ace_node_hash_find(nullptr), nullptr);
    EXPECT_EQ(fp_udp_apply_node_hash_traverse([](fp_udp_apply_node *, void *) { return 1; }, nullptr), 0);
}

TEST_F(tables, comparisons_report_the_first_difference)
{
    // One bucket, so that every search compares.
    sized_table acls(fp_udp_acl_node_list, 1);
    sized_table aces(fp_udp_ace_node_list, 1);
    sized_table applies(fp_udp_apply_node_list, 1);
    fp_udp_acl_node acl = acl_node(1);
    fp_udp_ace_node ace = ace_node(1, 1);
    fp_udp_apply_node apply = apply_node(1, 1, 1);
    acls.slot->upper_bound = aces.slot->upper_bound = applies.slot->upper_bound = 1;
    fp_udp_acl_node_hash_insert(&acl);
    fp_udp_ace_node_hash_insert(&ace);
    fp_udp_apply_node_hash_insert(&apply);
    const auto says = [](auto find, const auto &key, const lines &messages) {
        find(&key);
        for (const auto &line : fake::log.kept)
            EXPECT_EQ(line.file, "app/fp_udp_acldb.cpp");
        EXPECT_EQ(fake::log.take("N"), messages);
    };
    const auto find_acl = fp_udp_acl_node_hash_find;
    const auto find_ace = fp_udp_ace_node_hash_find;
    const auto find_apply = fp_udp_apply_node_hash_find;
    says(find_acl, acl_node(9), {"N NOT EQUAL"});
    says(find_acl, acl_node(1, "ab"), {"N NOT EQUAL", "N APP_TYPE NOT EQUAL"});
    says(find_acl, acl_node(1, "b"), {"N APP_TYPE DO NOT EQUAL.", "N APP_TYPE NOT EQUAL"});
    says(find_ace, ace_node(2, 1), {"N ACL ID DO NOT EQUAL."});
    says(find_ace, ace_node(1, 1ULL << 32), {"N SN DO NOT EQUAL."});
    says(find_ace, ace_node(1, 1, "b"), {"N APP_TYPE DO NOT EQUAL.", "N APP_TYPE NOT EQUAL"});
    says(find_apply, apply_node(2, 2, 2), {"N PHYID DO NOT EQUAL."});
    says(find_apply, apply_node(1, 2, 2), {"N PRIORITY DO NOT EQUAL."});
    says(find_apply, apply_node(1, 1, 2), {"N ACL ID DO NOT EQUAL."});
    says(find_apply, apply_node(1, 1, 1, ""), {"N NOT EQUAL"});
    says(find_apply, apply_node(1, 1, 1, "a", "c"), {"N APP_TYPE DO NOT EQUAL."});
}

TEST_F(tables, a_traversal_goes_by_bucket_and_survives_removals)
{
    std::deque<fp_udp_acl_node> nodes;
    for (uint32_t i = 0; i < 20; i++)
        fp_udp_acl_node_hash_insert(&nodes.emplace_back(acl_node(i)));
    const uint32_t buckets = fp_udp_acl_node_list->n_buckets;
    struct seen {
        std::vector<fp_udp_acl_node *> order;
        size_t stop_after;
    } whole{{}, 0}, part{{}, 0}, stopped{{}, 7};
    auto visit = [](fp_udp_acl_node *node, void *arg) {
        auto *s = static_cast<seen *>(arg);
        s->order.push_back(node);
        return s->order.size() == s->stop_after ? 5 : 0;
    };
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(visit, &whole), 0);
    EXPECT_EQ(whole.order.size(), 20U);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(visit, &stopped), 5);
    EXPECT_EQ(stopped.order.size(), 7U);
    stopped.order.clear();
    EXPECT_EQ(fp_udp_acl_node_traverse_op(visit, &stopped), 0);

    EXPECT_EQ(fp_udp_acl_node_hash_traverse_with_index(visit, 0, 5, &part), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse_with_index(visit, 5, 0, &part), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse_with_index(visit, 5, UINT32_MAX, &part), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse_with_index(visit, buckets, 1, &part), 0);
    EXPECT_EQ(part.order, whole.order);

    auto remove_all = [](fp_udp_acl_node *, void *arg) {
        for (fp_udp_acl_node &node : *static_cast<std::deque<fp_udp_acl_node> *>(arg))
            fp_udp_acl_node_hash_remove(&node);
        return 0;
    };
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(remove_all, &nodes), 0);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
}

TEST_F(tables, a_table_that_cannot_grow_stays_as_it_was)
{
    std::deque<fp_udp_acl_node> nodes;
    for (uint32_t i = 0; i < 4; i++)
        nodes.push_back(acl_node(i));
    for (size_t held : {0U, 3U}) {
        while (fp_udp_acl_node_hash_size() < held)
            fp_udp_acl_node_hash_insert(&nodes[fp_udp_acl_node_hash_size()]);
        const fp_udp_acl_table before = *fp_udp_acl_node_list;
        for (int site : {1, 2}) {
            fake::failing_allocation fail(site);
            EXPECT_EQ(fp_udp_acl_node_hash_insert(&nodes[held]), 0);
            EXPECT_EQ(fp_udp_acl_node_hash_find(&nodes[held]), nullptr);
            EXPECT_EQ(fp_udp_acl_node_list->n_buckets, before.n_buckets);
            EXPECT_EQ(fp_udp_acl_node_hash_size(), held);
        }
    }
    fp_udp_acl_node_hash_insert(&nodes[3]);
    for (fp_udp_acl_node &node : nodes)
        EXPECT_EQ(fp_udp_acl_node_hash_find(&node), &node);
}

} // namespace
