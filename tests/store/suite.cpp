// See suite.hpp.
#include "suite.hpp"

#include <algorithm>
#include <chrono>

namespace {

// The ACL that settle() writes under: no test uses it.
constexpr uint32_t last_acl = 4294967295;
constexpr char last_mark[] = "/4294967295/";

template <typename Record> std::string text_of_key(const ProtobufCMessage *record, uint64_t Record::*uuid)
{
    const auto *known = reinterpret_cast<const Record *>(record);
    const SPolicy__AceKey *key = known->index;
    if (key == nullptr)
        return "no key";
    const std::string app = key->t_app_type == nullptr ? "null" : key->t_app_type;
    return app + "/" + std::to_string(key->acl_id) + "/" + std::to_string(key->sn) + "=" + std::to_string(known->*uuid);
}

} // namespace

std::string text_of(const ProtobufCMessage *record)
{
    if (record == nullptr)
        return "!";
    if (record->descriptor == &s_policy__ace__descriptor)
        return text_of_key(record, &SPolicy__Ace::req_uuid);
    if (record->descriptor == &s_policy__ace_psta__descriptor)
        return text_of_key(record, &SPolicy__AcePsta::rep_uuid);
    if (record->descriptor == &s_policy__ace_counter__descriptor)
        return text_of_key(record, &SPolicy__AceCounter::counter_pkt);
    return record->descriptor->short_name;
}

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

int32_t hearing::callback(void *, const tq_mom_notification *told, void *arg)
{
    auto &self = *static_cast<hearing *>(arg);
    std::string line = (told->flag != 0 ? "*" : "") + std::to_string(told->event);
    if (told->event != TQ_MOM_EVENT_RESYNC)
        line += " " + text_of(told->record);
    if (told->result != 0)
        line += " " + std::to_string(told->result);
    if (line.find(last_mark) != std::string::npos) {
        self.settled = self.settled || told->event != TQ_MOM_EVENT_DELETED;
        return 0;
    }
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

void store_users::subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection,
                            uint32_t db)
{
    ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(context, db, record, selection, hearing::callback, &to));
}

tq_context *store_suite::open(const std::string &options)
{
    auto *context = open_at(backend->url(options));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    return context;
}

void store_suite::settle(hearing &to, const std::string &app)
{
    const context_ptr other(tq_context_new_on(backend->url("").c_str(), loop.get()));
    const ace_record ace(app, last_acl, 0);
    const psta_record psta(app, last_acl, 0);
    to.settled = false;
    ASSERT_EQ(TQ_MOM_OK, write_ace(other.get(), 8, ace));
    ASSERT_EQ(TQ_MOM_OK, write_psta(other.get(), 8, psta));
    wait_for([&to] { return to.settled; });
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(other.get(), 8, ace));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_del_sync(other.get(), 8, psta));
}

lines store_suite::scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection, uint32_t db)
{
    hearing found;
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, db, record, selection, hearing::callback, &found));
    std::sort(found.lines.begin(), found.lines.end());
    return found.lines;
}

INSTANTIATE_TEST_SUITE_P(on, store_suite, testing::ValuesIn(backend_kinds()),
                         [](const auto &each) { return std::string(each.param.name); });
