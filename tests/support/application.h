// The application in the tests: a callback table whose callbacks write what they were told as a line of text, and short
// ways to build what an application hands to the library.
//
// Private data is a run of counting bytes, priv(7) = 07 08 09 ..., so that a line shows it as "<7:32>".
#pragma once

#include "fakes.h"

#include <gtest/gtest.h>
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <stdio_ext.h>

using fake::lines;

struct application {
    lines events;
    int32_t result = 0;                                // what every callback returns
    std::function<void(const std::string &)> on_event; // runs inside the callback

    lines take() { return std::exchange(events, {}); }
    static fp_udp_acl_handler handler(); // all callbacks
};
extern application app;

// A context as the library sees it: the thread master is the second member.
struct application_context {
    void *client;
    tq_thread_master *master;
};
extern application_context context;

// 32 bytes that hold a name, without a terminator when it is longer than 31 characters.
void put_name(char (&field)[FP_UDP_APP_TYPE_SIZE], const std::string &name);
void put_priv(uint8_t *bytes, size_t length, uint8_t first);

fp_udp_acl make_acl(const std::string &type, uint32_t id, uint8_t cls = 0, uint8_t priv = 0);
fp_udp_acl_key make_key(const std::string &type, uint32_t id);
fp_udp_acl_info make_info(const std::string &type, uint32_t id);
fp_udp_ace_info make_ace_info(uint64_t sn);
fp_udp_apply_info make_apply_info(const std::string &apply_type, uint32_t phyid, uint32_t pri = 0, uint32_t dir = 0);

// The library under test with everything registered the short way. The fakes' recordings start empty after start().
class library_case : public testing::Test {
  public:
    library_case();
    ~library_case() override;

    // Registers the types, the callbacks and database 5, and takes the operation table.
    void start(const fp_udp_acl_handler &handler = application::handler(),
               const lines &types = {"security_app", "my_app"});
    void forget_calls();      // of store, log and application
    void forget_everything(); // also what the store holds

    fp_udp_acl_node *cached_acl(const std::string &type, uint32_t id);
    fp_udp_ace_node *cached_ace(const std::string &type, uint32_t id, uint64_t sn);
    fp_udp_apply_node *cached_apply(const std::string &type, uint32_t id, const std::string &apply_type, uint32_t phyid,
                                    uint32_t pri = 0);
    static size_t pending();

    fp_udp_mgr *mgr = nullptr;
    std::string process; // this process's name, unlike any other's
};

// Elements of a list, after checking its links both ways.
size_t list_length(const fp_udp_list &head);
// The first thing wrong with the cache's tables and lists, the pending list and the service nodes; "" when all is well.
std::string broken();
// Runs work in a child of this process and returns what it returns, or how it ended instead: the library's state here
// stays as it is. A child that is not done in 200 s is ended. A quiet one prints nothing.
std::string in_child(const std::function<std::string()> &work, bool quiet = false);

using owned_ace = std::unique_ptr<fp_udp_ace, void (*)(fp_udp_ace *)>;
owned_ace make_ace(fp_udp_mgr *mgr, uint64_t sn, uint8_t priv = 0, uint64_t pri = 0, uint8_t default_ace = 0);
using owned_apply = std::unique_ptr<fp_udp_apply, void (*)(fp_udp_apply *)>;
owned_apply make_apply(fp_udp_mgr *mgr, const std::string &apply_type, uint32_t phyid, uint32_t pri = 0,
                       uint32_t dir = 0, uint8_t priv = 0);
// What the library prints, and flushes, while `work` runs.
template <class Work> std::string printed(Work work)
{
    testing::internal::CaptureStdout();
    work();
    EXPECT_EQ(__fpending(stdout), 0U) << "not flushed";
    return testing::internal::GetCapturedStdout();
}
