// Random operations against a plain map: what the store holds, and what a subscriber makes of the changes it hears.
#include "suite.hpp"

#include <random>

namespace {

using key = std::tuple<std::string, uint32_t, uint64_t>;    // application, ACL, sn
using fields = std::tuple<uint64_t, uint64_t, std::string>; // request, priority, value
using policy = std::map<key, fields>;

key key_of(const SPolicy__Ace ace)
{
    return {ace.index->t_app_type, ace.index->acl_id, ace.index->sn};
}

fields fields_of(const SPolicy__Ace ace)
{
    return {ace.req_uuid, ace.ace_pri, {reinterpret_cast<const char *>(ace.value.data), ace.value.len}};
}

/// Applies what it hears to a copy of the table.
int32_t replicate(void *, const tq_mom_notification *told, void *arg)
{
    auto &copy = *static_cast<policy *>(arg);
    EXPECT_EQ(TQ_MOM_OK, told->result);
    if (told->record == nullptr)
        return ADD_FAILURE() << "event " << told->event, 0;
    const auto &ace = *reinterpret_cast<const SPolicy__Ace *>(told->record);
    if (told->event == TQ_MOM_EVENT_DELETED)
        copy.erase(key_of(ace));
    else
        copy[key_of(ace)] = fields_of(ace);
    return 0;
}

/// One client's random calls and what they must come to.
class worker {
  public:
    worker(tq_context *context, policy &model, std::mt19937 &random) : context_(context), model_(model), random_(random)
    {
    }

    void act()
    {
        static const char *const apps[] = {"a", "a,", "ab", "", "%", "security_app"};
        const std::string app = apps[pick(std::size(apps))];
        ace_record ace(app, pick(4), pick(12));
        fill(ace);
        const uint32_t what = pick(20);
        if (what < 11)
            merge(ace);
        else if (what < 14)
            replace(ace);
        else if (what < 18)
            remove(ace);
        else
            rewrite(ace, 1 + pick(2));
    }

  private:
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

    void fill(ace_record &ace)
    {
        ace.record.req_uuid = pick(4) == 0 ? 0 : random_();
        ace.record.ace_pri = pick(3);
        ace.set_value(std::string(pick(40), static_cast<char>(pick(256))));
    }

    void merge(const ace_record &ace)
    {
        std::vector<uint32_t> numbers;
        auto &[request, priority, value] = model_[key_of(ace.record)];
        if (pick(2) == 0)
            numbers.push_back(6), value = ace.value;
        if (pick(2) == 0)
            numbers.push_back(8), request = ace.record.req_uuid;
        if (pick(2) == 0)
            numbers.push_back(11), priority = ace.record.ace_pri;
        ASSERT_EQ(TQ_MOM_OK,
                  tq_mom_hmset_sync(context_, 8, ace, numbers.data(), static_cast<uint32_t>(numbers.size())));
    }

    void replace(const ace_record &ace)
    {
        model_[key_of(ace.record)] = fields_of(ace.record);
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(context_, 8, ace));
    }

    void remove(const ace_record &ace)
    {
        model_.erase(key_of(ace.record));
        ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(context_, 8, ace));
    }

    // A bracket around a few writes, of an application or one of its ACLs.
    void rewrite(const ace_record &selected, uint32_t selection)
    {
        ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(context_, 8, selected, selection, 1000));
        std::erase_if(model_, [&](const auto &known) {
            const auto &[app, acl, sn] = known.first;
            return app == selected.app && (selection == 1 || acl == selected.key.acl_id);
        });
        for (uint32_t i = pick(8); i > 0; --i) {
            ace_record ace(selected.app, pick(4), pick(12));
            fill(ace);
            replace(ace);
        }
        ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend_sync(context_, 8, selected, selection, 60'000));
    }

    tq_context *context_;
    policy &model_;
    std::mt19937 &random_;
};

TEST_P(store_suite, the_store_and_its_subscribers_agree_with_a_map)
{
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    policy model, heard;
    auto *one = open();
    auto *other = open();
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(one, 8, ace_record("", 0, 0), 0, replicate, &heard));
    worker workers[] = {{one, model, random}, {other, model, random}};
    for (int step = 0; step < 3000 && !HasFatalFailure(); ++step) {
        workers[random() % 2].act();
        if (random() % 16 == 0)
            tq_loop_run_once(loop.get(), 0);
        if (step % 500 == 499) {
            policy stored;
            ASSERT_EQ(TQ_MOM_OK, tq_mom_scan_sync(other, 8, ace_record("", 0, 0), 0, replicate, &stored));
            ASSERT_EQ(model, stored);
        }
    }
    wait_for([&] { return heard == model; });
}

} // namespace
