// The plane on the kernel of this machine, in a network namespace of the test's own: skipped where that is not allowed.
#include "packets/entry.hpp"
#include "plane/nftables/nftables_plane.hpp"
#include "plane/nftables/take_up.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <random>
#include <sched.h>
#include <unistd.h>

namespace {

// What the system calls below do instead of what they are for, once.
struct Fault {
    int error = 0;         // that a call fails with; 0: only a part of what is there is received
    bool sending = false;  // else receiving
    int calls_before = -1; // so many go well; -1: all of them
    bool no_owner = false; // the kernel is asked for an owned table in a way that it does not know
    bool for_good = false; // all others after it fail, too

    bool now(bool send)
    {
        return send == sending && calls_before >= 0 && (for_good ? calls_before == 0 : calls_before-- == 0);
    }
} fault;

} // namespace

extern "C" ssize_t sendto(int fd, const void *bytes, size_t size, int flags, const sockaddr *to, socklen_t length)
{
    static const auto real = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    if (fault.now(true)) {
        errno = fault.error;
        return -1;
    }
    std::string copy(static_cast<const char *>(bytes), size);
    const std::string owned("\x08\0\x02\0\0\0\0\x06", 8);
    if (const size_t at = copy.find(owned); fault.no_owner && at != std::string::npos)
        copy[at + 7] = '\x7f';
    return real(fd, copy.data(), size, flags, to, length);
}

extern "C" ssize_t recv(int fd, void *bytes, size_t size, int flags)
{
    static const auto real = reinterpret_cast<decltype(&recv)>(dlsym(RTLD_NEXT, "recv"));
    if (!fault.now(false))
        return real(fd, bytes, size, flags);
    if (fault.error == 0)
        return std::min<ssize_t>(real(fd, bytes, size, flags), 30);
    if (fault.error == ENOBUFS) // what is lost is lost
        real(fd, bytes, size, flags);
    errno = fault.error;
    return -1;
}

namespace plx::test {
namespace {

using namespace plane;
using namespace plane::nftables;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char *table_name = "plx_8_0_1_0";

std::string output_of(const std::string &command)
{
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    for (int character = 0; (character = fgetc(pipe)) != EOF;)
        text += static_cast<char>(character);
    pclose(pipe);
    return text;
}

AceKey ace(uint64_t sn)
{
    return {"edge", 10, sn};
}

ApplyKey apply_to(uint32_t port, uint32_t direction = 0)
{
    return {"edge", 10, "edge", port, 100, direction};
}

Change entry(uint64_t sn, const std::string &text, uint64_t priority = 0, bool last = false, uint64_t request = 1)
{
    Requested wanted = entry_of(text);
    wanted.request = request;
    wanted.priority = priority;
    wanted.default_entry = last;
    return {ace(sn), wanted};
}

Change applied(const Key &key)
{
    Requested wanted;
    wanted.request = 7;
    return {key, wanted};
}

class NftablesPlaneTest : public testing::Test {
  protected:
    void SetUp() override
    {
        if (unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespaces here: " << strerror(errno);
        if (!has_tables())
            GTEST_SKIP() << "no nf_tables here";
        ASSERT_EQ("", output_of("echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6;"
                                " ip link add p0 type veth peer name p1; ip link set p0 up;"
                                "ip link set p1 up 2>&1"));
        start();
    }

    static bool has_tables()
    {
        Netlink netlink;
        std::set<std::string> names;
        return netlink.open(NETLINK_NETFILTER) == 0 &&
               KernelTable("any").read_names(netlink, NFT_MSG_GETTABLE, NFTA_TABLE_NAME, names) == 0;
    }

    NftablesOptions options()
    {
        NftablesOptions all;
        all.table = table_name;
        all.config = configuration();
        all.config.ports = ports_;
        change_(all.config);
        all.table_size = table_size_;
        return all;
    }

    void start()
    {
        plane_.reset(); // which leaves the kernel as kill -9 would
        plane_.emplace(options(), [this](const std::string &text) { log_.push_back(text); });
        ASSERT_EQ(0, plane_->start());
    }

    static std::vector<int> statuses(const std::vector<Answer> &answers)
    {
        std::vector<int> statuses;
        for (const Answer &answer : answers)
            statuses.push_back(static_cast<int>(answer.status));
        return statuses;
    }

    // A trial says the same before, where nothing comes between, and changes nothing.
    std::vector<int> program(const std::vector<Change> &changes)
    {
        if (!tried_)
            return statuses(plane_->program(changes));
        const std::string before = ruleset();
        const std::vector<int> tried = statuses(plane_->try_out(changes));
        EXPECT_EQ(before, ruleset());
        const std::vector<int> made = statuses(plane_->program(changes));
        EXPECT_EQ(made, tried);
        return made;
    }

    static std::string ruleset() { return output_of("nft -a list ruleset 2>&1"); }

    // The entries of the ACL in the order in which the kernel comes to them, with their requests.
    static std::vector<std::pair<uint64_t, uint64_t>> kernel_order()
    {
        std::vector<std::pair<uint64_t, uint64_t>> order;
        const KernelTable table(table_name);
        Netlink netlink;
        netlink.open(NETLINK_NETFILTER);
        std::vector<RuleImage> jumps;
        table.read_rules(netlink, head_name({"edge", 10}), jumps);
        for (const RuleImage &jump : jumps) {
            std::vector<RuleImage> rules;
            table.read_rules(netlink, page_name({"edge", 10}, jump.tag->page), rules);
            for (const RuleImage &rule : rules)
                order.emplace_back(std::get<AceKey>(rule.tag->key).sn, rule.tag->request);
        }
        return order;
    }

    // Sends an IPv4 frame out of p1, into p0.
    static void send_frame(uint32_t source = 0)
    {
        const int raw = socket(AF_PACKET, SOCK_RAW, 0);
        uint8_t frame[60] = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0, 0x45, 0, 0, 46, 0, 0, 0, 0, 64, 17};
        std::copy_n(packet::Bytes(source, 4).data.begin(), 4, frame + 26);
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(if_nametoindex("p1"));
        EXPECT_EQ(60, sendto(raw, frame, sizeof frame, 0, reinterpret_cast<sockaddr *>(&to), sizeof to));
        close(raw);
    }

    std::map<AceKey, Counters> counters()
    {
        std::map<AceKey, Counters> all;
        for (auto some = plane_->counters(); !some.empty(); some = plane_->counters())
            all.insert(some.begin(), some.end());
        return all;
    }

    std::map<uint32_t, std::string> ports_{{1, "p0"}, {2, "p1"}};
    std::function<void(packet::Config &)> change_ = [](packet::Config &) {};
    size_t table_size_ = 1000000;
    bool tried_ = true;
    std::vector<std::string> log_;
    std::optional<NftablesPlane> plane_;
};

TEST_F(NftablesPlaneTest, what_a_killed_node_programmed_stays_and_is_taken_up_without_a_write)
{
    Change named = entry(20, "icmp_type=8 -> fwd=deny");
    named.wanted->name = "no-ping";
    const std::vector<Change> changes{entry(10, "ipv4_src=10.0.0.0/8 -> fwd=deny counter=3", 5, false, 70),
                                      named,
                                      entry(99, "-> fwd=permit", 0, true),
                                      applied(apply_to(1)),
                                      applied(apply_to(2, 1)),
                                      applied(PortOffKey{2})};
    EXPECT_THAT(program(changes), testing::Each(0));
    const std::string before = ruleset();
    const auto installed = plane_->installed();
    start();
    EXPECT_EQ(before, ruleset());
    EXPECT_EQ(installed.size(), plane_->installed().size());
    EXPECT_EQ(70U, plane_->installed().at(ace(10)).request);
    for (const Change &change : changes)
        EXPECT_EQ(change.wanted->fingerprint(), plane_->installed().at(change.key).fingerprint);
    EXPECT_THAT(before, testing::HasSubstr("comment \"edge/10/10\""));
    EXPECT_THAT(before, testing::HasSubstr("comment \"edge/10/20 no-ping\""));
}

TEST_F(NftablesPlaneTest, nobody_else_can_change_a_table_or_have_it_too)
{
    program({entry(10, "-> fwd=deny"), applied(apply_to(1))});
    const std::string before = ruleset();
    output_of("nft flush ruleset 2>&1; nft delete table netdev " + std::string(table_name) + " 2>&1");
    EXPECT_EQ(before, ruleset());
    NftablesPlane second(options(), [](const std::string &) {});
    EXPECT_EQ(EPERM, second.start());
    EXPECT_EQ("process " + std::to_string(getpid()) + " (plane_test)", second.holder());
    NftablesOptions other = options();
    other.table = "plx_8_0_2_0";
    NftablesPlane third(other, [](const std::string &) {});
    EXPECT_EQ(0, third.start());
}

// The kernel must have, after each of many changes, what a sorted table has.
TEST_F(NftablesPlaneTest, random_changes_leave_the_order_that_is_asked_for)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::map<uint64_t, Change> model;
    for (uint64_t request = 1; request <= 40; ++request) {
        std::map<uint64_t, Change> changes;
        for (uint64_t left = random() % (request % 4 == 0 ? 900 : 9) + 1; left-- > 0;) {
            const uint64_t sn = random() % 3000;
            Change change = entry(sn, "ipv4_src=10.0.0.1 -> fwd=deny", random() % 3, random() % 500 == 0, request);
            if (random() % 8 == 0)
                change.wanted.reset();
            changes.insert_or_assign(sn, change);
        }
        std::vector<Change> batch;
        for (const auto &[sn, change] : changes) {
            batch.push_back(change);
            model.erase(sn);
            if (change.wanted)
                model.emplace(sn, change);
        }
        ASSERT_THAT(program(batch), testing::Each(0));
        std::vector<std::tuple<bool, uint64_t, uint64_t, uint64_t>> sorted;
        for (const auto &[sn, change] : model)
            sorted.emplace_back(change.wanted->default_entry, ~change.wanted->priority, sn, change.wanted->request);
        std::sort(sorted.begin(), sorted.end());
        std::vector<std::pair<uint64_t, uint64_t>> expected;
        for (const auto &[last, rank, sn, wanted] : sorted)
            expected.emplace_back(sn, wanted);
        ASSERT_EQ(expected, kernel_order()) << "request " << request;
        if (random() % 5 == 0)
            start();
    }
}

// Prefixes that overlap, and rules of other shapes between them: each frame counts for the first that matches it, on
// counters that go on whatever happens to the entry and its neighbours.
// A map comes to a layer that others stand behind already, whose own maps did not come in the order of their masks.
TEST_F(NftablesPlaneTest, an_earlier_layer_is_looked_up_first_whenever_its_maps_came)
{
    const auto deny = [](uint64_t sn, const std::string &source, uint64_t priority) {
        return entry(sn, "ipv4_src=" + source + " ip_id=0 -> fwd=deny", priority);
    };
    std::vector<Change> hosts{applied(apply_to(1))};
    for (uint64_t sn = 1; sn <= 200; ++sn)
        hosts.push_back(deny(sn, "10.0.0." + std::to_string(sn), 9));
    EXPECT_THAT(program(hosts), testing::Each(0));
    EXPECT_THAT(program({deny(300, "10.0.0.7", 8)}), testing::Each(0));      // in a second layer, behind 7
    EXPECT_THAT(program({deny(301, "10.0.0.16/28", 8)}), testing::Each(0));  // in it too, after that
    EXPECT_THAT(program({deny(302, "10.0.0.96/29", 10)}), testing::Each(0)); // before 96 to 103, which move behind it
    send_frame(0x0a000060);
    EXPECT_EQ(1U, counters().at(ace(302)).packets) << ruleset();
    EXPECT_EQ(0U, counters().at(ace(96)).packets);
}

TEST_F(NftablesPlaneTest, runs_of_entries_count_what_a_list_in_order_would)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    struct Known {
        Change change;
        uint32_t value, mask;
        uint64_t packets;
    };
    std::map<std::pair<uint64_t, uint64_t>, Known> model; // by the priority's complement and number
    program({applied(apply_to(1))});
    bool looked_up = false; // by a map, at least once
    for (uint64_t request = 1; request <= 16; ++request) {
        std::map<uint64_t, Change> changes;
        for (uint64_t left = request == 4 ? 300 : random() % (request % 4 == 0 ? 300 : 9) + 1; left-- > 0;) {
            const uint64_t sn = random() % 400;
            if (changes.contains(sn))
                continue;
            const unsigned bits = 32 - static_cast<unsigned>(random() % 5 * (random() % 4 / 3));
            const uint32_t mask = random() % 64 == 0 ? 0 : 0xffffffffU << (32 - bits);
            const uint32_t value = (0x0a000000U | static_cast<uint32_t>(random() % 512)) & mask;
            const std::string source = std::to_string(value >> 24U) + ".0." + std::to_string(value >> 8U & 255U) + '.' +
                                       std::to_string(value & 255U) + '/' + std::to_string(bits);
            Change change = entry(sn, (mask == 0 ? "etype=ipv4" : "ipv4_src=" + source) + " -> fwd=deny",
                                  request % 3 == 0 ? random() % 3 : 1, false, request);
            uint64_t packets = 0;
            std::erase_if(model, [&](const auto &old) {
                packets = old.first.second == sn ? old.second.packets : packets;
                return old.first.second == sn;
            });
            if (random() % 6 == 0)
                change.wanted.reset();
            else
                model[{~change.wanted->priority, sn}] = {change, value, mask, packets};
            changes.insert_or_assign(sn, change);
        }
        std::vector<Change> batch;
        for (const auto &[sn, change] : changes)
            batch.push_back(change);
        ASSERT_THAT(program(batch), testing::Each(0));
        for (unsigned left = 30; left-- > 0;) {
            const uint32_t source = 0x0a000000U | static_cast<uint32_t>(random() % 512);
            send_frame(source);
            const auto hit = std::find_if(model.begin(), model.end(), [source](const auto &each) {
                return (source & each.second.mask) == each.second.value;
            });
            if (hit != model.end())
                ++hit->second.packets;
        }
        if (random() % 3 == 0)
            start();
        const auto seen = counters();
        ASSERT_EQ(model.size(), seen.size()) << request;
        for (const auto &[at, known] : model)
            ASSERT_EQ(known.packets, seen.at(ace(at.second)).packets) << "request " << request << ", " << at.second;
        ASSERT_EQ(model.size(), plane_->installed().size() - 1);
        ASSERT_EQ(model.size(), plane_->read_back("edge")->size() - 1);
        looked_up = looked_up || ruleset().find("@nh,96,32 vmap @acl.edge.10.") != std::string::npos;
    }
    EXPECT_TRUE(looked_up);
    EXPECT_EQ("", output_of("nft -j list ruleset 2>&1 >/dev/null"));
}

TEST_F(NftablesPlaneTest, a_change_that_fails_leaves_its_old_state_and_stops_no_other)
{
    program({entry(10, "-> fwd=deny", 0, false, 1), applied(apply_to(1))});
    ports_[5] = "gone0";
    start();
    EXPECT_THAT(program({entry(10, "-> redirect=5", 0, false, 2), entry(11, "-> fwd=permit", 0, false, 2),
                         entry(12, "vrf=1 -> fwd=permit", 0, false, 2)}),
                testing::ElementsAre(110, 0, 102));
    EXPECT_THAT(kernel_order(), testing::ElementsAre(testing::Pair(10, 1), testing::Pair(11, 2)));
}

// Each call of the kernel fails once, in each way: what is answered is what is in force.
TEST_F(NftablesPlaneTest, an_answer_is_true_whatever_happens_to_a_message)
{
    tried_ = false;
    const std::vector<Change> changes{entry(10, "-> fwd=deny", 0, false, 2),
                                      entry(11, "-> fwd=deny", 9, false, 2),
                                      {ace(12), std::nullopt},
                                      applied(apply_to(1))};
    const std::vector<Change> undo{entry(10, "-> fwd=permit", 3),
                                   {ace(11), std::nullopt},
                                   entry(12, "-> fwd=deny", 1),
                                   {apply_to(1), std::nullopt}};
    const std::vector<std::pair<uint64_t, uint64_t>> old{{10, 1}, {12, 1}}, made{{11, 2}, {10, 2}};
    for (const auto &[error, sending] : {std::pair(ENOBUFS, true),
                                         {EAGAIN, true},
                                         {EINTR, true},
                                         {EPERM, true},
                                         {ENOBUFS, false},
                                         {EAGAIN, false},
                                         {EINTR, false},
                                         {0, false}})
        for (int calls = 0;; ++calls) {
            SCOPED_TRACE(std::to_string(error) + (sending ? " sending " : " receiving ") + std::to_string(calls));
            ASSERT_THAT(program(undo), testing::Each(0));
            fault = {error, sending, calls};
            const std::vector<int> statuses = program(changes);
            const bool happened = fault.calls_before == -1;
            fault = {};
            ASSERT_THAT(statuses, testing::AnyOf(testing::Each(0), testing::Each(testing::Ne(0))));
            ASSERT_EQ(statuses[0] == 0 ? made : old, kernel_order());
            ASSERT_THAT(program(changes), testing::Each(0));
            ASSERT_EQ(made, kernel_order());
            if (!happened)
                break;
        }
    ASSERT_THAT(program(undo), testing::Each(0));
    fault = {.error = ENOBUFS, .sending = true, .calls_before = 0, .for_good = true};
    EXPECT_THAT(program(changes), testing::Each(testing::Ne(0)));
    fault = {};
    EXPECT_EQ(old, kernel_order());
}

TEST_F(NftablesPlaneTest, where_a_table_cannot_outlive_its_owner_foreign_changes_are_mended)
{
    tried_ = false;
    fault.no_owner = true;
    plane_->program({});
    plane_.reset();
    output_of("nft flush ruleset");
    start();
    EXPECT_EQ("", plane_->holder());
    const std::vector<Change> changes{entry(10, "-> fwd=deny"), entry(20, "-> fwd=permit"), applied(apply_to(1))};
    program(changes);
    EXPECT_THAT(plane_->look(), IsEmpty());
    const std::string before = output_of("nft list ruleset | sort");
    const std::string page = table_name + std::string(" acl.edge.10.0");
    const std::pair<std::string, size_t> damages[] = {
        // and how much is still in force
        {"insert rule netdev " + page + " accept", 3},
        {"flush chain netdev " + page, 1},
        {"flush ruleset", 0},
        {"delete chain netdev " + std::string(table_name) + " in.1.100.edge.10", 2}};
    for (const auto &[damage, left] : damages) {
        EXPECT_EQ("", output_of("nft '" + damage + "' 2>&1"));
        EXPECT_EQ(left, plane_->read_back("edge")->size()) << damage;
        std::vector<Change> again;
        for (const Key &key : plane_->look())
            for (const Change &change : changes)
                if (change.key == key)
                    again.push_back(change);
        program(again);
        EXPECT_EQ(before, output_of("nft list ruleset | sort")) << damage;
        EXPECT_EQ(3, plane_->read_back("edge")->size());
    }
    for (int calls = 0; calls < 6; ++calls) { // the kernel refuses, and its word is lost
        output_of("nft flush ruleset");
        fault = {ENOBUFS, false, calls, true};
        const std::vector<int> statuses = program({entry(30, "-> fwd=deny", 9, false, uint64_t(calls) + 2)});
        fault = {.no_owner = true};
        EXPECT_EQ(statuses[0] == 0, !kernel_order().empty()) << calls;
        plane_->look();
        program(changes);
    }
    fault = {};
}

TEST_F(NftablesPlaneTest, counters_go_on_through_a_replacement_and_a_move)
{
    program({entry(10, "etype=ipv4 -> fwd=deny", 5), entry(20, "-> fwd=permit"), applied(apply_to(1))});
    send_frame();
    EXPECT_EQ(1U, counters()[ace(10)].packets);
    program({entry(10, "etype=ipv4 -> counter=1 fwd=deny", 5)});
    send_frame();
    EXPECT_EQ(2U, counters()[ace(10)].packets);
    program({entry(10, "etype=ipv4 -> fwd=deny", 0)});
    EXPECT_EQ(2U, counters()[ace(10)].packets);
    EXPECT_EQ(92U, counters()[ace(10)].bytes);
}

TEST_F(NftablesPlaneTest, handles_that_were_too_many_to_be_told_are_read_when_they_are_needed)
{
    tried_ = false;
    std::vector<Change> all, gone;
    for (uint64_t sn = 1; sn <= 11000; ++sn)
        all.push_back(entry(sn, "-> fwd=deny"));
    for (uint64_t sn = 1; sn <= 2000; ++sn)
        gone.push_back({ace(sn), std::nullopt});
    EXPECT_THAT(program(all), testing::Each(0));
    EXPECT_THAT(program(gone), testing::Each(0));
    EXPECT_EQ(9000U, kernel_order().size());
}

TEST_F(NftablesPlaneTest, an_entry_for_want_of_a_default_comes_and_goes_with_it)
{
    program({entry(10, "-> fwd=deny !no_default=1"), applied(apply_to(1))});
    EXPECT_EQ(1U, kernel_order().size());
    program({entry(99, "-> fwd=permit", 0, true)});
    EXPECT_THAT(kernel_order(), testing::ElementsAre(testing::Pair(99, 1)));
    program({{ace(99), std::nullopt}});
    EXPECT_THAT(kernel_order(), testing::ElementsAre(testing::Pair(10, 1)));
}

TEST_F(NftablesPlaneTest, what_an_option_stands_for_is_another_after_a_restart)
{
    const std::vector<Change> changes{entry(10, "-> meter=1"), entry(20, "-> mirror_id=7"),
                                      entry(30, "-> stat_sampling=2")};
    program(changes);
    const auto with = [this](auto change) {
        change_ = change;
        start();
        for (const auto &[key, installed] : plane_->installed())
            EXPECT_EQ(0U, installed.fingerprint); // the node programs them again
    };
    with([](packet::Config &config) { config.meters[1] = {.per_second = 77, .burst = 3}; });
    program(changes);
    EXPECT_THAT(ruleset(), testing::HasSubstr("limit name \"m1.77.3\""));
    with([](packet::Config &config) { config.mirrors[7] = "p1"; });
    program(changes);
    EXPECT_THAT(ruleset(), testing::HasSubstr("dup to \"p1\""));
    with([](packet::Config &config) { config.sample_group = 5; });
    program(changes);
    EXPECT_THAT(ruleset(), testing::HasSubstr("log group 5"));
    start();
    EXPECT_THAT(ruleset(), testing::Not(testing::HasSubstr("m1.77.3")));
}

TEST_F(NftablesPlaneTest, an_acl_is_not_applied_where_its_entries_cannot_act)
{
    EXPECT_THAT(program({entry(10, "input_port=1 -> fwd=deny"), applied(apply_to(1, 1)), applied(apply_to(1, 2)),
                         applied(apply_to(77)), applied(UplinkKey{1, 1})}),
                testing::ElementsAre(0, 102, 106, 0, 102));
    EXPECT_THAT(program({applied(apply_to(1))}), testing::ElementsAre(0));
    EXPECT_THAT(program({entry(11, "dst_port=1 -> fwd=deny")}), testing::ElementsAre(102));
    table_size_ = 2;
    start();
    EXPECT_THAT(
        program(
            {entry(12, "-> fwd=deny"), entry(13, "-> fwd=deny"), {ace(10), std::nullopt}, entry(14, "-> fwd=deny")}),
        testing::ElementsAre(0, 101, 0, 0));
}

TEST_F(NftablesPlaneTest, interfaces_come_and_go_and_change_their_names)
{
    program({entry(10, "-> fwd=deny"), applied(apply_to(1)), entry(11, "-> redirect=2"), entry(12, "-> mirror=2"),
             entry(13, "input_port=1 -> fwd=deny")});
    EXPECT_THAT(plane_->look(), IsEmpty());
    output_of("ip link del p0");
    EXPECT_THAT(plane_->look(), testing::IsSupersetOf({Key(ace(11)), Key(ace(12)), Key(ace(13))}));
    EXPECT_THAT(program({entry(11, "-> redirect=2", 0, false, 2), entry(14, "-> redirect=2")}),
                testing::ElementsAre(110, 110));
    const std::string then_up =
        " up; until ip link show p1 | grep -q 'state UP'; do sleep 0.01; done"; // sends before then are lost
    output_of("ip link add p0 type veth peer name p1; ip link set p0 up; ip link set p1" + then_up);
    const auto again = plane_->look();
    EXPECT_THAT(again, testing::IsSupersetOf({Key(ace(11)), Key(ace(14))}));
    program({entry(11, "-> redirect=2", 0, false, 2), applied(apply_to(1))});
    send_frame();
    EXPECT_EQ(1U, counters()[ace(10)].packets);
    plane_->set_ports({{1, "p2"}});
    EXPECT_THAT(plane_->look(), testing::Contains(Key(apply_to(1))));
    program({applied(apply_to(1))});
    output_of("ip link set p0 down; ip link set p0 name p2; ip link set p2" + then_up);
    send_frame();
    EXPECT_EQ(2U, counters()[ace(10)].packets);
}

} // namespace
} // namespace plx::test
