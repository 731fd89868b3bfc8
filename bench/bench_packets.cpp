// The plane in the Linux kernel, beside `nft -f` of the same rules in turns, in a network namespace of its own: the
// time to load, and one change among many; and what a list costs a packet. Needs root;
// says so and ends without a verdict otherwise.
#include "support/harness.hpp"

#include "plane/nftables/nftables_plane.hpp"
#include "tools/plx/attribute_value.hpp"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace plx;
using namespace plx::plane;

constexpr char rules_file[] = "/tmp/plx-bench-rules.nft";

void push(Requested &entry, fp_udp_attr_class cls, const char *name, const std::string &text)
{
    const Form *form = find_form(cls, name);
    const auto value = tool::encode(*form, text);
    const uint32_t header[2] = {attribute_id(*form) << 8U | form->cls, static_cast<uint32_t>(value.bytes.size())};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    entry.value.insert(entry.value.end(), bytes, bytes + sizeof header);
    entry.value.insert(entry.value.end(), value.bytes.begin(), value.bytes.end());
}

std::string address(uint64_t number)
{
    return "10." + std::to_string(number >> 16U) + '.' + std::to_string(number >> 8U & 255U) + '.' +
           std::to_string(number & 255U);
}

Change forward(uint64_t number, const std::string &source, const char *how)
{
    Requested wanted;
    wanted.request = 1;
    push(wanted, FP_UDP_ATTR_FIELD, "ipv4_src", source);
    push(wanted, FP_UDP_ATTR_ACTION, "fwd", how);
    return {AceKey{"bench", 1, number}, wanted};
}

Change change(uint64_t number, const std::string &source)
{
    Requested wanted;
    wanted.request = 1;
    push(wanted, FP_UDP_ATTR_FIELD, "ipv4_src", source);
    push(wanted, FP_UDP_ATTR_FIELD, "ipv4_proto", "tcp");
    push(wanted, FP_UDP_ATTR_FIELD, "dst_l4port", "80");
    push(wanted, FP_UDP_ATTR_ACTION, "fwd", "deny");
    return {AceKey{"bench", 1, number}, wanted};
}

void write_rules(uint64_t count)
{
    std::ofstream out(rules_file);
    out << "table netdev beside {\n chain entries {\n";
    for (uint64_t i = 0; i < count; ++i)
        out << "  ip saddr " << address(i) << " tcp dport 80 counter drop comment \"bench/1/" << i << "\"\n";
    out << " }\n}\n";
}

// Seconds of `nft -f` as a process.
double run_nft()
{
    const double taken = bench::nanoseconds([&] {
        const pid_t child = fork();
        if (child == 0) {
            execlp("nft", "nft", "-f", rules_file, nullptr);
            _exit(127);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0)
            std::abort();
    });
    if (system("nft delete table netdev beside") != 0)
        std::abort();
    return taken / 1e9;
}

void load(nftables::NftablesPlane &plane, const std::vector<Change> &changes)
{
    for (const Answer &answer : plane.program(changes))
        if (answer.status != Status::ok) {
            fprintf(stderr, "bench_packets: %s\n", answer.text.c_str());
            std::abort();
        }
}

// Loads, changes one and removes, in one process and table.
void measure(benchmark::State &state, uint64_t count)
{
    write_rules(count);
    nftables::NftablesOptions options;
    options.table = "plx_bench";
    nftables::NftablesPlane plane(options, [](const std::string &text) { fprintf(stderr, "%s\n", text.c_str()); });
    if (plane.start() != 0)
        std::abort();
    std::vector<Change> changes;
    for (uint64_t i = 0; i < count; ++i)
        changes.push_back(change(i, address(i)));
    bench::once(state, [&] {
        const double beside = run_nft();
        const double ours = bench::nanoseconds([&] { load(plane, changes); });
        const std::vector<Change> one{change(count / 2, "192.0.2.1")};
        plane.program(one); // which learns the page's handles
        state.counters["beside_nft"] = ours / 1e9 / beside;
        state.counters["seconds"] = ours / 1e9;
        state.counters["one_change_ms"] = bench::nanoseconds([&] { plane.program(one); }) / 1e6;
        for (Change &each : changes)
            each.wanted.reset();
        plane.program(changes);
    });
}

constexpr int frames = 50'000;

// Nanoseconds for a frame that the last entry matches to come in, from the call that sends it on the wire's other end.
double frame_cost()
{
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex("plx-far"));
    uint8_t frame[64] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, 8, 0, 0x45, 0, 0, 50};
    frame[22] = 64, frame[23] = 17, frame[26] = 192, frame[28] = 2, frame[29] = 9, frame[30] = 192, frame[32] = 2;
    const double taken = bench::nanoseconds([&] {
        for (int i = 0; i < frames; ++i)
            if (sendto(fd, frame, sizeof frame, 0, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
                std::abort();
    });
    close(fd);
    return taken / frames;
}

// Of the only entry that frames match.
uint64_t frames_seen(nftables::NftablesPlane &plane)
{
    uint64_t seen = 0;
    for (auto some = plane.counters(); !some.empty(); some = plane.counters()) // in turns
        for (const auto &[key, counters] : some)
            seen += counters.packets;
    return seen;
}

// One entry, then a list of so many addresses, on the same port.
void packets(benchmark::State &state)
{
    if (system("ip link add plx-near type veth peer name plx-far && ip link set plx-near up && ip link set plx-far up"))
        std::abort();
    nftables::NftablesOptions options;
    options.table = "plx_bench";
    nftables::NftablesPlane plane(options, [](const std::string &text) { fprintf(stderr, "%s\n", text.c_str()); });
    plane.set_ports({{1, "plx-near"}});
    if (plane.start() != 0)
        std::abort();
    plane.look();
    Requested applied;
    applied.request = 1;
    load(plane, {forward(1'000'000, "192.0.2.9", "permit"), {ApplyKey{"bench", 1, "bench", 1, 1, 0}, applied}});
    std::vector<Change> list;
    for (uint64_t i = 1; i < 100'000; ++i)
        list.push_back(forward(i, address(i), "deny"));
    bench::once(state, [&] {
        frame_cost(); // warms up
        const double one = frame_cost();
        load(plane, list);
        const double many = frame_cost();
        if (const uint64_t seen = frames_seen(plane); seen < 3 * frames) {
            fprintf(stderr, "bench_packets: %llu frames of %d came\n", static_cast<unsigned long long>(seen),
                    3 * frames);
            std::abort();
        }
        state.counters["one_entry_ns"] = one;
        state.counters["list_ns"] = many;
        state.counters["list_more_ns"] = many - one;
    });
    for (Change &each : list)
        each.wanted.reset();
    load(plane, list);
    if (system("ip link del plx-near"))
        std::abort();
}

void ten_thousand(benchmark::State &state)
{
    measure(state, 10000);
}

void hundred_thousand(benchmark::State &state)
{
    measure(state, 100000);
}

constexpr bench::goal goals[] = {
    {"entries_10k", "beside_nft", 1.5, 0.1},
    {"entries_100k", "beside_nft", 1.5, 0.1},
    {"entries_100k", "one_change_ms", 20, 0.5},
    {"packet_100k", "list_more_ns", 1500, 0.1},
};

} // namespace

int main(int argc, char **argv)
{
    if (unshare(CLONE_NEWNET) != 0 || system("nft list ruleset >/dev/null") != 0) {
        puts("bench_packets: needs root and nf_tables; skipped");
        return 0;
    }
    bench::add("entries_10k", ten_thousand)->Repetitions(3);
    bench::add("entries_100k", hundred_thousand)->Repetitions(3);
    bench::add("packet_100k", packets)->Repetitions(3);
    return bench::run(argc, argv, goals);
}
