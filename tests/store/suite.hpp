// What the store client's tests stand on: stores of each kind, contexts on one loop, records and what was heard.
//
// The tests see the public interface alone. Nothing here waits for a time to pass: wait_for() runs the loop until
// something has been seen.
#ifndef STORE_SUITE_HPP
#define STORE_SUITE_HPP

#include "records/host.hpp"
#include "redis_server.hpp"
#include "support/keyed.h"

#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

using lines = std::vector<std::string>;
using context_ptr = plx::Context;
using requests = std::map<uint64_t, uint64_t>; ///< of ACEs by their sn

/// An ACE or its status.
template <typename Record, const ProtobufCMessageDescriptor &of, uint64_t Record::*uuid>
struct record_of_ace : keyed<Record, SPolicy__AceKey, of> {
    record_of_ace(std::string app_type, uint32_t acl, uint64_t sn, uint64_t request = 0) : app(std::move(app_type))
    {
        this->key.t_app_type = app.data();
        this->key.acl_id = acl;
        this->key.sn = sn;
        this->record.*uuid = request;
    }
    void set_value(std::string bytes)
    {
        value = std::move(bytes);
        this->record.value = {value.size(), reinterpret_cast<uint8_t *>(value.data())};
    }
    std::string app;
    std::string value;
};
using ace_record = record_of_ace<SPolicy__Ace, s_policy__ace__descriptor, &SPolicy__Ace::req_uuid>;
using psta_record = record_of_ace<SPolicy__AcePsta, s_policy__ace_psta__descriptor, &SPolicy__AcePsta::rep_uuid>;

/// Writes all value fields that the library writes.
int write_ace(tq_context *context, uint32_t db, const ace_record &ace);
int write_psta(tq_context *context, uint32_t db, const psta_record &psta);

/// The stored ACEs of application "a".
int find_stored(tq_context *context, uint32_t db, requests &found);
requests stored(tq_context *context, uint32_t db = 8);

/// Keeps what a callback was told; may do something about it, too.
struct hearing {
    ::lines lines; // "4 ace[a,1,2] 8=3", "*" before an echo, "29", "! 6" for a record that cannot be read
    std::function<void(const tq_mom_notification &)> also;
    static int32_t callback(void *handle, const tq_mom_notification *told, void *arg);
    bool ends_with(const std::string &line) const { return !lines.empty() && lines.back() == line; }
};

/// Sockets of the client say that they lead to another machine.
extern bool peers_are_abroad;
/// The steady clock of the test's process, where it stands still but for who waits; 0: it goes.
extern int64_t clock_ms;

/// Contexts on one loop.
class store_users {
  protected:
    tq_context *open_at(const std::string &url);
    /// Runs the loop until the condition holds; a failed test when it does not within twenty seconds.
    void wait_for(const std::function<bool()> &condition);
    /// Repeats a call until the store is back.
    void until_ok(const std::function<int()> &call);
    void subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection = 1);

    plx::Loop loop{tq_loop_new()};
    std::vector<context_ptr> contexts;
};

/// The cases that hold for every kind of store.
class store_suite : public store_users, public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override;
    std::string url() const { return server_ ? server_->url("suite", "timeout=10000") : "mem:suite"; }
    tq_context *open() { return open_at(url()); }
    lines scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection = 0);

  private:
    std::optional<redis_server> server_;
};

/// A server that goes wrong, or somebody who does to it.
class faults : public store_users, public testing::Test {
  protected:
    /// A busy disk may hold an fsync up for seconds.
    tq_context *open(const std::string &options = "timeout=10000", const std::string &user = "suite")
    {
        return open_at(server.url(user, options));
    }

    redis_server server;
};

#endif
