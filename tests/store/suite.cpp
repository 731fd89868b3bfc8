// See suite.hpp.
#include "suite.hpp"

#include "record_text.hpp"

#include <algorithm>
#include <chrono>

int write_ace(tq_context *context, uint32_t db, const ace_record &ace)
{
    constexpr uint32_t fields[] = {6, 7, 8, 9, 10, 11};
    return tq_mom_hmset_sync(context, db, ace, fields, 6);
}

int write_psta(tq_context *context, uint32_t db, const psta_record &psta)
{
    constexpr uint32_t fields[] = {6, 7};
    return tq_mom_hmset_sync(context, db, psta, fields, 2);
}

int find_stored(tq_context *context, uint32_t db, requests &found)
{
    found.clear();
    const auto note = [](void *, const tq_mom_notification *told, void *arg) {
        const auto *ace = reinterpret_cast<const SPolicy__Ace *>(told->record);
        return (*static_cast<requests *>(arg))[ace->index->sn] = ace->req_uuid, 0;
    };
    return tq_mom_scan_sync(context, db, ace_record("a", 0, 0), 1, note, &found);
}

requests stored(tq_context *context, uint32_t db)
{
    requests found;
    EXPECT_EQ(TQ_MOM_OK, find_stored(context, db, found));
    return found;
}

int32_t hearing::callback(void *, const tq_mom_notification *told, void *arg)
{
    auto &self = *static_cast<hearing *>(arg);
    std::string line = (told->flag != 0 ? "*" : "") + std::to_string(told->event);
    if (told->event != TQ_MOM_EVENT_RESYNC)
        line += " " + text_of_message(told->record);
    if (told->result != 0)
        line += " " + std::to_string(told->result);
    self.lines.push_back(line);
    if (self.also)
        self.also(*told);
    return 0;
}

tq_context *store_users::open_at(const std::string &url)
{
    contexts.emplace_back(tq_context_new_on(url.c_str(), loop.get()));
    return contexts.back().get();
}

void store_users::wait_for(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        tq_loop_run_once(loop.get(), 10);
    ASSERT_TRUE(condition());
}

void store_users::until_ok(const std::function<int()> &call)
{
    int result = call();
    wait_for([&] { return result == TQ_MOM_OK || (result = call()) == TQ_MOM_OK; });
}

void store_users::subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection)
{
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(context, 8, record, selection, hearing::callback, &to));
}

void store_suite::SetUp()
{
    if (std::string(GetParam()) == "redis")
        server_.emplace().start({"--appendfsync", "no"});
}

lines store_suite::scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection)
{
    hearing found;
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, 8, record, selection, hearing::callback, &found));
    return found.lines;
}

INSTANTIATE_TEST_SUITE_P(on, store_suite, testing::Values("mem", "redis"), [](const auto &each) { return each.param; });
