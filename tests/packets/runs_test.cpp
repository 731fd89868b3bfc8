// Runs of entries that can be one map: which are, and that the map says what they say one by one.
#include "packets/entry.hpp"
#include "packets/frames.hpp"
#include "packets/testbed.hpp"

namespace plx {
namespace {

using namespace plane;
using namespace plane::packet;
using test::Testbed;

Rule rule_of(const std::string &entry)
{
    return compile(test::entry_of(entry), test::configuration()).rules.at(0);
}

TEST(Shape, is_of_entries_that_look_at_the_same_places)
{
    const struct {
        const char *one, *other;
        bool same;
    } pairs[] = {{"ipv4_src=10.0.0.0/8 -> fwd=deny", "ipv4_src=192.0.2.1 -> fwd=permit", true},
                 {"ipv4_src=10.0.0.0/8 etype=ipv4", "ipv4_src=192.0.2.1", true},
                 {"ipv4_src=10.0.0.0/8", "ipv4_dst=10.0.0.0/8", false},
                 {"ipv4_src=10.0.0.0/8", "ipv6_src=2001:db8::/32", false},
                 {"ipv4_proto=tcp dst_l4port=22", "ipv4_proto=udp dst_range=5-9", true},
                 {"dst_l4port=22", "dst_range=5-9", true},
                 {"dst_l4port=22", "ipv4_proto=tcp dst_l4port=22", false},
                 {"vid=5 src_mac=02:00:00:00:00:01", "src_mac=02:00:00:00:00:00/24 vid=6", false}, // in another order
                 {"etype=arp", "etype=ipv4", false},
                 {"ipv4_src=10.0.0.1/255.0.0.255", "ipv4_src=10.0.0.2/255.0.0.255", false},
                 {"ipv4_src=10.0.0.1 -> counter=7", "ipv4_src=10.0.0.2", false},
                 {"ipv4_src=10.0.0.1 -> meter=1", "ipv4_src=10.0.0.2 -> meter=1", false}};
    for (const auto &[one, other, same] : pairs) {
        const auto left = mappable(rule_of(one)), right = mappable(rule_of(other));
        EXPECT_EQ(same, left && right && left->shape == right->shape) << one << " and " << other;
    }
}

std::string any_of_shape(std::mt19937 &random)
{
    const auto number = [&random](unsigned bound) { return std::to_string(random() % bound); };
    const unsigned first = static_cast<unsigned>(random() % 200);
    return "ipv4_src=10.0." + number(64) + ".0/" + std::to_string(20 + random() % 5) +
           " ipv4_proto=" + (random() % 2 == 0 ? "tcp" : "udp") + " dst_range=" + std::to_string(first) + '-' +
           std::to_string(first + random() % 8);
}

// "10.0.0.0/20" gives a value outside of its mask, where a part is not zero.
std::optional<Mappable> any_element(std::mt19937 &random)
{
    Compiled compiled;
    while (compiled.rules.empty()) {
        try {
            compiled = compile(test::entry_of(any_of_shape(random)), test::configuration());
        } catch (const std::invalid_argument &) {
            continue;
        }
    }
    return mappable(compiled.rules[0]);
}

bool overlap(const Element &one, const Element &other)
{
    for (size_t at = 0; at < one.low.size(); at += 4) {
        if (one.high.substr(at, 4) < other.low.substr(at, 4) || other.high.substr(at, 4) < one.low.substr(at, 4))
            return false;
    }
    return true;
}

TEST(Run, takes_what_overlaps_nothing)
{
    std::mt19937 random(7);
    packet::Run run(any_element(random)->shape);
    std::vector<Element> model;
    size_t taken = 0, refused = 0;
    for (size_t step = 0; step < 2500; ++step) {
        const Element element = any_element(random)->element;
        const auto same = std::find(model.begin(), model.end(), element);
        if (random() % 2 == 0) {
            ASSERT_EQ(same != model.end(), run.remove(element)) << step;
            if (same != model.end())
                model.erase(same);
        } else {
            const bool fits = std::none_of(model.begin(), model.end(),
                                           [&element](const Element &other) { return overlap(element, other); });
            ASSERT_EQ(fits, run.add(element)) << step;
            if (fits)
                model.push_back(element);
            ++(fits ? taken : refused);
        }
        ASSERT_EQ(model.size(), run.size());
    }
    EXPECT_GT(taken, 100U);
    EXPECT_GT(refused, 100U);
}

TEST(Run, of_a_hundred_thousand_is_made_at_once)
{
    packet::Run run(mappable(rule_of("ipv4_src=10.0.0.1"))->shape);
    Element element = mappable(rule_of("ipv4_src=10.0.0.1"))->element;
    for (uint32_t number = 0; number < 100'000; ++number) {
        const Bytes address(number << 8U, 4);
        std::copy_n(address.data.begin(), 4, element.low.end() - 4);
        std::copy_n(address.data.begin(), 4, element.high.end() - 4);
        element.high.back() = static_cast<char>(number % 256);
        ASSERT_TRUE(run.add(element));
    }
    EXPECT_FALSE(run.add(element));
}

TEST(Lookup, finds_the_verdict_that_the_entries_have)
{
    if (!Testbed::missing().empty())
        GTEST_SKIP() << Testbed::missing();
    const std::vector<Rule> rules = {rule_of("ipv4_src=10.0.0.0/24 ipv4_dst=10.0.0.2 -> fwd=deny"),
                                     rule_of("ipv4_src=10.1.0.0/16 ipv4_dst=192.0.2.0/24 -> fwd=deny")};
    ASSERT_EQ("", Testbed::get().load_map(mappable(rules[0])->shape,
                                          "table netdev probe { map verdicts { type ipv4_addr . ipv4_addr : verdict; "
                                          "flags interval; counter; elements = { 10.0.0.0/24 . 10.0.0.2 : drop, "
                                          "10.1.0.0/16 . 192.0.2.0/24 : drop }; }; }"));
    for (const char *text : {"eth ip4 udp", "eth ip4(dst=10.0.0.3) udp", "eth tag ip4(src=10.1.9.9,dst=192.0.2.77) udp",
                             "eth ip4(src=10.2.0.1,dst=192.0.2.77) udp", "eth arp"}) {
        const Frame frame{.bytes = test::frame_of(text), .input = "t1", .output = ""};
        const Testbed::Seen seen = Testbed::get().send(frame);
        EXPECT_EQ("", Testbed::difference(frame, interpret(rules, frame), seen)) << text;
    }
    EXPECT_EQ("", Testbed::get().listing(false));
    EXPECT_EQ("", Testbed::get().listing(true));
}

} // namespace
} // namespace plx
