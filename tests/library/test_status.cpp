// Status and counter records: which answers count, what they end, and what hostile or odd ones do.
#include <support/application.h>

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

lines with(lines said, const std::string &more)
{
    said.push_back(more);
    return said;
}

// Without the comparison notices of tables that happen to collide.
lines notices()
{
    lines all = fake::log.take("EN");
    std::erase_if(all, [](const std::string &line) { return line.find("EQUAL") != std::string::npos; });
    return all;
}

TEST_F(replies, an_entrys_answers_are_counted_until_the_last_service_node)
{
    EXPECT_EQ(ace_answer(0), 0);
    EXPECT_EQ(notices(), ace_said);
    EXPECT_EQ(pending(), 2U);
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(ace_answer(0), 0);
    EXPECT_EQ(app.take(), lines{"ace ok security_app/4/1 <40:32>"});
    EXPECT_EQ(pending(), 1U);
    EXPECT_EQ(apply_answer(0), 0);
    EXPECT_EQ(pending(), 1U);
    fake::log.take();
    EXPECT_EQ(apply_answer(0), 0);
    EXPECT_EQ(notices(), apply_said);
    EXPECT_EQ(app.take(), lines{"apply ok security_app/4@my_app/101/9/0 <50:32>"});
    EXPECT_EQ(pending(), 0U);
}

TEST_F(replies, a_failure_ends_the_request_and_later_answers_are_dropped)
{
    EXPECT_EQ(ace_answer(3), 0);
    EXPECT_EQ(apply_answer(4), 0);
    EXPECT_EQ(app.take(),
              (lines{"ace fail security_app/4/1 3 <40:32>", "apply fail security_app/4@my_app/101/9/0 4 <50:32>"}));
    EXPECT_EQ(pending(), 0U);
    fake::log.take();
    EXPECT_EQ(ace_answer(0), 0);
    EXPECT_EQ(notices(), with(ace_said, "N status has update"));
    EXPECT_EQ(apply_answer(0), 0);
    EXPECT_EQ(notices(), with(apply_said, "N apply status is not 0"));
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(replies, answers_to_an_older_write_or_for_an_unknown_entry_change_nothing)
{
    fake::clock.advance(1);
    set_ace("security_app", 4, 1);
    set_apply("security_app", 4, "my_app", 0x101, 9);
    fake::log.take();
    EXPECT_EQ(ace_answer(3), 0);
    EXPECT_EQ(notices(), with(ace_said, "N uuid is not the newest."));
    EXPECT_EQ(apply_answer(3), 0);
    EXPECT_EQ(notices(), with(apply_said, "N apply uuid is not newest"));
    EXPECT_EQ(answer_ace("security_app", 4, 0x100000001, 3, now()), 0);
    EXPECT_EQ(notices().back(), "N get ace from acldb fail");
    EXPECT_EQ(answer_apply("security_app", 4, "my_app", 0x102, 9, 3, now()), 0);
    EXPECT_EQ(notices().back(), "N get apply fail");
    EXPECT_EQ(app.take(), lines{});
    EXPECT_EQ(pending(), 2U);
}

TEST_F(replies, other_events_are_ignored)
{
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    key.t_app_type = const_cast<char *>("security_app");
    key.acl_id = 4;
    key.sn = 1;
    SPolicy__AcePsta status = S_POLICY__ACE_PSTA__INIT;
    SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
    status.index = counter.index = &key;
    status.p_status = 3;
    status.rep_uuid = uuid;
    for (int32_t event : {0, 3, 4, 24, 29})
        EXPECT_EQ(fake::store.deliver("ace_psta", event, &status.base), 0);
    for (int32_t event : {0, 1, 3, 4, 29})
        EXPECT_EQ(fake::store.deliver("ace_counter", event, &counter.base), 0);
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
        SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
        key.t_app_type = const_cast<char *>(type.c_str());
        SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
        counter.index = &key;
        EXPECT_EQ(fake::store.deliver("ace_counter", 24, &counter.base), -4);
        EXPECT_EQ(notices(), lines{"E app_type is invalid"});
    }
    EXPECT_EQ(app.take(), lines{});
}

TEST_F(replies, counters_go_straight_to_the_application_in_their_mixed_order)
{
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    key.t_app_type = const_cast<char *>("never_cached");
    key.acl_id = 9;
    key.sn = 0x300000002;
    SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
    counter.index = &key;
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

class callbacks : public library_case {
  protected:
    callbacks() { start(); }
};

// What a callback may do to the requests that a walk is on is the model's to try.
TEST_F(callbacks, may_do_anything_inside_an_operation_or_a_change)
{
    const fp_udp_acl_handler handler = application::handler();
    const fp_udp_acl_key keys[] = {make_key("my_app", 7), make_key("security_app", 7)};
    SPolicy__AclKey acl_key = S_POLICY__ACL_KEY__INIT;
    SPolicy__AceKey ace_key = S_POLICY__ACE_KEY__INIT;
    acl_key.t_app_type = ace_key.t_app_type = const_cast<char *>("security_app");
    acl_key.acl_id = ace_key.acl_id = 7;
    SPolicy__Acl acl = S_POLICY__ACL__INIT;
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    SPolicy__AceCounter counter = S_POLICY__ACE_COUNTER__INIT;
    acl.index = &acl_key;
    ace.index = counter.index = &ace_key;
    fake::store.put(8, acl.base);
    fake::store.put(8, ace.base);
    auto failing = [](auto operation) {
        fake::store.script["hmset"] = {9};
        operation();
    };
    const std::function<void()> triggers[] = {
        [&] { set_acl("my_app", 7); },
        [&] { failing([&] { set_acl("my_app", 7); }); },
        [&] { set_ace("my_app", 7, 1); },
        [&] { failing([&] { set_ace("my_app", 7, 1); }); },
        [&] { failing([&] { set_apply("my_app", 7, "my_app", 1); }); },
        [&] { mgr->set_port_disable(&context, 1); },
        [&] { fake::store.deliver("acl", 4, &acl.base); },
        [&] { fake::store.deliver("ace", 4, &ace.base); },
        [&] { fake::store.deliver("acl", 29, nullptr); },
        [&] { fake::store.deliver("ace", 29, nullptr); },
        [&] { fake::store.deliver("ace", 3, &ace.base); },
        [&] { fake::store.deliver("acl", 3, &acl.base); },
        [&] { fake::store.deliver("ace_counter", 24, &counter.base); },
    };
    for (const auto &trigger : triggers) {
        int heard = 0;
        set_acl("my_app", 7);
        app.on_event = [&](const std::string &) {
            if (heard++ > 0)
                return;
            for (const fp_udp_acl_key &key : keys) {
                mgr->del_acl(&context, &key);
                set_acl(key.app_type, key.acl_id);
                mgr->del_acl(&context, &key);
            }
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
