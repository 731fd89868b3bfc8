// Every socket call of the Redis engine fails or falls short once, and every byte of its answers is once the last.
//
// The calls of the engine and of hiredis land here, before the C library's. Those of the test itself pass: a fault is
// armed only while the client under test goes through its life, in a table of its own. Time goes through here, too, so
// that pauses and limits are seen without waiting for them.
#undef _FORTIFY_SOURCE // its inline functions would stand in for those defined here
#include "suite.hpp"

#include <algorithm>
#include <csignal>
#include <dlfcn.h>
#include <filesystem>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <numeric>
#include <poll.h>
#include <set>
#include <sys/socket.h>

bool peers_are_abroad = false;
int64_t clock_ms = 0;
std::string wait_sent;  // how long the last WAIT is to last
int64_t wait_takes = 0; // by this clock
int64_t thin = 0;       // how long 1000 bytes take to come

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
    size_t connections = 0;
    std::map<int, int> options = {}; // of sockets, for all levels
} fault;

bool names_are_silent = false, names_are_unknown = false;

int deaf = 0; // the socket on which nothing arrives; -1: the next that a question for changes is sent on

int64_t skipped = 0; // seconds that passed elsewhere

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
    fault.connections += 1;
    deaf = fd == deaf ? 0 : deaf;
    return call("connect", connect, fd, address, size);
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *size) noexcept
{
    return call("getsockopt", getsockopt, fd, level, name, value, size);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t size) noexcept
{
    if (fault.armed && size == sizeof(int))
        fault.options[level == IPPROTO_TCP ? -name : name] = *static_cast<const int *>(value);
    return call("setsockopt", setsockopt, fd, level, name, value, size);
}

int getpeername(int fd, sockaddr *address, socklen_t *size) noexcept
{
    const int result = call("getpeername", getpeername, fd, address, size);
    if (peers_are_abroad && result == 0 && address->sa_family == AF_INET)
        reinterpret_cast<sockaddr_in *>(address)->sin_addr.s_addr = htonl(0xc0000201); // 192.0.2.1
    return result;
}

int poll(pollfd *watched, nfds_t count, int timeout)
{
    const int ready = call("poll", poll, watched, count, timeout);
    if (ready < 0 && count > 0 && watched->events != POLLIN)
        fault.struck = "poll to connect";
    if (ready == 0 && clock_ms != 0)
        clock_ms += timeout;
    return ready;
}

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    static const auto real = reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, now);
    if (clock == CLOCK_MONOTONIC) {
        now->tv_sec = clock_ms == 0 ? now->tv_sec + skipped : clock_ms / 1000;
        now->tv_nsec = clock_ms == 0 ? now->tv_nsec : clock_ms % 1000 * 1'000'000;
    }
    return result;
}

int getaddrinfo_a(int mode, gaicb *list[], int count, sigevent *event)
{
    list[0]->ar_service = names_are_unknown ? "nobody's" : nullptr;
    return call("getaddrinfo_a", getaddrinfo_a, mode, list, count, event);
}

int gai_suspend(const gaicb *const asked[], int count, const timespec *most)
{
    if (!names_are_silent)
        return call("gai_suspend", gai_suspend, asked, count, most);
    clock_ms += most->tv_sec * 1000 + most->tv_nsec / 1'000'000;
    return EAI_AGAIN;
}

int gai_error(gaicb *asked) noexcept
{
    return names_are_silent ? EAI_INPROGRESS : call("gai_error", gai_error, asked);
}

ssize_t send(int fd, const void *bytes, size_t size, int flags)
{
    const std::string_view text(static_cast<const char *>(bytes), size);
    if (deaf == -1 && text.find("XREAD") != std::string_view::npos)
        deaf = fd;
    if (text.find("WAIT\r\n") != std::string_view::npos) {
        wait_sent = text.substr(text.rfind('$') + 4, text.size() - text.rfind('$') - 6); // one digit tells its length
        clock_ms += wait_takes;
    }
    static bool not_now = false;
    if (thin != 0 && (not_now = !not_now))
        return errno = EAGAIN, -1;
    clock_ms += thin;
    return call("send", send, fd, bytes, allowed("send", thin != 0 ? std::min<size_t>(size, 1000) : size), flags);
}

ssize_t recv(int fd, void *bytes, size_t size, int flags)
{
    static bool nothing_yet = false;
    if (fd == deaf || (thin != 0 && (nothing_yet = !nothing_yet)))
        return errno = EAGAIN, -1;
    size = thin != 0 ? std::min<size_t>(size, 1000) : size;
    const bool counted = fault.armed && fault.kind == end_of_stream && (flags & MSG_PEEK) == 0;
    if (counted && fault.seen + 1 == fault.turn && strikes("recv"))
        return shutdown(fd, SHUT_RDWR);
    size = counted && fault.seen < fault.turn ? std::min(size, fault.turn - fault.seen - 1) : size;
    const ssize_t moved = call("recv", recv, fd, bytes, allowed("recv", size), flags);
    fault.seen += counted && moved > 0 ? static_cast<size_t>(moved) : 0;
    clock_ms += moved > 0 ? thin : 0;
    return moved;
}

} // extern "C"

namespace {

// An entry tells one change in three fields, or a group of them behind the writer's name.
constexpr char changes_of[] = "local n = 0 for _, each in ipairs(redis.call('XRANGE', KEYS[1], '-', '+')) do "
                              "n = n + (each[2][1] == 'w' and #each[2] / 2 - 1 or 1) end return n";

class client_life;
constexpr char local[] = "unix:", over_tcp[] = "redis://", over_tls[] = "rediss://";

struct scenario {
    const char *name;
    void (client_life::*live)();
    const char *scheme; // of the address
    size_t stride;      // of the bytes behind which the stream ends
};

class client_life : public faults, public testing::WithParamInterface<std::tuple<scenario, int>> {
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
        std::vector<uint64_t> found, all(2100);
        std::iota(all.begin(), all.end(), 1);
        const auto note = [](void *, const tq_mom_notification *told, void *arg) {
            const auto sn = reinterpret_cast<const SPolicy__Ace *>(told->record)->index->sn;
            return static_cast<std::vector<uint64_t> *>(arg)->push_back(sn), 0;
        };
        attempt([&] {
            found.clear();
            return tq_mom_scan_sync(client, 8, ace_record("", 0, 0), 0, note, &found);
        });
        EXPECT_EQ(all, found);
    }

    void rewrite()
    {
        follow();
        std::vector<uint64_t> missing(300); // more than a batch and a page
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

    // What the log loses before it was read is read from the records, page by page.
    void lost_answers()
    {
        std::vector<uint64_t> told, wanted;
        answers.also = [&told](const tq_mom_notification &each) {
            if (each.record != nullptr)
                told.push_back(reinterpret_cast<const SPolicy__AcePsta *>(each.record)->rep_uuid);
        };
        const auto answer = [this](uint64_t sn) {
            return write_psta(client, db, psta_record("a", 1, sn, latest[sn] = ++request));
        };
        attempt([&] { return tq_mom_subscribe(client, db, psta_record("a", 0, 0), 1, hearing::callback, &answers); });
        attempt([&] {
            int result = tq_mom_batch_begin(client);
            for (uint64_t sn = 1; sn <= 200; ++sn)
                result = std::max(result, answer(sn));
            return std::max(result, tq_mom_batch_end(client, nullptr, 0));
        });
        fault.armed = false; // the test's own call
        server.run({"XTRIM", "plx{" + std::to_string(db) + ":ace_psta}/log", "MAXLEN", "0"});
        fault.armed = true;
        attempt([&] { return answer(1); });
        wait_for([&] { return !told.empty() && told.back() == request; });
        answers.also = {};
        EXPECT_TRUE(std::is_sorted(told.begin(), told.end(), std::less_equal<>{})) << "out of order, or twice";
        for (const auto &[sn, last] : latest)
            wanted.push_back(last);
        std::sort(wanted.begin(), wanted.end());
        EXPECT_TRUE(std::includes(told.begin(), told.end(), wanted.begin(), wanted.end())) << "not at all";
    }

  protected:
    const scenario mine = std::get<0>(GetParam());
    const int kind = std::get<1>(GetParam());

    void SetUp() override
    {
        const auto port = redis_server::free_port();
        lines options = {"--bind", "127.0.0.1", "--port", mine.scheme == over_tcp ? port : "0"};
        if (mine.scheme == over_tls)
            options = redis_server::tls_options(port);
        options.insert(options.end(), {"--appendfsync", "no"});
        server.start(options);
        server.run({"ACL", "SETUSER", "suite", "-info"}); // the refusal has fewer bytes
        address = server.url("suite", "timeout=10000&spin=0");
        if (mine.scheme != local)
            address = mine.scheme + ("127.0.0.1:" + port) + "?timeout=10000&spin=0&" + server.credentials("suite");
        if (mine.scheme == over_tls)
            address += "&ca=" + redis_server::certificates() + "/ca.pem";
        const context_ptr writer(tq_context_new_on(address.c_str(), loop.get()));
        client = writer.get(), db = 8;
        std::vector<uint64_t> all(mine.live == &client_life::many_pages ? 2100 : 1);
        std::iota(all.begin(), all.end(), 1);
        ASSERT_EQ(TQ_MOM_OK, write_many(all));
        survive(0); // nothing happens
        usual = connections;
    }

    /// Lives once, with a fault; false when its turn did not come.
    bool survive(size_t turn)
    {
        const size_t descriptors = open_descriptors();
        context_ptr owner(tq_context_new_on(address.c_str(), loop.get()));
        client = owner.get(), ++db, request = 0, failed = 0;
        kept.clear(), heard.lines.clear(), answers.lines.clear();
        fault = {true, kind, turn, 0, {}, 0, {}};
        (this->*mine.live)();
        fault.armed = false;
        connections = fault.connections;
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
            skipped += result != TQ_MOM_OK; // the next attempt is due
            EXPECT_TRUE(result != TQ_MOM_TIMEOUT || (fault.struck == "poll" && kind != EINTR)) << "it stalled";
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
        wait_for([&] { return heard.ends_with("*4 ace[a,1,99] 8=" + std::to_string(kept[99])); });
    }

    void check()
    {
        const bool moving =
            (kind == one_byte || kind == EINTR || kind == EAGAIN) && (fault.struck == "send" || fault.struck == "recv");
        if (moving || (kind == EINTR && fault.struck.starts_with("poll"))) {
            EXPECT_EQ(0, failed) << "that was no reason to give up";
            EXPECT_EQ(usual, connections) << "nor to begin again";
        }
        EXPECT_EQ(kept, stored(client, db));
        const std::set<std::string> once(heard.lines.begin(), heard.lines.end());
        EXPECT_EQ(once.size(), heard.lines.size()) << "a change was told twice";
        const auto log = "plx{" + std::to_string(db) + ":ace}/log";
        const auto written = server.run({"EVAL", changes_of, "1", log});
        EXPECT_EQ(written, std::to_string(heard.lines.size())) << "a change was missed";
    }
    static size_t open_descriptors()
    {
        std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    std::string address;
    size_t connections = 0, usual = 0; // that a life took; that one takes without faults
    tq_context *client = nullptr;
    uint32_t db = 8;
    hearing heard, answers;
    requests kept, latest; // the table as it must be: sn -> request; of answers
    uint64_t request = 0;
    int failed = 0;
};

const std::map<int, std::string> kinds = {
    {EINTR, "EINTR"},         {EAGAIN, "EAGAIN"},     {ECONNRESET, "ECONNRESET"},      {EPIPE, "EPIPE"},
    {ETIMEDOUT, "ETIMEDOUT"}, {one_byte, "one_byte"}, {end_of_stream, "end_of_stream"}};
INSTANTIATE_TEST_SUITE_P(
    with, client_life,
    testing::Combine(testing::Values(scenario{"everyday", &client_life::everyday, local, 1},
                                     scenario{"everyday_over_tcp", &client_life::everyday, over_tcp, 101},
                                     scenario{"everyday_over_tls", &client_life::everyday, over_tls, 211},
                                     scenario{"many_pages", &client_life::many_pages, local, 5003},
                                     scenario{"rewrite", &client_life::rewrite, local, 1499},
                                     scenario{"lost_answers", &client_life::lost_answers, local, 2003}),
                     testing::Values(EINTR, EAGAIN, ECONNRESET, EPIPE, ETIMEDOUT, one_byte, end_of_stream)),
    [](const auto &each) { return std::get<0>(each.param).name + ("_" + kinds.at(std::get<1>(each.param))); });

TEST_P(client_life, goes_on_wherever_a_socket_call_goes_wrong_once)
{
    // Over TLS each connection takes ten times as long to make, and with sanitizers everything does. CI has the
    // time for every call and byte.
#ifdef PLX_UNDER_SANITIZER
    const size_t stride = 3, calls = 5;
#else
    const size_t stride = getenv("CI") != nullptr ? 1 : 3, calls = stride;
#endif
    for (size_t turn = 1; survive(turn); turn += kind == end_of_stream     ? mine.stride * stride
                                                 : mine.scheme == over_tls ? 11 * calls
                                                                           : calls)
        ;
}

TEST_F(faults, a_waiting_connection_that_is_silent_for_nine_seconds_is_made_anew)
{
    server.start();
    hearing heard;
    deaf = -1;
    subscribe(open(), heard, ace_record("a", 0, 0));
    wait_for([] { return deaf > 0; });
    EXPECT_EQ(TQ_MOM_OK, write_ace(open(), 8, ace_record("a", 1, 1)));
    skipped += 8;
    int turns = 0;
    wait_for([&] { return ++turns > 20; });
    EXPECT_TRUE(heard.lines.empty());
    skipped += 2;
    wait_for([&] { return !heard.lines.empty(); });
}

TEST_F(faults, a_store_that_was_flushed_is_noticed_after_five_seconds_though_nobody_writes)
{
    server.start();
    auto *context = open();
    EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, 1)));
    hearing heard;
    subscribe(context, heard, ace_record("a", 0, 0));
    EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace_record("a", 1, 1)));
    wait_for([&] { return !heard.lines.empty(); });
    server.run({"FLUSHALL"});
    skipped += 5;
    fault = {};
    wait_for([&] { return heard.ends_with("29 19"); });
    int turns = 0;
    wait_for([&] { return fault.connections > 0 || ++turns > 20; });
    EXPECT_GT(fault.connections, 0) << "it still waits for what comes behind the old number";
}

/// Where the clock stands still unless somebody waits.
class pace : public faults {
  protected:
    void SetUp() override { clock_ms = 1'000'000; }
    void TearDown() override { clock_ms = 0; }
    // Asks every millisecond, and returns when it came to an attempt, counted from the first.
    std::vector<int64_t> attempts(tq_context *context, int result)
    {
        std::vector<int64_t> at;
        const int64_t begin = clock_ms;
        for (fault = {}; clock_ms < begin + 10'000; ++clock_ms, fault.connections = 0) {
            EXPECT_EQ(result, tq_mom_client_connect_sync(context, 8));
            at.insert(at.end(), fault.connections, clock_ms - begin);
        }
        return at;
    }
    const std::vector<int64_t> doubling = {0, 50, 150, 350, 750, 1550, 3150, 5150, 7150, 9150};
};

TEST_F(pace, of_attempts_doubles_up_to_two_seconds_and_begins_anew_after_a_success)
{
    auto *context = open();
    EXPECT_EQ(doubling, attempts(context, TQ_MOM_DISCONNECTED));
    clock_ms += 2000;
    server.start();
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    server.crash();
    clock_ms += 3; // long enough for a look
    EXPECT_EQ(doubling, attempts(context, TQ_MOM_DISCONNECTED));
    server.start();
    auto *stranger = open_at("unix:" + server.socket() + "?user=stranger");
    EXPECT_EQ(doubling, attempts(stranger, TQ_MOM_BAD_LOGIN));
}

TEST_F(pace, of_calls_is_that_of_the_address)
{
    server.start();
    for (const int64_t limit : {70, 250}) {
        auto *context = open("spin=0&timeout=" + std::to_string(limit));
        thin = limit / 3; // a first login that took long is forgotten
        EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
        thin = 0;
        server.crash();
        server.start();
        clock_ms += 3;
        EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
        for (const size_t size : {10u, 4'000'000u}) { // an answer that does not come, and a socket that takes no more
            ace_record ace("a", 1, 1);
            ace.set_value(std::string(size, 'x'));
            while (write_ace(context, 8, ace) != TQ_MOM_OK) // a busy machine may take longer
                clock_ms += 5000;
            server.signal(SIGSTOP);
            const int64_t begin = clock_ms;
            EXPECT_EQ(TQ_MOM_TIMEOUT, write_ace(context, 8, ace));
            EXPECT_EQ(limit, clock_ms - begin);
            for (const int64_t part : {10, 10, 10, 10, 5}) { // it never took long to log in
                const int64_t attempt = clock_ms, most = limit / part;
                EXPECT_EQ(TQ_MOM_TIMEOUT, tq_mom_client_connect_sync(context, 8));
                EXPECT_EQ(most, clock_ms - attempt) << "a server that does not answer while we log in";
                clock_ms += 9 * most - 1;
                EXPECT_EQ(TQ_MOM_TIMEOUT, tq_mom_client_connect_sync(context, 8));
                EXPECT_EQ(10 * most - 1, clock_ms - attempt) << "what stands still waits nine times as long";
                clock_ms += 2000;
            }
            server.signal(SIGCONT);
            clock_ms += 5000;
        }
    }
}

TEST_F(pace, of_an_answer_that_goes_on_coming_is_ten_times_as_long)
{
    server.start();
    auto *context = open("spin=0&timeout=1000");
    for (const auto &[size, result] : {std::pair(30'000, TQ_MOM_OK), std::pair(60'000, TQ_MOM_TIMEOUT)}) {
        ace_record ace("a", 1, 1);
        ace.set_value(std::string(static_cast<size_t>(size), 'x'));
        EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
        thin = 300;
        requests found;
        EXPECT_EQ(result, find_stored(context, 8, found)) << size;
        thin = 0;
    }
}

TEST_F(pace, of_what_goes_out_or_shakes_hands_bit_by_bit_is_the_time_of_a_call)
{
    const auto port = redis_server::free_port();
    server.start(redis_server::tls_options(port));
    auto *context = open("spin=0&timeout=1000");
    ace_record ace("a", 1, 1);
    ace.set_value(std::string(60'000, 'x'));
    EXPECT_EQ(TQ_MOM_OK, write_ace(context, 8, ace));
    thin = 300;
    EXPECT_EQ(TQ_MOM_TIMEOUT, write_ace(context, 8, ace));
    const std::string trust = "&ca=" + redis_server::certificates() + "/ca.pem&" + server.credentials("suite");
    auto *other = open_at("rediss://127.0.0.1:" + port + "?spin=0&timeout=1000" + trust);
    const int64_t begin = clock_ms;
    EXPECT_EQ(TQ_MOM_TIMEOUT, tq_mom_client_connect_sync(other, 8));
    EXPECT_LT(clock_ms - begin, 2000) << "with the look whether it speaks without TLS";
    thin = 0;
}

TEST_F(pace, of_waiting_for_replicas_is_a_tenth_after_it_was_in_vain)
{
    server.start();
    auto *context = open("wait=1&wait-timeout=300");
    const struct {
        int64_t after;
        const char *wait; // "": the write fails at once, and the server has it
        int64_t took;
    } writes[] = {{0, "300", 0}, {2699, "", 0}, {1, "30", 50}, {449, "", 0}, {1, "30", 0}, {0, "", 0}};
    uint64_t sn = 0;
    for (const auto &[after, wait, took] : writes) {
        clock_ms += after;
        wait_takes = took;
        wait_sent.clear();
        EXPECT_EQ(TQ_MOM_NOT_REPLICATED, write_ace(context, 8, ace_record("a", 1, ++sn)));
        EXPECT_EQ(wait, wait_sent) << sn;
    }
    requests found;
    EXPECT_EQ(TQ_MOM_OK, find_stored(context, 8, found));
    EXPECT_EQ(sn, found.size());
    server.crash();
    server.start();
    clock_ms += 3; // another server is asked
    EXPECT_EQ(TQ_MOM_NOT_REPLICATED, write_ace(context, 8, ace_record("a", 1, 1)));
    EXPECT_EQ("30", wait_sent);
}

TEST_F(pace, of_looking_a_name_up_is_100_ms_and_the_addresses_found_before_are_taken)
{
    const auto port = redis_server::free_port();
    const lines options = {"--bind", "127.0.0.1", "--port", port};
    server.start(options);
    auto *context = open_at("redis://localhost:" + port + "?" + server.credentials("suite"));
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    server.crash();
    server.start(options);
    clock_ms += 3;
    names_are_silent = true;
    const int64_t begin = clock_ms;
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(context, 8));
    EXPECT_EQ(100, clock_ms - begin);
    names_are_silent = false;
    names_are_unknown = true;
    auto *other = open_at("redis://localhost:" + port + "?timeout=10000&" + server.credentials("suite"));
    EXPECT_EQ(TQ_MOM_DISCONNECTED, tq_mom_client_connect_sync(other, 8));
    names_are_unknown = false;
    clock_ms += 2000;
    EXPECT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(other, 8)) << "it is asked for anew";
}

TEST_F(pace, of_keeping_connections_alive_tells_a_dead_peer_after_ten_seconds)
{
    const auto port = redis_server::free_port();
    server.start({"--bind", "127.0.0.1", "--port", port});
    hearing heard;
    fault = {true, 0, 0, 0, {}, 0, {}};
    subscribe(open_at("redis://127.0.0.1:" + port + "?" + server.credentials("suite")), heard, ace_record("", 0, 0));
    auto &options = fault.options;
    EXPECT_EQ(1, options[SO_KEEPALIVE]);
    EXPECT_EQ(1, options[-TCP_NODELAY]);
    EXPECT_GT(options[-TCP_KEEPCNT], 1) << "a single lost packet is no death";
    EXPECT_GT(options[-TCP_USER_TIMEOUT], 1000);
    EXPECT_LE(options[-TCP_USER_TIMEOUT], 10'000)
        << "where what was sent is not acknowledged there are no signs of life";
    EXPECT_EQ(10, options[-TCP_KEEPIDLE] + options[-TCP_KEEPINTVL] * options[-TCP_KEEPCNT]);
    EXPECT_EQ(8000, options[-TCP_USER_TIMEOUT]) << "what was sent and is not taken keeps those from asking";
    fault.armed = false;
}

} // namespace
