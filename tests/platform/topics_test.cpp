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

    int reg(const char *user, const ProtobufCMessage &record) const
    {
        return libcgstctrl_gen_topic_reg(context, db, user, &record, 0);
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

TEST_F(topics_test, a_registration_is_readable_from_the_store)
{
    const auto before = static_cast<uint64_t>(time(nullptr));
    ASSERT_EQ(libcgstctrl_gen_init(context, db, "reader"), 0);
    EXPECT_EQ(reg("reader", acl.base), 0);
    EXPECT_EQ(reg("reader", ace.base), 0);
    const auto topics = registered("reader");
    ASSERT_EQ(topics.size(), 2u);
    EXPECT_TRUE(topics.contains("ace:s_policy.ace"));
    EXPECT_GE(topics.at("acl:s_policy.acl"), before);
}

TEST_F(topics_test, registering_again_succeeds_and_stays_one_and_users_are_kept_apart)
{
    for (const char *user : {"twice", "twice", "other"}) {
        ASSERT_EQ(libcgstctrl_gen_init(context, db, user), 0);
        EXPECT_EQ(reg(user, acl.base), 0);
    }
    EXPECT_EQ(registered("twice").size(), 1u);
    EXPECT_EQ(registered("other").size(), 1u);
}

TEST_F(topics_test, a_user_that_was_not_initialised_is_refused)
{
    EXPECT_NE(reg("nobody", acl.base), 0);
    ASSERT_EQ(libcgstctrl_gen_init(context, db, "somebody"), 0);
    EXPECT_NE(libcgstctrl_gen_topic_reg(context, db + 1, "somebody", &acl.base, 0), 0) << "another database";
    EXPECT_NE(libcgstctrl_gen_topic_reg(reader, db, "somebody", &acl.base, 0), 0) << "another context";
    EXPECT_TRUE(registered("nobody").empty());
    EXPECT_TRUE(registered("somebody").empty());
}

TEST_F(topics_test, null_arguments_and_what_is_no_message_are_refused)
{
    ASSERT_EQ(libcgstctrl_gen_init(context, db, "user"), 0);
    EXPECT_NE(libcgstctrl_gen_init(nullptr, db, "user"), 0);
    EXPECT_NE(libcgstctrl_gen_init(context, db, nullptr), 0);
    EXPECT_NE(libcgstctrl_gen_topic_reg(nullptr, db, "user", &acl.base, 0), 0);
    EXPECT_NE(libcgstctrl_gen_topic_reg(context, db, nullptr, &acl.base, 0), 0);
    EXPECT_NE(libcgstctrl_gen_topic_reg(context, db, "user", nullptr, 0), 0);
    EXPECT_NE(libcgstctrl_gen_topic_reg(context, db, "user", &acl.base, 1), 0);
    const ProtobufCMessage empty{};
    EXPECT_NE(reg("user", empty), 0);
    EXPECT_TRUE(registered("user").empty());
}

} // namespace
