// Exhausted memory at every site, one at a time, on the whole road of an application.
#include <support/application.h>

namespace {

class memory : public library_case {
  protected:
    // One of everything that allocates; what fails is carried on with.
    void live()
    {
        const fp_udp_acl_key key = make_key("security_app", 1);
        const fp_udp_acl_info info = make_info("security_app", 2);
        set_acl("security_app", 1);
        for (uint64_t sn = 1; sn <= 8; sn++)
            set_ace("security_app", 1, sn);
        for (uint32_t phyid = 1; phyid <= 8; phyid++)
            set_apply("security_app", 2, "my_app", phyid);
        heartbeat(1);
        answer_ace("security_app", 1, 1, 0, now());
        answer_ace("security_app", 1, 2, 3, now());
        answer_apply("security_app", 2, "my_app", 1, 0, 0, now());
        if (fp_udp_ace *ace = mgr->alloc_ace(9, 0)) {
            fp_udp_attr attr{};
            ace->tlv->construct(&attr, "vid", 1, attr.value, 2);
            ace->tlv->push(&ace->tlv, attr);
            mgr->set_ace(&context, &key, ace);
            uint8_t fwd_zero;
            for (int whole : {0, 1})
                mgr->free_ace(mgr->copy_ace(ace, whole, &fwd_zero));
            mgr->free_ace(ace);
        }
        fp_udp_apply_key apply_key{};
        put_name(apply_key.apply_type, "my_app");
        if (fp_udp_apply *apply = mgr->alloc_apply(&apply_key)) {
            mgr->set_apply(&context, &info, 0, apply);
            mgr->del_apply(&context, &info, apply);
            mgr->free_apply(apply);
        }
        mgr->free_ace(mgr->get_ace(&context, &key, 1));
        uint64_t *sns;
        uint32_t count;
        free(mgr->iterator_ace(&context, &key, &sns, &count));
        fake::clock.now_us += 25'000'000;
        fp_udp_fp_service_node_expire();
        mgr->delete_ace(&context, &key, 3);
    }

    // Everything away again, but for nodes that a table could not take: those go with their ACL.
    void expect_nothing_left()
    {
        for (const fp_udp_acl_key &key : {make_key("security_app", 1), make_key("security_app", 2)})
            mgr->del_acl(&context, &key);
        EXPECT_EQ(fp_udp_acl_node_hash_size() + fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size(), 0U);
        EXPECT_EQ(pending(), 0U);
        EXPECT_EQ(list_length(g_fp_service.nodes), 0U);
        EXPECT_TRUE(fake::store.unreleased.empty());
    }
};

TEST_F(memory, a_failing_allocation_at_any_site_harms_nobody)
{
    start();
    int site = 0;
    for (int seen = 1; seen > site;) {
        // The tables of a process that has just started, so that their growth is among the sites.
        const fp_udp_acl_table acls = std::exchange(*fp_udp_acl_node_list, {});
        const fp_udp_ace_table aces = std::exchange(*fp_udp_ace_node_list, {});
        const fp_udp_apply_table applies = std::exchange(*fp_udp_apply_node_list, {});
        for (void *block :
             {static_cast<void *>(acls.flags), static_cast<void *>(acls.keys), static_cast<void *>(aces.flags),
              static_cast<void *>(aces.keys), static_cast<void *>(applies.flags), static_cast<void *>(applies.keys)})
            free(block);
        {
            fake::failing_allocation fail(++site);
            live();
            seen = fake::failing_allocation::seen();
        }
        ASSERT_NO_FATAL_FAILURE(expect_nothing_left()) << "site " << site;
        forget_calls();
    }
    EXPECT_GT(site, 60);
}

} // namespace
