// What the store client's suite stands on: a store of each kind, contexts on one loop, records and what was heard.
//
// The suite sees the public interface alone; a store_backend is all that an engine brings. Nothing here waits for a
// time to pass: wait_for() runs the loop until something has been seen, and settle() until a last write has been heard.
#ifndef STORE_SUITE_HPP
#define STORE_SUITE_HPP

#include <plx/s_policy.pb-c.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

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

struct context_free {
    void operator()(tq_context *context) const { tq_context_free(context); }
};
using context_ptr = std::unique_ptr<tq_context, context_free>;

struct loop_free {
    void operator()(tq_thread_master *loop) const { tq_loop_free(loop); }
};

/// An ACE with its key, good for any store call.
struct ace_record {
    ace_record(std::string app, uint32_t acl, uint64_t sn, uint64_t req = 0);
    ace_record(const ace_record &) = delete;
    ace_record &operator=(const ace_record &) = delete;
    operator const ProtobufCMessage *() const { return &record.base; }

    std::string app;
    std::string value;
    SPolicy__AceKey key;
    SPolicy__Ace record;
    void set_value(std::string bytes);
};

struct psta_record {
    psta_record(std::string app, uint32_t acl, uint64_t sn, uint64_t rep = 0);
    psta_record(const psta_record &) = delete;
    psta_record &operator=(const psta_record &) = delete;
    operator const ProtobufCMessage *() const { return &record.base; }

    std::string app;
    SPolicy__AceKey key;
    SPolicy__AcePsta record;
};

/// A table's key and identifier as "app/acl/sn=uuid", for ace, ace_psta and ace_counter.
std::string text_of(const ProtobufCMessage *record);

/// Writes all value fields that the library writes.
int write_ace(tq_context *context, uint32_t db, const ace_record &ace);
int write_psta(tq_context *context, uint32_t db, const psta_record &psta);

/// Keeps what a callback was told; may do something about it, too.
struct hearing {
    std::vector<std::string> lines; // "4 app/1/2=3", "*3 app/1/2=0" for an echo, "29", "!" behind one without a record
    std::function<void(const tq_mom_notification &)> also;
    bool settled = false; // settle()'s record was heard
    static int32_t callback(void *handle, const tq_mom_notification *told, void *arg);
};

class store_suite : public testing::TestWithParam<backend_kind> {
  protected:
    void SetUp() override;
    tq_context *open(const std::string &options = "");
    void close(tq_context *context);
    void run_once() { tq_loop_run_once(loop.get(), 10); }
    /// Runs the loop until the condition holds; a failed test when it does not within ten seconds.
    void wait_for(const std::function<bool()> &condition);
    /// Runs the loop until all that was written to the ACE and ACE status tables so far has been heard by `to`, which
    /// follows the whole of one of them or `app`'s part.
    void settle(hearing &to, const std::string &app = "a");
    std::vector<std::string> scan(tq_context *context, const ProtobufCMessage *record, uint32_t selection,
                                  uint32_t db = 8);
    void subscribe(tq_context *context, hearing &to, const ProtobufCMessage *record, uint32_t selection,
                   uint32_t db = 8);

    std::unique_ptr<store_backend> backend;
    std::unique_ptr<tq_thread_master, loop_free> loop;
    std::vector<context_ptr> contexts;
};

#endif
