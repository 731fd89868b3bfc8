// Names that cannot be: null, longer than 31 characters, or without a terminator. Every operation refuses them, and
// nothing else happens.
#include <support/application.h>

namespace {

class names : public library_case {
  protected:
    names() { start(); }
};

TEST_F(names, too_long_a_name_is_refused_everywhere)
{
    const std::string tall(32, 'x');
    struct call {
        const char *what;
        std::function<int32_t(const std::string &)> run;
    };
    uint64_t *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 9;
    const call calls[] = {
        {"set_acl", [&](auto &name) { return set_acl(name, 1); }},
        {"del_acl",
         [&](auto &name) {
             auto key = make_key(name, 1);
             return mgr->del_acl(&context, &key);
         }},
        {"expire_acl", [&](auto &name) { return mgr->expire_acl(&context, name.c_str()); }},
        {"del_expire_acl", [&](auto &name) { return mgr->del_expire_acl(&context, name.c_str()); }},
        {"iterator_ace",
         [&](auto &name) {
             auto key = make_key(name, 1);
             bool nothing = mgr->iterator_ace(&context, &key, &sns, &count) == nullptr && !sns && count == 0;
             return nothing ? -4 : 0;
         }},
        {"set_ace", [&](auto &name) { return set_ace(name, 1, 1); }},
        {"delete_ace",
         [&](auto &name) {
             auto key = make_key(name, 1);
             return mgr->delete_ace(&context, &key, 1);
         }},
        {"expire_ace", [&](auto &name) { return mgr->expire_ace(&context, name.c_str()); }},
        {"del_expire_ace", [&](auto &name) { return mgr->del_expire_ace(&context, name.c_str()); }},
        {"get_ace",
         [&](auto &name) {
             auto key = make_key(name, 1);
             return mgr->get_ace(&context, &key, 1) ? 0 : -4;
         }},
        {"set_apply", [&](auto &name) { return set_apply(name, 1, "my_app", 1); }},
        {"set_apply, applying type", [&](auto &name) { return set_apply("my_app", 1, name, 1); }},
        {"del_apply",
         [&](auto &name) {
             auto info = make_info(name, 1);
             return mgr->del_apply(&context, &info, make_apply(mgr, "my_app", 1).get());
         }},
        {"del_apply, applying type",
         [&](auto &name) {
             auto info = make_info("my_app", 1);
             return mgr->del_apply(&context, &info, make_apply(mgr, name, 1).get());
         }},
        {"expire_apply", [&](auto &name) { return mgr->expire_apply(&context, name.c_str()); }},
        {"del_expire_apply", [&](auto &name) { return mgr->del_expire_apply(&context, name.c_str()); }},
        {"set_port_bindinfo", [&](auto &name) { return mgr->set_port_bindinfo(&context, name.c_str(), 1, 1, 1, 1); }},
        {"del_port_bindinfo", [&](auto &name) { return mgr->del_port_bindinfo(&context, name.c_str(), 1, 1, 1, 1); }},
    };
    for (const call &call : calls) {
        forget_calls();
        EXPECT_EQ(call.run(tall), -4) << call.what;
        EXPECT_EQ(fake::log.take("E"), lines{"E app_type is invalid"}) << call.what;
        EXPECT_EQ(fake::store.take(), lines{}) << call.what;
        EXPECT_EQ(app.take(), lines{}) << call.what;
        const std::string fits(31, 'y');
        call.run(fits);
        for (const std::string &line : fake::log.take("E"))
            EXPECT_NE(line, "E app_type is invalid") << call.what;
    }
    EXPECT_EQ(pending(), 0U);
}

TEST_F(names, a_null_name_or_object_is_refused)
{
    const fp_udp_acl_key key = make_key("my_app", 1);
    uint64_t *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 9;
    const std::function<int32_t()> calls[] = {
        [&] { return mgr->set_acl(&context, nullptr); },
        [&] { return mgr->del_acl(&context, nullptr); },
        [&] { return mgr->expire_acl(&context, nullptr); },
        [&] { return mgr->del_expire_acl(&context, nullptr); },
        [&] { return mgr->iterator_ace(&context, nullptr, &sns, &count) || count ? 0 : -4; },
        [&] { return mgr->set_ace(&context, nullptr, make_ace(mgr, 1).get()); },
        [&] { return mgr->set_ace(&context, &key, nullptr); },
        [&] { return mgr->delete_ace(&context, nullptr, 1); },
        [&] { return mgr->expire_ace(&context, nullptr); },
        [&] { return mgr->del_expire_ace(&context, nullptr); },
        [&] { return mgr->get_ace(&context, nullptr, 1) ? 0 : -4; },
        [&] { return mgr->alloc_apply(nullptr) ? 0 : -4; },
        [&] { return mgr->set_port_bindinfo(&context, nullptr, 1, 1, 1, 1); },
        [&] { return mgr->del_port_bindinfo(&context, nullptr, 1, 1, 1, 1); },
    };
    for (const auto &call : calls)
        EXPECT_EQ(call(), -4) << &call - calls;
    EXPECT_EQ(fake::store.take(), lines{});
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 0U);
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
