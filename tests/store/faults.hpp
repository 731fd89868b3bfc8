// What the tests of a faulty server share: a server to crash, contexts on one loop, waiting for a condition.
#ifndef STORE_FAULTS_HPP
#define STORE_FAULTS_HPP

#include "redis_server.hpp"
#include "suite.hpp"

#include <chrono>
#include <map>

using lines = std::vector<std::string>;

class faults : public testing::Test {
  protected:
    /// A busy disk may hold an fsync up for seconds: only the tests of that give calls less time.
    tq_context *open(const std::string &options = "timeout=10000", const std::string &user = "suite")
    {
        return open_at(server.url(user, options));
    }
    tq_context *open_at(const std::string &url)
    {
        contexts.emplace_back(tq_context_new_on(url.c_str(), loop.get()));
        return contexts.back().get();
    }
    void wait_for(const std::function<bool()> &condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition() && std::chrono::steady_clock::now() < deadline)
            tq_loop_run_once(loop.get(), 10);
        ASSERT_TRUE(condition());
    }
    /// Repeats a call until the store is back.
    void until_ok(const std::function<int()> &call)
    {
        int result = call();
        wait_for([&] { return result == TQ_MOM_OK || (result = call()) == TQ_MOM_OK; });
    }
    void subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record)
    {
        ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(context, 8, record, 1, hearing::callback, &to));
    }
    std::string key(const std::string &text) const { return "plx{8:ace}:" + text; }

    redis_server server;
    std::unique_ptr<tq_thread_master, loop_free> loop{tq_loop_new()};
    std::vector<context_ptr> contexts;
};

/// The stored ACEs of ACL 1 of application "a": sn and request.
inline std::map<uint64_t, uint64_t> stored(tq_context *context, uint32_t db = 8)
{
    std::map<uint64_t, uint64_t> found;
    const auto note = [](void *, const tq_mom_notification *told, void *arg) {
        const auto *ace = reinterpret_cast<const SPolicy__Ace *>(told->record);
        return (*static_cast<std::map<uint64_t, uint64_t> *>(arg))[ace->index->sn] = ace->req_uuid, 0;
    };
    EXPECT_EQ(TQ_MOM_OK, tq_mom_scan_sync(context, db, ace_record("a", 0, 0), 1, note, &found));
    return found;
}

#endif
