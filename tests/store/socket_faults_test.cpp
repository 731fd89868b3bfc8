// Every socket call of the Redis engine fails or falls short once, and every byte of its answers is once the last.
//
// The calls of the engine and of hiredis land here, before the C library's. Those of the test itself pass: a fault is
// armed only while the client under test goes through its life, in a table of its own.
#undef _FORTIFY_SOURCE // its inline functions would stand in for those defined here
#include "faults.hpp"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <numeric>
#include <poll.h>
#include <set>
#include <sys/socket.h>

namespace {

// In place of an errno:
constexpr int one_byte = 0;       // send and recv move one byte
constexpr int end_of_stream = -1; // the connection ends behind so many bytes of answers

struct {
    bool armed = false;
    int kind = 0;
    size_t turn = 0; // the call that is struck, or the byte that never comes
    size_t seen = 0;
    std::string struck; // the call's name
} fault;

bool strikes(const char *call)
{
    if (!fault.armed || ++fault.seen != fault.turn)
        return false;
    fault.struck = call;
    return true;
}

template <typename Function, typename... Arguments>
auto call(const char *name, Function *function, Arguments... arguments) -> decltype(function(arguments...))
{
    if (fault.kind > 0 && strikes(name))
        return errno = fault.kind, -1;
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name))(arguments...);
}

size_t allowed(const char *name, size_t size)
{
    return fault.kind == one_byte && strikes(name) ? 1 : size;
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return call("socket", socket, domain, type, protocol);
}

int connect(int fd, const sockaddr *address, socklen_t size)
{
    return call("connect", connect, fd, address, size);
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *size) noexcept
{
    return call("getsockopt", getsockopt, fd, level, name, value, size);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t size) noexcept
{
    return call("setsockopt", setsockopt, fd, level, name, value, size);
}

int poll(pollfd *watched, nfds_t count, int timeout)
{
    return call("poll", poll, watched, count, timeout);
}

ssize_t send(int fd, const void *bytes, size_t size, int flags)
{
    return call("send", send, fd, bytes, allowed("send", size), flags);
}

ssize_t recv(int fd, void *bytes, size_t size, int flags)
{
    const bool counted = fault.armed && fault.kind == end_of_stream && (flags & MSG_PEEK) == 0;
    if (counted && fault.seen + 1 == fault.turn && strikes("recv"))
        return shutdown(fd, SHUT_RDWR);
    size = counted && fault.seen < fault.turn ? std::min(size, fault.turn - fault.seen - 1) : size;
    const ssize_t moved = call("recv", recv, fd, bytes, allowed("recv", size), flags);
    fault.seen += counted && moved > 0 ? static_cast<size_t>(moved) : 0;
    return moved;
}

} // extern "C"

namespace {

class client_life;

struct scenario {
    const char *name;
    void (client_life::*live)();
    bool tcp;
    size_t stride; // of the bytes behind which the stream ends
};

class client_life : public faults, public testing::WithParamInterface<scenario> {
  public:
    void everyday()
    {
        follow();
        for (const uint64_t sn : {1u, 2u, 1u})
            write(sn);
        write(1, 1); // of the request alone
        attempt([&] { return tq_mom_del_sync(client, db, ace_record("a", 1, 2)); });
        kept.erase(2);
        attempt([&] { return read_back(1); });
        finish();
    }

    void many_pages()
    {
        hearing found;
        attempt([&] {
            found.lines.clear();
            return tq_mom_scan_sync(client, 8, ace_record("", 0, 0), 0, hearing::callback, &found);
        });
        EXPECT_EQ(2100u, found.lines.size());
        EXPECT_EQ(2100u, std::set<std::string>(found.lines.begin(), found.lines.end()).size());
    }

    void rewrite()
    {
        follow();
        std::vector<uint64_t> missing(420);
        std::iota(missing.begin(), missing.end(), 1);
        attempt([&] { return write_many(missing); });
        requests found;
        attempt([&] { return find_stored(client, db, found); });
        EXPECT_EQ(kept, found) << "an acknowledged write is lost";
        attempt([&] { return tq_mom_dsbegin_sync(client, db, ace_record("a", 0, 0), 1, 1000); });
        write(5);
        attempt([&] { return tq_mom_dsend_sync(client, db, ace_record("a", 0, 0), 1, 10'000); });
        std::erase_if(kept, [](const auto &each) { return each.first != 5; });
        finish();
    }

  protected:
    void SetUp() override
    {
        const auto port = redis_server::free_port();
        start_quick({"--bind", "127.0.0.1", "--port", GetParam().tcp ? port : "0"});
        server.run({"ACL", "SETUSER", "suite", "-info"}); // the refusal has fewer bytes
        address = server.url("suite", "timeout=10000&spin=0");
        if (GetParam().tcp)
            address = "redis://127.0.0.1:" + port + "?timeout=10000&spin=0&" + server.credentials("suite");
        const context_ptr writer(tq_context_new_on(address.c_str(), loop.get()));
        client = writer.get(), db = 8;
        std::vector<uint64_t> all(2100);
        std::iota(all.begin(), all.end(), 1);
        ASSERT_EQ(TQ_MOM_OK, write_many(all));
    }

    /// Lives once, with a fault; false when its turn did not come.
    bool survive(int kind, size_t turn)
    {
        const size_t descriptors = open_descriptors();
        context_ptr owner(tq_context_new_on(address.c_str(), loop.get()));
        client = owner.get(), ++db, request = 0, failed = 0;
        kept.clear(), heard.lines.clear();
        fault = {true, kind, turn, 0, {}};
        (this->*GetParam().live)();
        fault.armed = false;
        SCOPED_TRACE("kind " + std::to_string(kind) + ", turn " + std::to_string(turn) + ": " + fault.struck);
        check();
        owner.reset();
        EXPECT_EQ(descriptors, open_descriptors());
        return !fault.struck.empty() && !HasFailure();
    }

  private:
    void attempt(const std::function<int()> &call)
    {
        until_ok([&] {
            const int result = call();
            failed += result != TQ_MOM_OK;
            EXPECT_TRUE(result != TQ_MOM_TIMEOUT || fault.struck == "poll") << "it stalled";
            return result;
        });
    }
    void write(uint64_t sn, uint32_t fields = 6)
    {
        constexpr uint32_t numbers[] = {8, 6, 7, 9, 10, 11};
        attempt([&] {
            return tq_mom_hmset_sync(client, db, ace_record("a", 1, sn, kept[sn] = ++request), numbers, fields);
        });
    }
    // One batch of what the store has not acknowledged so far.
    int write_many(std::vector<uint64_t> &missing)
    {
        std::vector<uint64_t> collected;
        tq_mom_batch_begin(client);
        for (const uint64_t sn : missing) {
            if (write_ace(client, db, ace_record("a", 1, sn, kept[sn] = ++request)) == TQ_MOM_OK)
                collected.push_back(sn);
            if (sn % 200 == 0)
                tq_mom_batch_send(client);
        }
        std::vector<int> results(collected.size(), -1);
        tq_mom_batch_end(client, results.data(), static_cast<uint32_t>(results.size()));
        for (size_t i = 0; i < results.size(); ++i)
            if (results[i] == TQ_MOM_OK)
                std::erase(missing, collected[i]);
        return missing.empty() ? TQ_MOM_OK : TQ_MOM_DISCONNECTED;
    }
    int read_back(uint64_t sn)
    {
        auto *result = tq_mom_hgetall_sync(client, db, ace_record("a", 1, sn));
        const bool right = result != nullptr && result->record != nullptr &&
                           reinterpret_cast<const SPolicy__Ace *>(result->record)->req_uuid == kept[sn];
        tq_mom_hash_res_free(result);
        return right ? TQ_MOM_OK : TQ_MOM_DISCONNECTED;
    }
    void follow()
    {
        attempt([&] { return tq_mom_subscribe(client, db, ace_record("a", 0, 0), 1, hearing::callback, &heard); });
    }
    void finish()
    {
        write(99);
        wait_for([&] { return heard.ends_with("*4 a/1/99=" + std::to_string(kept[99])); });
    }

    void check()
    {
        const bool transient = fault.kind == one_byte || fault.kind == EINTR || fault.kind == EAGAIN;
        const bool moving = fault.struck == "send" || fault.struck == "recv";
        EXPECT_TRUE(failed == 0 || !transient || !moving) << "that was no reason to give up";
        EXPECT_EQ(kept, stored(client, db));
        const std::set<std::string> once(heard.lines.begin(), heard.lines.end());
        EXPECT_EQ(once.size(), heard.lines.size()) << "a change was told twice";
        const auto log = "plx{" + std::to_string(db) + ":ace}/log";
        EXPECT_EQ(server.run({"XLEN", log}), std::to_string(heard.lines.size())) << "a change was missed";
    }
    static size_t open_descriptors()
    {
        std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    std::string address;
    tq_context *client = nullptr;
    uint32_t db = 8;
    hearing heard;
    requests kept; // the table as it must be: sn -> request
    uint64_t request = 0;
    int failed = 0;
};

INSTANTIATE_TEST_SUITE_P(in, client_life,
                         testing::Values(scenario{"everyday", &client_life::everyday, false, 1},
                                         scenario{"everyday_over_tcp", &client_life::everyday, true, 101},
                                         scenario{"many_pages", &client_life::many_pages, false, 5003},
                                         scenario{"rewrite", &client_life::rewrite, false, 499}),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(client_life, any_socket_call_may_fail_or_fall_short_once)
{
    for (const int kind : {EINTR, EAGAIN, ECONNRESET, EPIPE, ETIMEDOUT, one_byte})
        for (size_t turn = 1; survive(kind, turn); ++turn)
            ;
}

TEST_P(client_life, the_server_may_end_behind_any_byte)
{
    for (size_t turn = 1; survive(end_of_stream, turn); turn += GetParam().stride)
        ;
}

} // namespace
