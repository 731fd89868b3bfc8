// Topic registration, read back from the store as any other process would.
#include "libcgstctrl.h"
#include "tq_context.h"
#include "tq_mom.h"

#include <gtest/gtest.h>
#include <map>
#include <plx/s_policy.pb-c.h>
#include <tq_topics.pb-c.h>

namespace {

constexpr uint32_t db = 3;

struct topics_test : testing::Test {
    tq_context *context = tq_context_new("mem:topics_test");
    tq_context *reader = tq_context_new("mem:topics_test");
    SPolicy__Acl acl = S_POLICY__ACL__INIT;
    SPolicy__Ace ace = S_POLICY__ACE__INIT;

    ~topics_test() override
    {
        tq_context_free(reader);
        tq_context_free(context);
    }

    // What another process sees of a user: "table:message" and when it was registered.
    std::map<std::string, uint64_t> registered(const char *user) const
    {
        std::map<std::string, uint64_t> topics;
        Topics__TopicKey key = TOPICS__TOPIC_KEY__INIT;
        Topics__Topic topic = TOPICS__TOPIC__INIT;
        key.user = const_cast<char *>(user);
        topic.index = &key;
        EXPECT_EQ(tq_mom_scan_sync(reader, db, &topic.base, 1, add, &topics), 0);
        return topics;
    }

    static int32_t add(void *, const tq_mom_notification *notification, void *arg)
    {
        const auto *topic = reinterpret_cast<const Topics__Topic *>(notification->record);
        EXPECT_NE(topic, nullptr);
        EXPECT_EQ(topic->db, db);
        const std::string name = topic->index->table + std::string(":") + topic->message;
        static_cast<std::map<std::string, uint64_t> *>(arg)->emplace(name, topic->registered_at);
        return 0;
    }
};

TEST_F(topics_test, a_registration_is_readable_from_the_store_once_for_each_user)
{
    const auto before = static_cast<uint64_t>(time(nullptr));
    for (const char *user : {"reader", "reader", "other"}) {
        ASSERT_EQ(libcgstctrl_gen_init(context, db, user), 0);
        EXPECT_EQ(libcgstctrl_gen_topic_reg(context, db, user, &acl.base, 0), 0);
    }
    EXPECT_EQ(libcgstctrl_gen_topic_reg(context, db, "reader", &ace.base, 0), 0);
    const auto topics = registered("reader");
    ASSERT_EQ(topics.size(), 2u);
    EXPECT_TRUE(topics.contains("ace:s_policy.ace"));
    EXPECT_GE(topics.at("acl:s_policy.acl"), before);
    EXPECT_EQ(registered("other").size(), 1u);
}

TEST_F(topics_test, what_was_not_initialised_and_what_is_no_message_is_refused)
{
    ASSERT_EQ(libcgstctrl_gen_init(context, db, "user"), 0);
    EXPECT_NE(libcgstctrl_gen_init(nullptr, db, "user"), 0);
    EXPECT_NE(libcgstctrl_gen_init(context, db, nullptr), 0);
    const ProtobufCMessage empty{};
    const struct {
        tq_context *context;
        uint32_t db;
        const char *user;
        const ProtobufCMessage *record;
        int reserved;
    } refused[] = {{context, db, "nobody", &acl.base, 0}, {context, db + 1, "user", &acl.base, 0},
                   {reader, db, "user", &acl.base, 0},    {nullptr, db, "user", &acl.base, 0},
                   {context, db, nullptr, &acl.base, 0},  {context, db, "user", nullptr, 0},
                   {context, db, "user", &acl.base, 1},   {context, db, "user", &empty, 0}};
    for (const auto &[by, in, user, record, reserved] : refused)
        EXPECT_NE(libcgstctrl_gen_topic_reg(by, in, user, record, reserved), 0);
    EXPECT_TRUE(registered("user").empty());
    EXPECT_TRUE(registered("nobody").empty());
}

} // namespace
