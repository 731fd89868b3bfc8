// Runs of entries that are one map, which says what they say one by one. Which can be, the transcripts tell.
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

bool overlap(const Element &one, const Element &other)
{
    for (size_t at = 0; at < one.key.size(); ++at)
        if (((one.key[at] ^ other.key[at]) & one.mask[at] & other.mask[at]) != 0)
            return false;
    return true;
}

// Prefixes, some with gaps, of few enough values that many overlap.
Element any_element(std::mt19937 &random)
{
    Element element;
    for (const uint32_t mask : {0xffff0000U << random() % 5, random() % 8 == 0 ? 0xff00ffU : 0xffffffffU}) {
        const packet::Bytes bits(mask, 4), value(random() % 32 << 16U & mask, 4);
        element.mask.append(bits.data.begin(), bits.data.begin() + 4);
        element.key.append(value.data.begin(), value.data.begin() + 4);
    }
    return element;
}

// Whatever the order in which they come: of two that overlap, the one before the other is asked before it.
TEST(Layers, keep_the_order_where_it_matters)
{
    std::mt19937 random(7);
    Layers layers({{Load::network, 4, 12}, {Load::network, 4, 16}});
    std::vector<std::unique_ptr<Item>> all;
    size_t taken = 0, moved = 0;
    for (size_t step = 0; step < 1500; ++step) {
        if (!all.empty() && random() % 3 == 0) {
            std::swap(all[random() % all.size()], all.back());
            layers.remove(*all.back());
            all.pop_back();
            continue;
        }
        auto item = std::make_unique<Item>(Item{{false, random() % 9, step}, any_element(random), 0});
        std::vector<Layers::Move> moves;
        std::map<Item *, uint32_t> old;
        for (const auto &each : all)
            old[each.get()] = each->layer;
        const bool fits = layers.insert(*item, moves);
        for (const Layers::Move &move : moves) {
            if (move.item != item.get()) {
                ASSERT_EQ(*move.from, std::exchange(old[move.item], *move.to));
            }
        }
        for (const auto &[each, layer] : old)
            ASSERT_EQ(layer, each->layer) << step;
        moved += moves.size() > 1 ? 1 : 0;
        taken += fits ? 1 : 0;
        if (fits)
            all.push_back(std::move(item));
        for (const auto &one : all) {
            if (fits && overlap(one->element, all.back()->element)) {
                ASSERT_EQ(one->position < all.back()->position, one->layer < all.back()->layer) << step;
            }
        }
    }
    for (const auto &each : all)
        layers.remove(*each);
    EXPECT_TRUE(layers.places().empty());
    EXPECT_GT(taken, 500U);
    EXPECT_GT(moved, 100U);
}

TEST(Lookup, finds_the_verdict_that_the_entries_have)
{
    if (!Testbed::missing().empty())
        GTEST_SKIP() << Testbed::missing();
    const std::vector<Rule> rules = {rule_of("ipv4_src=10.0.0.0/24 ipv4_dst=10.0.0.2 -> fwd=deny"),
                                     rule_of("ipv4_src=10.1.0.0/24 ipv4_dst=192.0.2.77 -> fwd=deny")};
    ASSERT_EQ("",
              Testbed::get().load_map(*mappable(rules[0]), "table netdev probe { map verdicts { type ipv4_addr . "
                                                           "ipv4_addr : verdict; counter; elements = { 10.0.0.0 . "
                                                           "10.0.0.2 : drop, 10.1.0.0 . 192.0.2.77 : drop }; }; }"));
    for (const char *text : {"eth ip4 udp", "eth ip4(dst=10.0.0.3) udp", "eth tag ip4(src=10.1.0.9,dst=192.0.2.77) udp",
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
