// Names that cannot be: null, longer than 31 characters, or without a terminator. Every operation refuses them, and
// nothing else happens.
#include <support/application.h>

namespace {

class names : public library_case {
  protected:
    names() { start(); }
};

// A name as each operation takes it; all are null for none.
struct given {
    const char *text;
    const fp_udp_acl_key *key;
    const fp_udp_acl_info *acl;
    fp_udp_apply *apply;
};

struct call {
    const char *what;
    bool takes_null; // without a word
    std::function<int32_t(const given &)> run;
};

TEST_F(names, too_long_a_name_or_none_is_refused_everywhere)
{
    uint64_t *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 9;
    const owned_ace ace = make_ace(mgr, 1);
    const owned_apply apply = make_apply(mgr, "my_app", 1);
    const fp_udp_acl_info my_app = make_info("my_app", 1);
    const call calls[] = {
        {"set_acl", false,
         [&](auto &name) {
             const fp_udp_acl acl = make_acl(name.text ? name.text : "", 1);
             return mgr->set_acl(&context, name.text ? &acl : nullptr);
         }},
        {"del_acl", false, [&](auto &name) { return mgr->del_acl(&context, name.key); }},
        {"expire_acl", false, [&](auto &name) { return mgr->expire_acl(&context, name.text); }},
        {"del_expire_acl", false, [&](auto &name) { return mgr->del_expire_acl(&context, name.text); }},
        {"iterator_ace", false,
         [&](auto &name) {
             sns = reinterpret_cast<uint64_t *>(1);
             return mgr->iterator_ace(&context, name.key, &sns, &count) || sns || count ? 0 : -4;
         }},
        {"set_ace", false, [&](auto &name) { return mgr->set_ace(&context, name.key, ace.get()); }},
        {"delete_ace", false, [&](auto &name) { return mgr->delete_ace(&context, name.key, 1); }},
        {"expire_ace", false, [&](auto &name) { return mgr->expire_ace(&context, name.text); }},
        {"del_expire_ace", false, [&](auto &name) { return mgr->del_expire_ace(&context, name.text); }},
        {"get_ace", false, [&](auto &name) { return mgr->get_ace(&context, name.key, 1) ? 0 : -4; }},
        {"set_apply", true, [&](auto &name) { return mgr->set_apply(&context, name.acl, 0, apply.get()); }},
        {"set_apply, applying type", true,
         [&](auto &name) { return mgr->set_apply(&context, &my_app, 0, name.apply); }},
        {"del_apply", true, [&](auto &name) { return mgr->del_apply(&context, name.acl, apply.get()); }},
        {"del_apply, applying type", true, [&](auto &name) { return mgr->del_apply(&context, &my_app, name.apply); }},
        {"expire_apply", true, [&](auto &name) { return mgr->expire_apply(&context, name.text); }},
        {"del_expire_apply", true, [&](auto &name) { return mgr->del_expire_apply(&context, name.text); }},
        {"set_port_bindinfo", false,
         [&](auto &name) { return mgr->set_port_bindinfo(&context, name.text, 1, 1, 1, 1); }},
        {"del_port_bindinfo", false,
         [&](auto &name) { return mgr->del_port_bindinfo(&context, name.text, 1, 1, 1, 1); }},
    };
    const lines refused = {"E app_type is invalid"};
    for (const call &call : calls) {
        const auto run = [&](const std::string &name) {
            const fp_udp_acl_key key = make_key(name, 1);
            const fp_udp_acl_info acl = make_info(name, 1);
            return call.run({name.c_str(), &key, &acl, make_apply(mgr, name, 1).get()});
        };
        forget_calls();
        EXPECT_EQ(run(std::string(32, 'x')), -4) << call.what;
        EXPECT_EQ(fake::log.take("E"), refused) << call.what;
        EXPECT_EQ(call.run({}), call.takes_null ? 0 : -4) << call.what;
        EXPECT_EQ(fake::log.take("D"), lines{}) << call.what;
        EXPECT_EQ(fake::store.take(), lines{}) << call.what;
        EXPECT_EQ(app.take(), lines{}) << call.what;
        run(std::string(31, 'y'));
        EXPECT_NE(fake::log.take("E"), refused) << call.what;
    }
    EXPECT_EQ(pending(), 0U);
    const fp_udp_acl_key key = make_key("my_app", 1);
    EXPECT_EQ(mgr->set_ace(&context, &key, nullptr), -4);
    EXPECT_EQ(mgr->alloc_apply(nullptr), nullptr);
}

TEST_F(names, the_cache_reads_no_further_than_the_field)
{
    fp_udp_acl_info acl = make_info(std::string(32, 'x'), 0xFFFFFFFF);
    fp_udp_ace_info ace = make_ace_info(1);
    fp_udp_apply_info apply = make_apply_info(std::string(32, 'x'), 1);
    fp_udp_acl_node *acl_node;
    fp_udp_ace_node *ace_node;
    fp_udp_apply_node *apply_node;
    for (int i = 0; i < 2; i++) {
        fp_udp_acldb_add_acl(&acl);
        fp_udp_acldb_add_ace(&acl, &ace, &ace_node);
        fp_udp_acldb_add_apply(&acl, &apply, &apply_node);
        fp_udp_acldb_get_acl(&acl, &acl_node);
        fp_udp_acldb_get_ace(&acl, &ace, &ace_node);
        fp_udp_acldb_get_apply(&acl, &apply, &apply_node);
    }
    fp_udp_acldb_del_acl(&acl);
    EXPECT_EQ(fp_udp_ace_node_hash_size(), 0U);
}

} // namespace
