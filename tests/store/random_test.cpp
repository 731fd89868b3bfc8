// Random operations against a plain map: what the store holds, and what a subscriber makes of the changes it hears.
#include "record_text.hpp"
#include "suite.hpp"

#include <random>

namespace {

using fields = std::map<uint32_t, std::string>; // by number, as text
using policy = std::map<std::string, fields>;   // by the text of table and key

/// Applies what it hears to a copy of the table.
int32_t replicate(void *, const tq_mom_notification *told, void *arg)
{
    auto &copy = *static_cast<policy *>(arg);
    const auto parts = parts_of(text_of_message(told->record), ' ');
    copy.erase(parts[0]);
    for (size_t i = 1; told->event != TQ_MOM_EVENT_DELETED && i < parts.size(); ++i)
        copy[parts[0]][static_cast<uint32_t>(std::stoul(parts[i]))] = parts[i].substr(parts[i].find('=') + 1);
    if (told->event != TQ_MOM_EVENT_DELETED)
        copy[parts[0]];
    return 0;
}

class random_calls : public store_suite {
  protected:
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random() % below); }

    void act(tq_context *context)
    {
        const auto key = any_app() + "," + any_acl() + "," + std::to_string(pick(12)) + "]";
        const uint32_t what = pick(20);
        if (what < 11)
            merge(context, key);
        else if (what < 14)
            replace(context, key);
        else if (what < 18)
            remove(context, key);
        else
            rewrite(context, any_app() + (pick(2) == 0 ? "" : "," + any_acl()));
    }

    std::string any_app()
    {
        static const char *const apps[] = {"a", "a%2C", "ab", "", "%25", "security_app"};
        return std::string("ace[") + apps[pick(std::size(apps))];
    }
    std::string any_acl() { return std::to_string(pick(4)); }
    fields any_fields(uint32_t one_of)
    {
        fields some;
        if (pick(one_of) == 0)
            some[6] = escaped(std::string(pick(40), static_cast<char>(pick(256))));
        if (pick(one_of) == 0)
            some[8] = pick(4) == 0 ? "0" : std::to_string(random());
        if (pick(one_of) == 0)
            some[11] = std::to_string(pick(3));
        return some;
    }
    // What a record leaves out; the bytes "0" are no number.
    static bool is_default(const fields::value_type &field)
    {
        return field.second.empty() || (field.second == "0" && field.first != 6);
    }
    static lines words_of(const fields &some)
    {
        lines words;
        for (const auto &[number, text] : some)
            words.push_back(std::to_string(number) + "=" + text);
        return words;
    }

    void merge(tq_context *context, const std::string &key)
    {
        const auto some = any_fields(2);
        const text_record record(key, words_of(some));
        const auto &numbers = record.numbers();
        ASSERT_EQ(TQ_MOM_OK, tq_mom_hmset_sync(context, 8, record.message(), numbers.data(),
                                               static_cast<uint32_t>(numbers.size())));
        for (const auto &[number, text] : some)
            model[key][number] = text;
        std::erase_if(model[key], is_default);
    }
    void replace(tq_context *context, const std::string &key)
    {
        auto &all = model[key] = any_fields(1);
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context, 8, text_record(key, words_of(all)).message()));
        std::erase_if(all, is_default);
    }
    void remove(tq_context *context, const std::string &key)
    {
        model.erase(key);
        ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context, 8, text_record(key, {}).message()));
    }
    // A bracket around a few writes, of an application or one of its ACLs.
    void rewrite(tq_context *context, const std::string &begin)
    {
        const text_record selected(begin + "]", {});
        const auto selection = static_cast<uint32_t>(selected.key_fields());
        ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context, 8, selected.message(), selection, 1000));
        std::erase_if(model, [&](const auto &known) { return known.first.starts_with(begin + ","); });
        for (uint32_t i = pick(8); i > 0; --i)
            replace(context, begin + (selection == 1 ? "," + any_acl() : "") + "," + std::to_string(pick(12)) + "]");
        ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context, 8, selected.message(), selection, 60'000));
    }

    const uint32_t seed = std::random_device{}();
    std::mt19937 random{seed};
    policy model;
};

INSTANTIATE_TEST_SUITE_P(on, random_calls, testing::Values("mem", "redis"),
                         [](const auto &each) { return each.param; });

TEST_P(random_calls, leave_what_a_map_says_in_the_store_and_with_its_subscribers)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    policy heard;
    tq_context *users[] = {open(), open()};
    const ace_record any("", 0, 0);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(users[0], 8, any, 0, replicate, &heard));
    for (int step = 0; step < 3000 && !HasFatalFailure(); ++step) {
        act(users[pick(2)]);
        if (pick(16) == 0)
            tq_loop_run_once(loop.get(), 0);
        policy stored;
        if (step % 500 == 499) {
            ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(users[1], 8, any, 0, replicate, &stored));
            ASSERT_EQ(model, stored);
        }
    }
    wait_for([&] { return heard == model; });
}

} // namespace
