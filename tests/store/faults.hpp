// What the tests of a faulty server share: a server to crash, and contexts for each of its users.
#ifndef STORE_FAULTS_HPP
#define STORE_FAULTS_HPP

#include "redis_server.hpp"
#include "suite.hpp"

using requests = std::map<uint64_t, uint64_t>; ///< of ACEs by their sn

class faults : public store_users, public testing::Test {
  protected:
    /// A busy disk may hold an fsync up for seconds: only the tests of that give calls less time.
    tq_context *open(const std::string &options = "timeout=10000", const std::string &user = "suite")
    {
        return open_at(server.url(user, options));
    }
    /// Starts a server that does not wait for the disk.
    void start_quick(lines options = {})
    {
        options.insert(options.end(), {"--appendfsync", "no"});
        server.start(options);
    }
    static bool tells(const redis_server &who, const lines &question, const std::string &part)
    {
        return who.run(question).find(part) != std::string::npos;
    }

    redis_server server;
};

/// The stored ACEs of application "a".
inline int find_stored(tq_context *context, uint32_t db, requests &found)
{
    found.clear();
    const auto note = [](void *, const tq_mom_notification *told, void *arg) {
        const auto *ace = reinterpret_cast<const SPolicy__Ace *>(told->record);
        return (*static_cast<requests *>(arg))[ace->index->sn] = ace->req_uuid, 0;
    };
    return tq_mom_scan_sync(context, db, ace_record("a", 0, 0), 1, note, &found);
}

inline requests stored(tq_context *context, uint32_t db = 8)
{
    requests found;
    EXPECT_EQ(TQ_MOM_OK, find_stored(context, db, found));
    return found;
}

#endif
