// Awkward moments that no line of a transcript can make: callbacks that free, nulls where C allows them.
#include "verbs.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

class awkward : public session {};

fp_udp_mgr *operations;
fp_udp_ace *doomed;

TEST_F(awkward, a_callback_may_free_what_was_passed)
{
    fp_udp_acl_handler handler = application::handler();
    handler.ace_fail_cb = [](void *, const fp_udp_acl_info *, uint64_t, int32_t, const uint8_t *) {
        operations->free_ace(doomed);
        return 3;
    };
    start(handler);
    operations = mgr;
    doomed = make_ace(mgr, 7).release();
    const fp_udp_acl_key key = make_key("my_app", 1);
    EXPECT_EQ(mgr->set_ace(&context, &key, doomed), 3) << "its ACL is not known";
    EXPECT_EQ(fake::log.take("E").back(), "E plx reply set ace fail, app_type : my_app, acl_id : 1, sn : 7\n");
}

// The failed write deletes the node that the descriptor lies in; what takes its place in memory is not what is told.
TEST_F(awkward, a_descriptor_within_a_node_may_be_passed)
{
    start();
    perform("set acl[my_app,1]");
    perform("set apply[my_app,1,my_app,7,0,0]");
    fake::store.failing = "hmset";
    std::vector<std::unique_ptr<std::string>> in_its_place;
    app.on_event = [&](const std::string &) {
        for (int i = 0; i < 8; i++)
            in_its_place.push_back(std::make_unique<std::string>(sizeof(fp_udp_apply_node) - 1, 'x'));
    };
    app.take();
    mgr->set_apply(&context, &cached_apply("my_app", 1, "my_app", 7)->acl, 0, make_apply(mgr, "my_app", 7).get());
    EXPECT_EQ(app.take(), lines{"apply fail my_app/1@my_app/7/0/0 9 <0:32>"});
}

// A message on the console is one call: on a stream without a buffer, one write.
TEST_F(awkward, a_message_reaches_the_console_whole)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    fp_udp_debug_sw = FP_UDP_DEBUG_ERROR;
    fp_udp_register_app_type(nullptr);
    dup2(before, STDOUT_FILENO);
    char text[200];
    const std::string heard(text, static_cast<size_t>(std::max<ssize_t>(0, read(ends[0], text, sizeof text))));
    EXPECT_EQ(heard.find("\n [Error] fp_udp_register_app_type["), 0U);
    EXPECT_NE(heard.find("]:invalid app_type.\n"), std::string::npos) << heard;
    EXPECT_EQ(recv(ends[0], text, sizeof text, MSG_DONTWAIT), -1);
    for (const int end : {ends[0], ends[1], before})
        close(end);
}

TEST_F(awkward, a_null_result_pointer_is_refused_and_a_null_type_is_empty)
{
    start();
    perform("set acl[security_app,1]");
    const fp_udp_acl_info acl = make_info("security_app", 1), other = make_info("security_app", 2);
    const fp_udp_ace_info ace = make_ace_info(7);
    const fp_udp_apply_info apply = make_apply_info("my_app", 7);
    const fp_udp_acl_key key = make_key("security_app", 1);
    uint64_t *numbers;
    uint32_t count;
    EXPECT_EQ(fp_udp_acldb_get_acl(&acl, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_get_ace(&acl, &ace, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_get_apply(&acl, &apply, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_add_ace(&acl, &ace, nullptr), -4);
    EXPECT_EQ(fp_udp_acldb_add_apply(&other, &apply, nullptr), -4);
    EXPECT_EQ(fp_udp_acl_node_hash_size(), 1U);
    EXPECT_EQ(fp_udp_acl_node_hash_traverse(nullptr, nullptr), -4);
    EXPECT_EQ(fp_udp_ace_node_hash_traverse_with_index(nullptr, 0, 1, nullptr), -4);
    EXPECT_EQ(fp_udp_acl_node_traverse_op(nullptr, nullptr), 0);
    EXPECT_EQ(fp_udp_dbg_get_proc_name(nullptr), -4);
    for (uint32_t bit = 0; bit < std::size(lib_plx_dbg_flag); bit++)
        EXPECT_EQ(lib_plx_dbg_flag[bit], 1U << bit);
    EXPECT_EQ(mgr->get_acl_cls(&context, 1, nullptr), -4);
    EXPECT_EQ(mgr->iterator_ace(&context, &key, nullptr, &count), nullptr);
    EXPECT_EQ(mgr->iterator_ace(&context, &key, &numbers, nullptr), nullptr);
    const owned_ace object = make_ace(mgr, 1);
    fp_udp_attr attr{};
    object->tlv->construct(&attr, "vid", FP_UDP_ATTR_FIELD, attr.value, 2);
    object->tlv->push(nullptr, attr);
    EXPECT_EQ(object->tlv->len, 0);
    fake::log.take();
    EXPECT_EQ(mgr->enable_app_commit(&context, nullptr, 1) + mgr->disable_app_commit(&context, nullptr) +
                  mgr->publish_app_commit(&context, nullptr),
              0);
    EXPECT_EQ(fake::log.take(), (lines{"D app commmit enable, app_type: .\n", "D app commmit disable, app_type: .\n",
                                       "D app commmit, app_type: .\n"}));
}

} // namespace
