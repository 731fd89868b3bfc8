// The cache operations as an application calls them, beside those that the model makes through the operation table.
#include "records.h"

#include <cstring>

namespace {

class cache : public library_case {
  protected:
    cache() { start(); }

    int32_t add_acl(const std::string &type, uint32_t id)
    {
        fp_udp_acl_info acl = make_info(type, id);
        return fp_udp_acldb_add_acl(&acl);
    }
    int32_t add_ace(const std::string &type, uint32_t id, uint64_t sn)
    {
        fp_udp_acl_info acl = make_info(type, id);
        fp_udp_ace_info ace = make_ace_info(sn);
        return fp_udp_acldb_add_ace(&acl, &ace, &ace_node);
    }
    int32_t add_apply(const std::string &type, uint32_t id, uint32_t phyid, uint32_t pri = 0)
    {
        fp_udp_acl_info acl = make_info(type, id);
        fp_udp_apply_info apply = make_apply_info("my_app", phyid, pri);
        return fp_udp_acldb_add_apply(&acl, &apply, &apply_node);
    }
    // Numbers of ACLs, entries and applies.
    using sizes = std::array<uint32_t, 3>;
    static sizes cached()
    {
        return {fp_udp_acl_node_hash_size(), fp_udp_ace_node_hash_size(), fp_udp_apply_node_hash_size()};
    }
    fp_udp_ace_node *ace_node = nullptr;
    fp_udp_apply_node *apply_node = nullptr;
};

TEST_F(cache, what_is_not_cached_is_not_found)
{
    fp_udp_acl_info acl = make_info("a", 1);
    fp_udp_ace_info ace = make_ace_info(1);
    fp_udp_apply_info apply = make_apply_info("a", 1);
    auto *acl_node = reinterpret_cast<fp_udp_acl_node *>(1);
    ace_node = reinterpret_cast<fp_udp_ace_node *>(1);
    apply_node = reinterpret_cast<fp_udp_apply_node *>(1);
    EXPECT_EQ(fp_udp_acldb_get_acl(&acl, &acl_node), -7);
    EXPECT_EQ(fp_udp_acldb_get_ace(&acl, &ace, &ace_node), -7);
    EXPECT_EQ(fp_udp_acldb_get_apply(&acl, &apply, &apply_node), -7);
    EXPECT_EQ(acl_node, nullptr);
    EXPECT_EQ(ace_node, nullptr);
    EXPECT_EQ(apply_node, nullptr);
    EXPECT_EQ(fp_udp_acldb_del_acl(&acl), 0);
    EXPECT_EQ(fp_udp_acldb_del_ace(&acl, &ace), 0);
    EXPECT_EQ(fp_udp_acldb_del_apply(&acl, &apply), 0);
}

TEST_F(cache, nodes_hang_under_their_acl_newest_first_and_an_apply_makes_it)
{
    EXPECT_EQ(add_ace("a", 1, 1), -7);
    EXPECT_EQ(cached(), (sizes{0, 0, 0}));
    EXPECT_EQ(add_apply("b", 1, 7), 0);
    EXPECT_EQ(cached(), (sizes{1, 0, 1}));
    fp_udp_acl_info acl = make_info("a", 1);
    put_priv(acl.priv, sizeof acl.priv, 40);
    acl.uuid = 5;
    EXPECT_EQ(fp_udp_acldb_add_acl(&acl), 0);
    const fp_udp_acl_node *node = cached_acl("a", 1);
    EXPECT_EQ(memcmp(&node->acl, &acl, sizeof acl), 0);
    for (uint64_t sn : std::vector<uint64_t>{1, 2})
        EXPECT_EQ(add_ace("a", 1, sn), 0);
    EXPECT_EQ(reinterpret_cast<fp_udp_ace_node *>(node->ace_list.next), ace_node);
    EXPECT_EQ(ace_node, cached_ace("a", 1, 2));
    EXPECT_EQ(ace_node->req, nullptr);
    EXPECT_EQ(broken(), "");
}

TEST_F(cache, a_second_node_under_a_live_key_is_neither_leaked_nor_left_behind_freed)
{
    EXPECT_EQ(add_acl("a", 1), 0);
    fp_udp_acl_node *first = cached_acl("a", 1);
    EXPECT_EQ(add_acl("a", 1), 0);
    EXPECT_EQ(cached_acl("a", 1), first);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(add_ace("a", 1, 5), 0);
        EXPECT_EQ(add_apply("a", 1, 7), 0);
    }
    EXPECT_EQ(cached(), (sizes{1, 1, 1}));
    fp_udp_acl_info acl = make_info("a", 1);
    fp_udp_ace_info ace = make_ace_info(5);
    fp_udp_apply_info apply = make_apply_info("my_app", 7);
    for (int i = 0; i < 3; i++) {
        fp_udp_acldb_del_ace(&acl, &ace);
        fp_udp_acldb_del_apply(&acl, &apply);
    }
    EXPECT_EQ(cached_ace("a", 1, 5), nullptr);
    list_length(first->ace_list);
    list_length(first->apply_list);
    fp_udp_acldb_del_acl(&acl);
    EXPECT_EQ(cached(), (sizes{0, 0, 0}));
}

TEST_F(cache, skipped_priorities_make_applies_one_key)
{
    EXPECT_EQ(fp_udp_is_cmp_apply_skip_priority(), 0);
    fp_udp_set_cmp_apply_skip_prio();
    fp_udp_set_cmp_apply_skip_prio();
    EXPECT_EQ(fp_udp_is_cmp_apply_skip_priority(), 1);
    add_apply("a", 1, 7, 100);
    fp_udp_apply_node *first = apply_node;
    add_apply("a", 1, 7, 200);
    EXPECT_EQ(first->apply.pri, 0U);
    EXPECT_EQ(cached(), (sizes{1, 0, 1}));
    EXPECT_EQ(list_length(cached_acl("a", 1)->apply_list), 2U);
    EXPECT_EQ(cached_apply("a", 1, "my_app", 7, 300), first);
}

TEST_F(cache, exhausted_memory_is_reported_and_leaves_the_cache_as_it_was)
{
    add_acl("a", 1);
    const std::pair<std::function<int32_t()>, std::string> rows[] = {
        {[this] { return add_acl("b", 1); }, "E malloc for acl node fail."},
        {[this] { return add_ace("a", 1, 1); }, "E malloc for ace node fail."},
        {[this] { return add_apply("a", 1, 1); }, "E malloc for acl node fail."},
        {[this] { return add_apply("b", 1, 1); }, "E malloc for acl node fail."}}; // its ACL's
    for (const auto &[add, message] : rows) {
        fake::failing_allocation fail(1);
        EXPECT_EQ(add(), -2);
        EXPECT_EQ(fake::log.take().at(0), message);
        EXPECT_EQ(cached(), (sizes{1, 0, 0}));
        EXPECT_EQ(broken(), "");
    }
}

} // namespace
