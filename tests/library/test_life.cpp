// A long life on the test clock: every tracked write is answered exactly once, and a day leaves nothing behind.
#include "records.h"

#include <array>
#include <cstring>
#include <random>
#include <unistd.h>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t tracked_writes = 100'000;
constexpr int hours = 6;
#else
constexpr size_t tracked_writes = 1'000'000;
constexpr int hours = 24;
#endif

// Whatever a service node may do: answer, refuse, answer twice or never, fall silent and come back.
class forwarding_plane {
  public:
    explicit forwarding_plane(std::function<void(uint32_t)> heartbeat) : heartbeat_(std::move(heartbeat)) {}

    // Lets the nodes that are up speak, once in ten seconds each.
    void live(std::mt19937_64 &random)
    {
        for (uint32_t dev = 0; dev < std::size(spoke_); dev++) {
            const uint64_t now = fake::clock.now_us;
            if (now < silent_until_[dev] || now - spoke_[dev] < 10'000'000)
                continue;
            spoke_[dev] = now;
            heartbeat_(dev);
            if (random() % 40 == 0) {
                silent_until_[dev] = now + 60'000'000;
                losses++;
            }
        }
    }
    size_t size() const { return std::size(spoke_); }
    size_t losses = 0;

  private:
    std::function<void(uint32_t)> heartbeat_;
    uint64_t spoke_[5] = {}, silent_until_[5] = {};
};

// What became of each write. Its number travels in its private bytes, and comes back with its outcome.
struct ledger {
    enum fate : uint8_t { waits, succeeded, failed, overtaken };
    std::vector<fate> writes;
    uint64_t refused_now = UINT64_MAX; // a service node's refusal of this write is being delivered
    size_t late_refusals = 0;
    std::string fault;

    uint64_t begin()
    {
        writes.push_back(waits);
        return writes.size() - 1;
    }
    // Written anew, deleted or replaced by a write that failed: nobody waits for the earlier write any more.
    void overtake(uint64_t write)
    {
        if (write < writes.size() && writes[write] == waits)
            writes[write] = overtaken;
    }
    int32_t end(const uint8_t *priv, fate how)
    {
        uint64_t write;
        memcpy(&write, priv, sizeof write);
        const bool late = how == failed && writes.at(write) == succeeded && write == refused_now;
        if (writes.at(write) != waits && !late && fault.empty())
            fault = fake::format("write %zu was answered before, or overtaken", static_cast<size_t>(write));
        late_refusals += late;
        writes.at(write) = how;
        return 0;
    }
};
ledger book;

// Entries of two ACLs and their applies, written over and over.
struct spot {
    bool is_apply;
    uint32_t acl, number;
    uint64_t write = UINT64_MAX, uuid = 0;
};

struct reply {
    size_t at; // index of the spot
    uint64_t write, uuid;
    int32_t status;
};

// Of what a callback is told: the private bytes.
template <class... Told> const uint8_t *last(Told... told)
{
    return std::get<sizeof...(told) - 1>(std::tuple(told...));
}

class outcomes : public operations_case {
  protected:
    outcomes()
    {
        const auto succeeded = [](auto... told) { return book.end(last(told...), ledger::succeeded); };
        const auto failed = [](auto... told) { return book.end(last(told...), ledger::failed); };
        fp_udp_acl_handler handler{};
        handler.ace_reply_ok_cb = succeeded;
        handler.apply_reply_ok_cb = succeeded;
        handler.ace_fail_cb = failed;
        handler.apply_fail_cb = failed;
        start(handler, {"security_app"});
        g_policy_plx_zlog_level = 0;
        fake::store.keeps_calls = false;
        for (uint32_t acl = 0; acl < 4; acl++) {
            set_acl("security_app", acl);
            for (uint32_t i = 0; i < 500; i++)
                spots.push_back({i % 4 == 0, acl, i});
        }
    }

    bool one_in(uint32_t n) { return random() % n == 0; }

    void write(size_t at, bool fails)
    {
        spot &s = spots[at];
        book.overtake(s.write);
        s.write = book.begin();
        s.uuid = ++fake::clock.now_us;
        fake::store.failing = fails ? "hmset" : "";
        if (s.is_apply) {
            const fp_udp_acl_info acl = make_info("security_app", s.acl);
            owned_apply apply = make_apply(mgr, "security_app", s.number);
            memcpy(apply->priv, &s.write, sizeof s.write);
            mgr->set_apply(&context, &acl, 0, apply.get());
        } else {
            const fp_udp_acl_key acl = make_key("security_app", s.acl);
            owned_ace ace = make_ace(mgr, s.number);
            memcpy(ace->priv, &s.write, sizeof s.write);
            mgr->set_ace(&context, &acl, ace.get());
        }
        fake::store.failing.clear();
    }

    void remove(size_t at)
    {
        const spot &s = spots[at];
        book.overtake(s.write);
        if (s.is_apply)
            del_apply("security_app", s.acl, "security_app", s.number);
        else
            del_ace("security_app", s.acl, s.number);
    }

    // Every service node answers some time later, in any order: or never, or twice.
    void expect_answers(size_t at)
    {
        for (size_t node = 0; node < plane.size(); node++) {
            if (one_in(10))
                continue;
            const reply r{at, spots[at].write, spots[at].uuid, one_in(40) ? 5 : 0};
            for (int times = one_in(20) ? 2 : 1; times > 0; times--)
                due[random() % std::size(due)].push_back(r);
        }
    }

    void deliver(std::vector<reply> &replies)
    {
        for (const reply &r : std::exchange(replies, {})) {
            const spot &s = spots[r.at];
            book.refused_now = r.status ? r.write : UINT64_MAX;
            if (s.is_apply)
                answer_apply("security_app", s.acl, "security_app", s.number, 0, r.status, r.uuid);
            else
                answer_ace("security_app", s.acl, s.number, r.status, r.uuid);
            book.refused_now = UINT64_MAX;
        }
    }

    std::mt19937_64 random{1};
    forwarding_plane plane{[this](uint32_t dev) { heartbeat(dev); }};
    std::vector<spot> spots;
    std::vector<reply> due[50];
};

// Two exceptions are meant. A write that is overtaken while it waits hears nothing: the newer write's outcome is the
// entry's. And a node may still refuse what enough answers made a success: then the failure is told, too.
TEST_F(outcomes, every_tracked_write_has_exactly_one)
{
    for (size_t i = 0; book.writes.size() < tracked_writes && book.fault.empty(); i++) {
        const size_t at = random() % spots.size();
        if (one_in(50)) {
            remove(at);
        } else {
            write(at, one_in(100));
            expect_answers(at);
        }
        plane.live(random);
        deliver(due[i % std::size(due)]);
        fake::clock.advance(random() % 400'000);
    }
    for (auto &replies : due)
        deliver(replies);
    fake::clock.advance_seconds(300);
    EXPECT_EQ(book.fault, "");
    EXPECT_EQ(std::count(book.writes.begin(), book.writes.end(), ledger::waits), 0) << "never answered";
    EXPECT_EQ(pending(), 0U);
    EXPECT_EQ(broken(), "");
    for (const ledger::fate fate : {ledger::succeeded, ledger::failed, ledger::overtaken})
        EXPECT_GT(std::count(book.writes.begin(), book.writes.end(), fate), static_cast<long>(tracked_writes / 50));
    EXPECT_GT(book.late_refusals, 100U);
    EXPECT_GT(plane.losses, tracked_writes / 10'000);
}

// What must be the same at the end of every hour, once an application has gone quiet: files; requests, service nodes
// and entries, of which nothing is left; blocks, timers, and the tables' sizes.
using remains = std::array<size_t, 11>;

remains remaining()
{
    return {fake::open_files(),
            list_length(g_req_para.pending),
            list_length(g_fp_service.nodes),
            fp_udp_ace_node_hash_size(),
            static_cast<size_t>(fake::live_blocks()),
            fake::clock.timers.size(),
            fp_udp_acl_node_hash_size(),
            fp_udp_apply_node_hash_size(),
            fp_udp_acl_node_list->n_buckets,
            fp_udp_ace_node_list->n_buckets,
            fp_udp_apply_node_list->n_buckets};
}

class day : public operations_case {
  public:
    ~day() override
    {
        for (const char *end : {".log", "_1.log"})
            unlink(("/tmp/zlog/udp_fp_log/" + process + end).c_str());
    }
    void TestBody() override {}

    std::string run()
    {
        start();
        const size_t files = fake::open_files();
        std::vector<remains> quiet;
        for (int hour = 0; hour < hours; hour++) {
            for (int i = 0; i < 360; i++)
                ten_seconds(hour, i);
            go_quiet();
            const remains &left = quiet.emplace_back(remaining());
            if (left[0] != files || left[1] + left[2] + left[3] != 0 || (hour > 1 && left != quiet[1]))
                return fake::format("hour %d: ", hour) + testing::PrintToString(quiet);
        }
        if (plane.losses < 10 || aged < 1000 || told < 10'000)
            return fake::format("too quiet a day: %zu losses, %zu aged, %zu told", plane.losses, aged, told);
        return "";
    }

  private:
    uint32_t up_to(size_t n) { return static_cast<uint32_t>(random() % n); }

    void ten_seconds(int hour, int i)
    {
        fp_udp_debug_sw = hour % 4 == 0 ? FP_UDP_DEBUG_OP_LOG : 0;
        if (i == 0)
            mgr = fp_udp_get_mgr();
        for (uint32_t n = i == 0 ? 600 : 8; n > 0; n--)
            change(i == 0 ? n : up_to(600));
        if (i % 60 == 0)
            ask();
        plane.live(random);
        fake::clock.advance_seconds(10);
        note();
    }

    // An ACL with an entry and an apply, written, answered or not, or taken away.
    void change(uint32_t n)
    {
        const std::string type = n % 2 ? "security_app" : "my_app";
        set_acl(type, n % 20);
        set_ace(type, n % 20, n);
        set_apply(type, n % 20, "my_app", n);
        for (uint32_t answers = up_to(4); answers > 0; answers--) {
            answer_ace(type, n % 20, n, up_to(20) ? 0 : 3, now());
            answer_apply(type, n % 20, "my_app", n, 0, up_to(20) ? 0 : 3, now());
        }
        if (up_to(4) == 0)
            del_ace(type, n % 20, n);
        if (up_to(4) == 0)
            del_apply(type, n % 20, "my_app", n);
        if (up_to(200) == 0)
            del_acl(type, n % 20);
        fake::clock.now_us++;
    }

    // What an operator and a restarting store do now and then.
    void ask()
    {
        const ace_record ace("security_app", 1000 + up_to(3), 0);
        fake::store.put(8, ace.record.base);
        for (const char *table : {"acl", "ace"})
            fake::store.deliver(table, TQ_MOM_EVENT_RESYNC, nullptr);
        fake::store.deliver("ace", TQ_MOM_EVENT_DELETED, &ace.record.base);
        const fp_udp_acl_key acl = make_key("security_app", ace.key.acl_id);
        const owned_ace read = get_ace("security_app", ace.key.acl_id, 0);
        owned_ace copy(mgr->copy_ace(read.get(), 0, nullptr), mgr->free_ace);
        uint64_t *sn;
        uint32_t count;
        free(mgr->iterator_ace(&context, &acl, &sn, &count));
        for (auto bracket : {&fp_udp_mgr::expire_ace, &fp_udp_mgr::del_expire_ace, &fp_udp_mgr::expire_apply})
            (mgr->*bracket)(&context, "security_app");
        ssat_value argument{};
        argument.s = "all";
        for (const char *command : {"fp_udp_dump_acl", "fp_udp_dump_service_node", "fp_udp_refer_all_app_type"})
            fake::shell.run(command, {argument, ssat_value{0}});
        fake::store.records.clear();
    }

    void go_quiet()
    {
        for (const char *type : {"security_app", "my_app"})
            for (uint32_t id = 0; id < 1003; id = id == 19 ? 1000 : id + 1)
                del_acl(type, id);
        fake::clock.advance_seconds(300);
        fake::store.records.clear();
        note();
    }

    void note()
    {
        told += app.take().size();
        for (const auto &line : std::exchange(fake::log.kept, {}))
            aged += line.text.find(" aged app") != std::string::npos;
        fake::store.take();
        fake::clock.inserted = {};
    }

    std::mt19937_64 random{2};
    forwarding_plane plane{[this](uint32_t dev) { heartbeat(dev); }};
    size_t told = 0, aged = 0;
};

TEST(life, a_day_of_changes_leaves_no_block_file_or_request_behind)
{
    EXPECT_EQ(in_child(
                  [] {
                      day d;
                      return d.run();
                  },
                  true),
              "");
}

} // namespace
