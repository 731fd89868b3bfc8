// Status and counter records: which answers count, what they end, and what hostile or odd ones do.
#include "records.h"

namespace {

class replies : public library_case {
  protected:
    replies()
    {
        start();
        set_acl("security_app", 4);
        fake::clock.advance(7);
        set_ace("security_app", 4, 1, 40);
        set_apply("security_app", 4, "my_app", 0x101, 9, 50);
        uuid = now();
        heartbeat(1);
        heartbeat(2);
        forget_calls();
    }
    int32_t ace_answer(int32_t status) { return answer_ace("security_app", 4, 1, status, uuid); }
    int32_t apply_answer(int32_t status) { return answer_apply("security_app", 4, "my_app", 0x101, 9, status, uuid); }
    uint64_t uuid;
};

const lines ace_said = {"N ace return.", "N app_type : security_app, acl_id : 4, sn : 1"};
const lines apply_said = {"N apply return.", "N app_type : security_app, acl_id : 4, apply_type : my_app, phyid : "
                                             "0x101, pri : 9, dir : 0"};

// Without the comparison notices of tables that happen to collide.
lines notices()
{
    lines all = fake::log.take("EN");
    std::erase_if(all, [](const std::string &line) { return line.find("EQUAL") != std::string::npos; });
    return all;
}

// Which answers are counted and what they end is the model's to tell.
TEST_F(replies, answers_are_noted_and_those_that_change_nothing_say_why)
{
    for (int of_two = 0; of_two < 2; of_two++) {
        EXPECT_EQ(ace_answer(0), 0);
        EXPECT_EQ(notices(), ace_said);
        EXPECT_EQ(apply_answer(0), 0);
        EXPECT_EQ(notices(), apply_said);
        EXPECT_EQ(pending(), of_two ? 0U : 2U);
    }
    fake::clock.advance(1);
    set_ace("security_app", 4, 1);
    set_apply("security_app", 4, "my_app", 0x101, 9);
    fake::log.take();
    ace_answer(3);
    EXPECT_EQ(notices(), said(ace_said, 1, "N uuid is not the newest."));
    apply_answer(3);
    EXPECT_EQ(notices(), said(apply_said, 1, "N apply uuid is not newest"));
    EXPECT_EQ(answer_ace("security_app", 4, 0x100000001, 3, now()), 0);
    EXPECT_EQ(notices().back(), "N get ace from acldb fail");
    EXPECT_EQ(answer_apply("security_app", 4, "my_app", 0x102, 9, 3, now()), 0);
    EXPECT_EQ(notices().back(), "N get apply fail");
    EXPECT_EQ(pending(), 2U);
    uuid = now();
    ace_answer(3);
    apply_answer(4);
    EXPECT_EQ(pending(), 0U);
    fake::log.take();
    ace_answer(0);
    EXPECT_EQ(notices(), said(ace_said, 1, "N status has update"));
    apply_answer(0);
    EXPECT_EQ(notices(), said(apply_said, 1, "N apply status is not 0"));
}

TEST_F(replies, other_events_are_ignored)
{
    ace_record ace("security_app", 4, 1);
    ace.status.p_status = 3;
    ace.status.rep_uuid = uuid;
    for (int32_t event : {0, 3, 4, 24, 29})
        EXPECT_EQ(fake::store.deliver("ace_psta", event, &ace.status.base), 0);
    for (int32_t event : {0, 1, 3, 4, 29})
        EXPECT_EQ(fake::store.deliver("ace_counter", event, &ace.counter.base), 0);
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(replies, records_may_lack_anything)
{
    EXPECT_EQ(fake::store.deliver("ace_psta", 1, nullptr), -5);
    EXPECT_EQ(notices(), (lines{"N ace return.", "E SPolicy__AcePsta is NULL"}));
    EXPECT_EQ(fake::store.deliver("apply_psta", 1, nullptr), -5);
    EXPECT_EQ(notices(), (lines{"N apply return.", "E SPolicy__ApplyPsta is NULL"}));
    fake::store.deliver("ace_counter", 24, nullptr);

    SPolicy__AcePsta ace = S_POLICY__ACE_PSTA__INIT;
    SPolicy__ApplyPsta apply = S_POLICY__APPLY_PSTA__INIT;
    SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
    SPolicy__AceKey ace_key = S_POLICY__ACE_KEY__INIT;
    SPolicy__ApplyKey apply_key = S_POLICY__APPLY_KEY__INIT;
    for (int lacking = 0; lacking < 2; lacking++) { // the key, then its strings
        fake::store.deliver("ace_psta", 1, &ace.base);
        fake::store.deliver("apply_psta", 1, &apply.base);
        app.take();
        fake::store.deliver("ace_counter", 24, &counter.base);
        ace_key.t_app_type = apply_key.app_type = apply_key.t_apply_type = nullptr;
        ace.index = counter.index = &ace_key;
        apply.index = &apply_key;
    }
    EXPECT_EQ(app.take(), lines{"counter /0/0 0 0 0 0 0 0"}) << "without a type the key's is empty";
    for (const fake::subscription &subscription : fake::store.subscriptions)
        subscription.callback(subscription.handle, nullptr, subscription.arg);
    EXPECT_EQ(pending(), 2U);
}

TEST_F(replies, a_type_of_31_characters_is_taken_and_one_of_32_is_refused)
{
    const std::string fits(31, 'x'), tall(32, 'x'), taller(5000, 'x');
    set_acl(fits, 1);
    set_apply(fits, 1, fits, 7);
    set_ace(fits, 1, 1);
    forget_calls();
    EXPECT_EQ(answer_ace(fits, 1, 1, 3, now()), 0);
    EXPECT_EQ(answer_apply(fits, 1, fits, 7, 0, 3, now()), 0);
    EXPECT_EQ(app.take().size(), 2U);
    fake::log.take();
    for (const std::string &type : {tall, taller}) {
        EXPECT_EQ(answer_ace(type, 1, 1, 3, now()), -4);
        EXPECT_EQ(notices(), (lines{"N ace return.", "E app_type is invalid"}));
        EXPECT_EQ(answer_apply(type, 1, "my_app", 7, 0, 3, now()), -4);
        EXPECT_EQ(notices(), (lines{"N apply return.", "E app_type is invalid"}));
        answer_apply(fits, 1, type, 7, 0, 3, now()); // finds nothing
        fake::log.take();
        const ace_record counted(type, 1, 1);
        EXPECT_EQ(fake::store.deliver("ace_counter", 24, &counted.counter.base), -4);
        EXPECT_EQ(notices(), lines{"E app_type is invalid"});
    }
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(replies, counters_go_straight_to_the_application_in_their_mixed_order)
{
    ace_record ace("never_cached", 9, 0x300000002);
    SPolicy__AceCounter &counter = ace.counter;
    counter.counter_byte = 1;
    counter.counter_pkt = 2;
    counter.timestamp = 3;
    counter.counter_byte1 = 4;
    counter.counter_pkt1 = 5;
    counter.timestamp_rt = 6;
    EXPECT_EQ(fake::store.deliver("ace_counter", 24, &counter.base), 0);
    EXPECT_EQ(app.take(), lines{"counter never_cached/9/300000002 2 1 3 4 5 6"});
    EXPECT_EQ(fake::store.take(), lines{});
}

class callbacks : public operations_case {
  protected:
    callbacks() { start(); }
};

// What a callback may do to the cache and to the requests that a walk is on is the model's to try.
TEST_F(callbacks, may_register_anew_and_delete_what_they_are_told_of)
{
    const fp_udp_acl_handler handler = application::handler();
    const ace_record ace("security_app", 7, 0);
    const std::function<void()> triggers[] = {
        [&] { set_acl("security_app", 7); },
        [&] { set_ace("my_app", 7, 1); },
        [&] { mgr->set_port_disable(&context, 1); },
        [&] { fake::store.deliver("ace", 4, &ace.record.base); },
        [&] { fake::store.deliver("ace_counter", 24, &ace.counter.base); },
    };
    for (const auto &trigger : triggers) {
        int heard = 0;
        set_acl("my_app", 7);
        app.on_event = [&](const std::string &) {
            if (heard++ > 0)
                return;
            for (const char *type : {"my_app", "security_app"})
                del_acl(type, 7);
            fp_udp_register_acl_handler(&context, 5, &handler);
            fp_udp_req_check_proc(1);
        };
        trigger();
        EXPECT_GT(heard, 0) << &trigger - triggers;
        app.on_event = nullptr;
        EXPECT_EQ(broken(), "");
    }
}

} // namespace
