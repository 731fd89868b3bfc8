// See knowledge.hpp.
#include "explain/knowledge.hpp"

#include <algorithm>

namespace plx::tool {

using namespace plane::packet;

namespace {

constexpr Source ipv4_protocol{Load::network, 1, 9};
constexpr unsigned link_size = 14, ipv4_size = 20, ipv6_size = 40;

bool is_payload(Load load)
{
    return load == Load::link || load == Load::network || load == Load::transport;
}

uint8_t mask_byte(const Bytes &mask, size_t at)
{
    return mask.size == 0 ? 0xff : mask.data[at];
}

Relation opposite(Relation relation)
{
    switch (relation) {
    case Relation::equal:
        return Relation::different;
    case Relation::different:
        return Relation::equal;
    case Relation::within:
        return Relation::outside;
    case Relation::outside:
        return Relation::within;
    case Relation::one_of:
        return Relation::none_of;
    case Relation::none_of:
        return Relation::one_of;
    }
    return relation;
}

bool whole(const Bytes &mask)
{
    return std::all_of(mask.data.begin(), mask.data.begin() + mask.size, [](uint8_t byte) { return byte == 0xff; });
}

} // namespace

Knowledge::Knowledge(std::span<const Test> tests) : tests_(tests.begin(), tests.end())
{
    for (const Test &test : tests_) {
        reach(test.source.load, unsigned{test.source.offset} + test.source.size);
        if (test.relation == Relation::equal)
            learn(test);
    }
    learn_linked();
}

void Knowledge::learn(const Test &test)
{
    for (uint8_t at = 0; at < test.source.size; ++at) {
        if (const uint8_t mask = mask_byte(test.mask, at); mask != 0)
            facts_.push_back({test.source.load, static_cast<uint16_t>(test.source.offset + at), mask,
                              static_cast<uint8_t>(test.value.data[at] & mask)});
    }
}

void Knowledge::reach(Load load, unsigned end)
{
    unsigned &known = ends_[static_cast<size_t>(load)];
    known = std::max(known, end);
}

// The protocol in an IPv4 header is that of its transport header; who has a transport header has a whole header.
void Knowledge::learn_linked()
{
    if (ends_[static_cast<size_t>(Load::transport)] != 0)
        reach(Load::l4proto, 1);
    if (ends_[static_cast<size_t>(Load::protocol)] != 0 || ends_[static_cast<size_t>(Load::network)] != 0)
        reach(Load::link, link_size);
    if (ends_[static_cast<size_t>(Load::l4proto)] != 0)
        reach(Load::protocol, 2);
    const auto type = bits(protocol, {});
    const bool ipv4 = type == Bytes(ipv4_type, 2);
    if (ends_[static_cast<size_t>(Load::l4proto)] != 0 && type)
        reach(Load::network, ipv4 ? ipv4_size : type == Bytes(ipv6_type, 2) ? ipv6_size : 0);
    if (!ipv4)
        return;
    const Partly inside = partly(ipv4_protocol);
    const Partly behind = partly(l4proto);
    learn({.source = l4proto, .mask = inside.mask, .value = inside.low});
    learn({.source = ipv4_protocol, .mask = behind.mask, .value = behind.low});
}

bool Knowledge::present(const Source &source) const
{
    if (source.load == Load::mark || source.load == Load::input || source.load == Load::output)
        return true;
    const unsigned end = ends_[static_cast<size_t>(source.load)];
    return is_payload(source.load) ? end >= unsigned{source.offset} + source.size : end != 0;
}

Knowledge::Partly Knowledge::partly(const Source &source) const
{
    Partly known;
    known.mask.size = known.low.size = known.high.size = source.size;
    for (const Fact &fact : facts_) {
        const int at = int{fact.offset} - source.offset;
        if (fact.load != source.load || at < 0 || at >= source.size)
            continue;
        known.mask.data[static_cast<size_t>(at)] |= fact.mask;
        known.low.data[static_cast<size_t>(at)] |= fact.value;
    }
    for (size_t at = 0; at < source.size; ++at)
        known.high.data[at] = static_cast<uint8_t>(known.low.data[at] | static_cast<uint8_t>(~known.mask.data[at]));
    return known;
}

std::optional<Bytes> Knowledge::bits(const Source &source, const Bytes &mask) const
{
    if (!present(source))
        return std::nullopt;
    Partly known = partly(source);
    for (size_t at = 0; at < source.size; ++at) {
        const uint8_t wanted = mask_byte(mask, at);
        if ((known.mask.data[at] & wanted) != wanted)
            return std::nullopt;
        known.low.data[at] &= wanted;
    }
    return known.low;
}

// A known test of the source, or its known bits, leave no room for the value.
bool Knowledge::value_excluded(const Source &source, const Bytes &value) const
{
    const Partly known = partly(source);
    for (size_t at = 0; at < source.size; ++at) {
        if (((known.low.data[at] ^ value.data[at]) & known.mask.data[at]) != 0)
            return true;
    }
    return std::any_of(tests_.begin(), tests_.end(),
                       [&](const Test &other) { return other.source == source && !holds(other, value); });
}

bool Knowledge::set_excluded(const Test &test) const
{
    return std::all_of(test.set->values.begin(), test.set->values.end(),
                       [&](uint32_t value) { return value_excluded(test.source, Bytes(value, test.set->size)); });
}

bool Knowledge::stated(const Test &test) const
{
    return std::find(tests_.begin(), tests_.end(), test) != tests_.end();
}

Truth Knowledge::judge(const Test &test) const
{
    if (stated(test))
        return Truth::yes;
    Test contrary = test;
    contrary.relation = opposite(test.relation);
    if (stated(contrary))
        return Truth::no;
    const Truth truth = compare(test, partly(test.source));
    return truth == Truth::yes && !present(test.source) ? Truth::depends : truth;
}

Truth Knowledge::compare_value(const Test &test, const Partly &known) const
{
    bool all = true;
    for (size_t at = 0; at < test.source.size; ++at) {
        const uint8_t wanted = mask_byte(test.mask, at);
        if (((known.low.data[at] ^ test.value.data[at]) & known.mask.data[at] & wanted) != 0)
            return Truth::no;
        all = all && (known.mask.data[at] & wanted) == wanted;
    }
    if (all)
        return Truth::yes;
    return whole(test.mask) && value_excluded(test.source, test.value) ? Truth::no : Truth::depends;
}

Truth Knowledge::compare_range(const Test &test, const Partly &known) const
{
    Bytes low = known.low, high = known.high;
    for (const Test &other : tests_) {
        if (other.source == test.source && other.relation == Relation::within) {
            low = std::max(low, other.value);
            high = std::min(high, other.last);
        }
    }
    if (test.value <= low && high <= test.last)
        return Truth::yes;
    return high < test.value || test.last < low ? Truth::no : Truth::depends;
}

Truth Knowledge::compare(const Test &test, const Partly &known) const
{
    const auto negated = [this, &known](Test other) {
        other.relation = opposite(other.relation);
        const Truth truth = compare(other, known);
        return truth == Truth::yes ? Truth::no : truth == Truth::no ? Truth::yes : Truth::depends;
    };
    switch (test.relation) {
    case Relation::equal:
        return compare_value(test, known);
    case Relation::within:
        return compare_range(test, known);
    case Relation::one_of:
        if (const auto value = bits(test.source, {}))
            return holds(test, *value) ? Truth::yes : Truth::no;
        return set_excluded(test) ? Truth::no : Truth::depends;
    case Relation::different:
    case Relation::outside:
    case Relation::none_of:
        return negated(test);
    }
    return Truth::depends;
}

Truth Knowledge::judge(std::span<const Test> tests) const
{
    Truth all = Truth::yes;
    for (const Test &test : tests)
        all = std::min(all, judge(test));
    return all;
}

} // namespace plx::tool
