// See testbed.hpp.
#include "packets/testbed.hpp"
#include "packets/entry.hpp"

#include "plane/packet/compile.hpp"
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace plx::test {

namespace {

using namespace plane;
using namespace plane::packet;
using namespace plane::nftables;
using Bytes = std::vector<uint8_t>;

constexpr uint16_t marker_type = 0x88b5;

// What a command prints, its errors too; behind it "failed" when it failed.
std::string output_of(const std::string &command)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char buffer[4096];
    for (size_t size = 0; (size = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        text.append(buffer, size);
    return pclose(pipe) == 0 ? text : text + "failed";
}

// The sets that rules share, the objects of configuration(), and what stands around the rules.
std::string surroundings()
{
    std::string text = "table netdev probe {\n";
    for (const ConstantSet &set : constant_sets()) {
        text += " set " + std::string(set.name) + " { type " + (set.size == 2 ? "ether_type" : "inet_proto") +
                "; elements = {";
        for (const uint32_t value : set.values)
            text += ' ' + std::to_string(value) + ',';
        text.back() = '}';
        text += "; }\n";
    }
    text += " counter c7 { }\n limit " + meter_name(1, configuration().meters.at(1)) +
            " { rate over 1/hour burst 1 packets; }\n"
            " chain marker { type filter hook ingress device t1 priority -9; meta protocol 0x88b5 fwd to k0; }\n"
            " chain in { type filter hook ingress device t1 priority 0; }\n"
            " chain out { type filter hook egress device e0 priority 0; }\n"
            " chain catch { type filter hook ingress device t1 priority 9;\n";
    for (int priority = 1; priority < 16; ++priority) {
        const std::string number = std::to_string(priority);
        text += "  meta priority 0:" + number + " ether saddr set 00:00:00:00:00:" + (priority < 10 ? "0" : "") +
                number + "\n";
    }
    return text + "  fwd to e0; }\n}\n";
}

bool in_namespace()
{
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0)
        return false;
    const int off = open("/proc/sys/net/ipv6/conf/default/disable_ipv6", O_WRONLY | O_CLOEXEC);
    if (off >= 0 && write(off, "1", 1) != 1)
        perror("disable_ipv6");
    close(off);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0; // one queue of packets, in order
}

std::string make_namespace()
{
    if (!in_namespace())
        return "no network namespace: not root";
    const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (netlink < 0)
        return "no netlink socket: an emulated kernel";
    close(netlink);
    std::string said;
    for (const char *pair : {"t", "e", "m", "k"}) {
        const std::string name = pair;
        said += output_of("ip link add " + name + "0 type veth peer name " + name + "1 && ip link set " + name +
                          "0 up promisc on && ip link set " + name + "1 up promisc on");
    }
    // The kernel opens their queues a moment later: frames that come before are dropped.
    said += output_of(
        "timeout 20 sh -c 'until [ $(ip -o link | grep -c \"state UP\") -eq 8 ]; do :; done' || echo links stay down");
    said += output_of("printf '%s' '" + surroundings() + "' | nft -f -");
    return said.empty() ? "" : "no nf_tables: " + said;
}

int packet_socket(const char *interface)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    const int on = 1;
    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on);
    const bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    return bound ? fd : -1;
}

// A frame that came in, with its tag in its place; nullopt: none is there.
std::optional<Bytes> receive(int fd)
{
    uint8_t buffer[4096];
    alignas(cmsghdr) char control[256];
    iovec vector{buffer, sizeof buffer};
    sockaddr_ll from{};
    msghdr message{&from, sizeof from, &vector, 1, control, sizeof control, 0};
    const ssize_t size = recvmsg(fd, &message, 0);
    if (size < 0)
        return std::nullopt;
    Bytes frame(buffer, buffer + size);
    if (from.sll_pkttype == PACKET_OUTGOING)
        return receive(fd);
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header == nullptr)
        return frame;
    tpacket_auxdata aux;
    memcpy(&aux, CMSG_DATA(header), sizeof aux);
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0) {
        const auto tag = static_cast<uint32_t>(aux.tp_vlan_tpid) << 16U | aux.tp_vlan_tci;
        const plane::packet::Bytes bytes(tag, 4);
        frame.insert(frame.begin() + 12, bytes.data.begin(), bytes.data.begin() + 4);
    }
    return frame;
}

std::vector<Bytes> drain(int fd)
{
    std::vector<Bytes> frames;
    while (auto frame = receive(fd))
        frames.push_back(std::move(*frame));
    return frames;
}

class Names : public Interfaces {
  public:
    std::optional<uint32_t> index_of(const std::string &name) const override { return if_nametoindex(name.c_str()); }
};

nlmsghdr *put_rule(Batch &batch, uint16_t type, uint16_t flags, bool egress)
{
    nlmsghdr *message = batch.add(type, flags, 0);
    put_text(message, NFTA_RULE_TABLE, "probe");
    put_text(message, NFTA_RULE_CHAIN, egress ? "out" : "in");
    return message;
}

// A batch that begins with the removal of all rules.
Batch without_rules()
{
    Batch batch;
    for (const bool out : {false, true})
        put_rule(batch, NFT_MSG_DELRULE, 0, out);
    return batch;
}

// The packets of a dumped rule's counter.
uint64_t packets_of(const nlmsghdr &rule)
{
    uint64_t packets = 0;
    for_each(Attributes(rule, nfgen_size)[NFTA_RULE_EXPRESSIONS], [&packets](const nlattr *nest) {
        const Attributes expression(nest);
        if (expression.text(NFTA_EXPR_NAME) == "counter")
            packets = Attributes(expression[NFTA_EXPR_DATA]).number64(NFTA_COUNTER_PACKETS);
    });
    return packets;
}

// A socket that hears what goes to the log groups of configuration() and the transcripts.
int log_socket()
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER);
    for (const uint16_t group : {uint16_t{3}, uint16_t{4}, uint16_t{9}}) {
        for (const bool bind : {true, false}) {
            alignas(nlmsghdr) char buffer[256];
            nlmsghdr *message = mnl_nlmsg_put_header(buffer);
            message->nlmsg_type = NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_CONFIG;
            message->nlmsg_flags = NLM_F_REQUEST;
            auto *general = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
            general->res_id = htons(group);
            const uint8_t command = NFULNL_CFG_CMD_BIND;
            if (bind)
                mnl_attr_put(message, NFULA_CFG_CMD, 1, &command);
            else
                mnl_attr_put_u32(message, NFULA_CFG_QTHRESH, htonl(1)); // every packet at once
            EXPECT_LT(0, ::send(fd, message, message->nlmsg_len, 0)) << strerror(errno);
        }
    }
    return fd;
}

// The groups that packets went to, in order.
std::vector<uint16_t> drain_logs(int fd)
{
    std::vector<uint16_t> groups;
    alignas(nlmsghdr) char buffer[1 << 16];
    for (ssize_t size = 0; (size = recv(fd, buffer, sizeof buffer, 0)) > 0;) {
        int left = static_cast<int>(size);
        for (const auto *message = reinterpret_cast<nlmsghdr *>(buffer); mnl_nlmsg_ok(message, left);
             message = mnl_nlmsg_next(message, &left)) {
            if (message->nlmsg_type == (NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_PACKET))
                groups.push_back(ntohs(static_cast<const nfgenmsg *>(mnl_nlmsg_get_payload(message))->res_id));
        }
    }
    return groups;
}

// The frame as the last rules let it out: its priority is told in its source address.
Bytes let_out(Bytes bytes, uint32_t priority)
{
    if (priority == 0)
        return bytes;
    const plane::packet::Bytes address(priority, 6);
    std::copy_n(address.data.begin(), 6, bytes.begin() + 6);
    return bytes;
}

std::string text_of(const char *where, const std::vector<Bytes> &frames)
{
    std::string text = where;
    for (const Bytes &frame : frames) {
        text += "\n    ";
        for (const uint8_t byte : frame)
            text += "0123456789abcdef"[byte >> 4U], text += "0123456789abcdef"[byte & 15U];
    }
    return text + '\n';
}

} // namespace

std::string Testbed::difference(const Frame &frame, const packet::Outcome &outcome, const Seen &seen)
{
    Seen expected;
    const bool ingress = frame.output.empty();
    for (const Action &action : outcome.done) {
        if (std::holds_alternative<Copy>(action))
            expected.copied.push_back(frame.bytes);
        if (const auto *log = std::get_if<Log>(&action))
            expected.logged.push_back(log->group);
    }
    if (outcome.verdict == Verdict::redirect)
        expected.copied.push_back(outcome.bytes);
    if (outcome.verdict == Verdict::accept || outcome.verdict == Verdict::next)
        expected.passed.push_back(let_out(outcome.bytes, ingress ? outcome.priority : 0));
    if (expected.passed == seen.passed && expected.copied == seen.copied && expected.logged == seen.logged)
        return {};
    return text_of("expected to pass:", expected.passed) + text_of("passed:", seen.passed) +
           text_of("expected copies:", expected.copied) + text_of("copies:", seen.copied) +
           "logs: " + std::to_string(expected.logged.size()) + " expected, " + std::to_string(seen.logged.size()) +
           " came";
}

const std::string &Testbed::missing()
{
    static const std::string reason = make_namespace();
    return reason;
}

Testbed &Testbed::get()
{
    static Testbed testbed;
    return testbed;
}

Testbed::Testbed()
    : in_(packet_socket("t0")), marker_(packet_socket("k1")), passed_(packet_socket("e1")),
      copied_(packet_socket("m1")), logged_(log_socket())
{
    EXPECT_EQ(0, netlink_.open(NETLINK_NETFILTER));
}

std::string Testbed::commit(Batch &batch)
{
    const auto outcome = netlink_.commit(batch);
    return outcome.errors.empty() ? "" : strerror(outcome.errors.begin()->second);
}

std::string Testbed::load(std::span<const Rule> rules, bool egress)
{
    Batch batch = without_rules();
    for (const Rule &rule : rules) {
        nlmsghdr *message = put_rule(batch, NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, egress);
        EXPECT_TRUE(put_rule_expressions(message, Batch::message_room, rule, Names(), {}));
    }
    return commit(batch);
}

std::string Testbed::load_map(const Mappable &entry, const std::string &map)
{
    if (const std::string said = output_of("echo '" + map + "' | nft -f -"); !said.empty())
        return said;
    Batch batch = without_rules();
    nlmsghdr *message = put_rule(batch, NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, false);
    EXPECT_TRUE(
        put_lookup_expressions(message, Batch::message_room, entry.shape.fields, entry.element.mask, "verdicts"));
    return commit(batch);
}

Testbed::Seen Testbed::send(const Frame &frame)
{
    setsockopt(in_, SOL_SOCKET, SO_MARK, &frame.mark, sizeof frame.mark);
    if (::send(in_, frame.bytes.data(), frame.bytes.size(), 0) < 0)
        ADD_FAILURE() << "send: " << strerror(errno);
    Bytes marker(12);
    for (const plane::packet::Bytes &part :
         {plane::packet::Bytes(marker_type, 2), plane::packet::Bytes(++sequence_, 4)})
        marker.insert(marker.end(), part.data.begin(), part.data.begin() + part.size);
    if (::send(in_, marker.data(), marker.size(), 0) < 0)
        ADD_FAILURE() << "send: " << strerror(errno);
    for (std::optional<Bytes> came; came != marker; came = receive(marker_)) {
        pollfd ready{marker_, POLLIN, 0};
        if (poll(&ready, 1, 10'000) != 1) {
            ADD_FAILURE() << "no marker came";
            return {};
        }
    }
    return {drain(passed_), drain(copied_), drain_logs(logged_)};
}

std::vector<uint64_t> Testbed::hits(bool egress)
{
    std::vector<uint64_t> all;
    std::vector<uint8_t> request;
    nlmsghdr *message = begin_request(request, NFT_MSG_GETRULE, NLM_F_DUMP);
    put_text(message, NFTA_RULE_TABLE, "probe");
    put_text(message, NFTA_RULE_CHAIN, egress ? "out" : "in");
    EXPECT_EQ(0, netlink_.ask(request, [&all](const nlmsghdr &rule) { all.push_back(packets_of(rule)); }));
    return all;
}

std::string Testbed::shared_counters()
{
    return output_of("nft list counters");
}

std::string Testbed::listing(bool json)
{
    const std::string said = output_of(json ? "nft -j list ruleset" : "nft list ruleset");
    return said.ends_with("failed") ? said : "";
}

} // namespace plx::test
