// See interpreter.hpp.
#include "plane/packet/interpreter.hpp"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace plx::plane::packet {

namespace {

constexpr size_t link_size = 14, tag_size = 4, ipv4_size = 20, ipv6_size = 40;
constexpr uint16_t lowest_type = 0x600;
// What stands for the type of a frame that has a length instead: raw, or with a link control header.
constexpr uint16_t raw_frame = 1, llc_frame = 4;

enum Extension : uint8_t {
    hop_by_hop = 0,
    routing = 43,
    fragment_header = 44,
    authentication = 51,
    none = 59,
    options = 60
};

bool is_extension(uint8_t type)
{
    return type == hop_by_hop || type == routing || type == fragment_header || type == authentication || type == none ||
           type == options;
}

// A frame, and where its headers are.
class View {
  public:
    explicit View(const Frame &frame) : frame_(frame), bytes_(frame.bytes)
    {
        find_network();
        if (protocol_ == ipv4_type)
            find_ipv4();
        if (protocol_ == ipv6_type)
            find_ipv6();
    }

    // nullopt: not there.
    std::optional<Bytes> load(const Source &source) const
    {
        switch (source.load) {
        case Load::link:
        case Load::network:
        case Load::transport:
            return slice(source);
        case Load::protocol:
            return protocol_ ? std::optional(Bytes(*protocol_, 2)) : std::nullopt;
        case Load::l4proto:
            return l4proto_ ? std::optional(Bytes(*l4proto_, 1)) : std::nullopt;
        case Load::mark:
            return Bytes(frame_.mark, 4);
        case Load::input:
            return name(frame_.input);
        case Load::output:
            return name(frame_.output);
        case Load::extension:
            if (protocol_ != ipv6_type)
                return std::nullopt;
            return Bytes(walk_extensions(static_cast<uint8_t>(source.offset)).found ? 1 : 0, 1);
        }
        return std::nullopt;
    }

    // Where a payload source's bytes begin.
    std::optional<size_t> place(const Source &source) const
    {
        const auto base = source.load == Load::link      ? std::optional<size_t>(0)
                          : source.load == Load::network ? network_
                                                         : transport_;
        if (!base || !has(*base + source.offset, source.size))
            return std::nullopt;
        return *base + source.offset;
    }

  private:
    struct Walk {
        bool found = false; // a header of the type that was looked for; looking for none: where the walk ended
        uint8_t type = 0;
        size_t at = 0;
        bool later_fragment = false;
    };

    bool has(size_t at, size_t size) const { return at <= bytes_.size() && size <= bytes_.size() - at; }
    uint16_t word(size_t at) const { return static_cast<uint16_t>(bytes_[at] << 8U | bytes_[at + 1]); }

    std::optional<Bytes> slice(const Source &source) const
    {
        const auto at = place(source);
        return at ? std::optional(Bytes(bytes_.subspan(*at, source.size))) : std::nullopt;
    }

    static Bytes name(const std::string &interface)
    {
        Bytes bytes;
        bytes.size = 16;
        std::copy_n(interface.begin(), std::min<size_t>(interface.size(), 15), bytes.data.begin());
        return bytes;
    }

    void find_network()
    {
        if (!has(0, link_size))
            return;
        network_ = link_size;
        const uint16_t outer = word(link_size - 2);
        const bool tagged = outer == 0x8100 || outer == 0x88a8;
        if (tagged && !has(link_size, tag_size))
            return;
        if (tagged)
            *network_ += tag_size;
        const uint16_t type = word(*network_ - 2);
        const bool raw = has(*network_, 2) && word(*network_) == 0xffff;
        protocol_ = type >= lowest_type ? type : raw ? raw_frame : llc_frame;
    }

    void find_ipv4()
    {
        if (!has(*network_, ipv4_size) || bytes_[*network_] >> 4U != 4)
            return;
        const size_t header = (bytes_[*network_] & 0xfU) * size_t{4};
        const size_t total = word(*network_ + 2);
        if (header < ipv4_size || total < header || !has(*network_, total))
            return;
        l4proto_ = bytes_[*network_ + 9];
        if ((word(*network_ + 6) & 0x1fff) == 0)
            transport_ = *network_ + header;
    }

    void find_ipv6()
    {
        if (!has(*network_, ipv6_size) || bytes_[*network_] >> 4U != 6)
            return;
        if (!has(*network_ + ipv6_size, word(*network_ + 4)))
            return;
        const Walk walk = walk_extensions(std::nullopt);
        if (!walk.found)
            return;
        l4proto_ = walk.type;
        if (!walk.later_fragment)
            transport_ = walk.at;
    }

    // From header to header: to one of the type wanted, or to the transport header, which an authentication header
    // counts as. A chain that leaves the frame, or ends in another way, finds nothing.
    Walk walk_extensions(std::optional<uint8_t> wanted) const
    {
        if (!has(*network_, ipv6_size))
            return {};
        Walk walk{.type = bytes_[*network_ + 6], .at = *network_ + ipv6_size};
        while (true) {
            if (!is_extension(walk.type) || walk.type == none) {
                walk.found = !wanted || walk.type == *wanted;
                return walk;
            }
            if (!has(walk.at, walk.type == routing || walk.type == fragment_header ? 4 : 2))
                return {};
            if (walk.type == fragment_header && (word(walk.at + 2) & ~7U) != 0)
                return end_at_later_fragment(walk, wanted);
            if (wanted ? walk.type == *wanted : walk.type == authentication) {
                walk.found = true;
                return walk;
            }
            pass_header(walk);
        }
    }

    // What follows in a later fragment is not at its place.
    Walk end_at_later_fragment(Walk walk, std::optional<uint8_t> wanted) const
    {
        const uint8_t next = bytes_[walk.at];
        walk.later_fragment = true;
        walk.found = wanted ? *wanted == fragment_header : !is_extension(next) || next == none;
        walk.type = next;
        return walk;
    }

    void pass_header(Walk &walk) const
    {
        const size_t units = bytes_[walk.at + 1];
        const size_t size = walk.type == fragment_header  ? 8
                            : walk.type == authentication ? (units + 2) * 4
                                                          : (units + 1) * 8;
        walk.type = bytes_[walk.at];
        walk.at += size;
    }

    const Frame &frame_;
    std::span<const uint8_t> bytes_;
    std::optional<uint16_t> protocol_;
    std::optional<uint8_t> l4proto_;
    std::optional<size_t> network_, transport_;
};

bool passes(const Rule &rule, const View &view, const Frame &frame)
{
    for (const Test &test : rule.tests) {
        const auto found = view.load(test.source);
        if (!found || !holds(test, *found))
            return false;
    }
    return (rule.over_meter.empty() || frame.over_meter) && (rule.one_in == 0 || frame.sampled);
}

uint32_t fold(uint32_t sum)
{
    sum = (sum & 0xffffU) + (sum >> 16U);
    return (sum & 0xffffU) + (sum >> 16U);
}

// The checksum is that of the header without the old word and with the new one.
void mend_checksum(std::vector<uint8_t> &bytes, size_t at, uint32_t before, uint32_t after)
{
    const uint32_t old = bytes[at] * 256U + bytes[at + 1];
    const uint32_t sum = fold(fold((~old & 0xffffU) + (~before & 0xffffU)) + after);
    uint32_t checksum = ~sum & 0xffffU;
    if (checksum == 0)
        checksum = 0xffffU;
    bytes[at] = static_cast<uint8_t>(checksum >> 8U);
    bytes[at + 1] = static_cast<uint8_t>(checksum);
}

void write(const Write &change, const View &view, std::vector<uint8_t> &bytes)
{
    const auto at = view.place(change.at);
    if (!at)
        return;
    const std::optional<size_t> checksum = change.ipv4_checksum ? view.place({Load::network, 2, 10}) : std::nullopt;
    const auto word = [&] { return checksum ? bytes[*at] * 256U + bytes[*at + 1] : 0; };
    const uint32_t before = word();
    for (size_t i = 0; i < change.mask.size; ++i)
        bytes[*at + i] = static_cast<uint8_t>((bytes[*at + i] & ~change.mask.data[i]) | change.value.data[i]);
    if (checksum)
        mend_checksum(bytes, *checksum, before, word());
}

void apply(const Rule &rule, const View &view, Outcome &outcome)
{
    for (const Action &action : rule.actions) {
        if (const auto *change = std::get_if<Write>(&action))
            write(*change, view, outcome.bytes);
        if (const auto *set = std::get_if<SetPriority>(&action))
            outcome.priority = set->priority;
        outcome.done.push_back(action);
    }
    outcome.verdict = rule.verdict;
    outcome.interface = rule.interface;
}

} // namespace

bool matches(const Rule &rule, const Frame &frame)
{
    return passes(rule, View(frame), frame);
}

Outcome interpret(std::span<const Rule> rules, const Frame &frame)
{
    Outcome outcome;
    outcome.bytes = frame.bytes;
    const View view(frame);
    for (size_t at = 0; at < rules.size() && outcome.verdict == Verdict::next; ++at) {
        if (!passes(rules[at], view, frame))
            continue;
        outcome.matched.push_back(at);
        apply(rules[at], view, outcome);
    }
    return outcome;
}

} // namespace plx::plane::packet
