// What the store client's tests stand on: a store of each kind, contexts on one loop, records and what was heard.
//
// The suite sees the public interface alone; a store_backend is all that an engine brings. Nothing here waits for a
// time to pass: wait_for() runs the loop until something has been seen, and settle() until a last write has been heard.
#ifndef STORE_SUITE_HPP
#define STORE_SUITE_HPP

#include "records/host.hpp"
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

/// A store that nobody else uses; ends with the object.
class store_backend {
  public:
    virtual ~store_backend() = default;
    /// Its address with options such as "log=100" behind it.
    virtual std::string url(const std::string &options) const = 0;
};

struct backend_kind {
    const char *name;
    std::unique_ptr<store_backend> (*make)();
};

/// The kinds that the suite runs on (backends.cpp).
std::vector<backend_kind> backend_kinds();

using context_ptr = plx::Context;

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

/// A record of ace, ace_psta or ace_counter as "app/acl/sn=uuid".
std::string text_of(const ProtobufCMessage *record);

/// Writes all value fields that the library writes.
int write_ace(tq_context *context, uint32_t db, const ace_record &ace);
int write_psta(tq_context *context, uint32_t db, const psta_record &psta);

/// Keeps what a callback was told; may do something about it, too.
struct hearing {
    ::lines lines; // "4 app/1/2=3", "*3 app/1/2=0" for an echo, "29", "!" behind one without a record
    std::function<void(const tq_mom_notification &)> also;
    bool settled = false; // settle()'s record was heard
    static int32_t callback(void *handle, const tq_mom_notification *told, void *arg);
    bool ends_with(const std::string &line) const { return !lines.empty() && lines.back() == line; }
};

/// Contexts on one loop.
class store_users {
  protected:
    tq_context *open_at(const std::string &url);
    /// Runs the loop until the condition holds; a failed test when it does not within twenty seconds.
    void wait_for(const std::function<bool()> &condition);
    /// Repeats a call until the store is back.
    void until_ok(const std::function<int()> &call);
    void subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection = 1,
                   uint32_t db = 8);

    plx::Loop loop{tq_loop_new()};
    std::vector<context_ptr> contexts;
};

/// The cases that hold for every kind of store.
class store_suite : public store_users, public testing::TestWithParam<backend_kind> {
  protected:
    tq_context *open(const std::string &options = "");
    /// Runs the loop until all that was written to the ACE and ACE status tables so far has been heard by `to`, which
    /// follows the whole of one of them or `app`'s part.
    void settle(hearing &to, const std::string &app = "a");
    lines scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection = 0, uint32_t db = 8);

    std::unique_ptr<store_backend> backend = GetParam().make();
};

#endif
