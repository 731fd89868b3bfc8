// See runs.hpp.
#include "plane/packet/runs.hpp"

#include <algorithm>
#include <bit>

namespace plx::plane::packet {

namespace {

constexpr size_t most_fields = 16;

size_t padded(const Source &source)
{
    return (source.size + size_t{3}) / 4 * 4;
}

void append(const Bytes &value, const Source &source, std::string &key)
{
    key.append(value.data.begin(), value.data.begin() + source.size);
    key.append(padded(source) - source.size, '\0');
}

// The mask's bits, from the first one set on to the end of its bytes, are not ones alone: it is no prefix.
bool has_gap(const Bytes &mask)
{
    bool ended = false;
    for (const uint8_t byte : mask.span()) {
        if ((ended && byte != 0) || std::countl_one(byte) != std::popcount(byte))
            return true;
        ended = byte != 0xff;
    }
    return false;
}

bool is_field(const Test &test)
{
    const Load load = test.source.load;
    if (load != Load::link && load != Load::network && load != Load::transport && load != Load::l4proto)
        return false;
    const bool anything =
        std::all_of(test.value.data.begin(), test.value.data.end(), [](uint8_t b) { return b == 0; }) &&
        std::count(test.last.data.begin(), test.last.data.end(), 0xff) == test.last.size;
    return (test.relation == Relation::equal && !has_gap(test.mask)) ||
           (test.relation == Relation::within && !anything);
}

void add_field(const Test &test, Mappable &into)
{
    Bytes last = test.relation == Relation::within ? test.last : test.value;
    for (size_t at = 0; at < test.mask.size; ++at)
        last.data[at] = static_cast<uint8_t>(last.data[at] | static_cast<uint8_t>(~test.mask.data[at]));
    into.shape.fields.push_back(test.source);
    append(test.value, test.source, into.element.low);
    append(last, test.source, into.element.high);
}

bool is_type(const Test &test)
{
    return test.source.load == Load::protocol && test.relation == Relation::equal && test.mask.size == 0;
}

} // namespace

std::optional<Mappable> mappable(const Rule &rule)
{
    const bool judges = rule.verdict == Verdict::accept || rule.verdict == Verdict::drop;
    if (!rule.actions.empty() || !rule.counted || rule.over_meter || rule.one_in != 0 || !judges)
        return std::nullopt;
    Mappable all{.shape = {}, .element = {{}, {}, rule.verdict}};
    const auto fields = std::count_if(rule.tests.begin(), rule.tests.end(), is_field);
    for (const Test &test : rule.tests) {
        // A key of two fields is looked up faster than one of a single interval.
        if (is_field(test) || (fields == 1 && is_type(test)))
            add_field(test, all);
        else
            all.shape.guards.push_back(test);
    }
    const bool fits = all.element.low.size() <= largest_key && all.shape.fields.size() <= most_fields;
    return fields != 0 && fits ? std::optional(std::move(all)) : std::nullopt;
}

bool Run::overlap(const Element &one, const Element &other) const
{
    size_t at = 0;
    for (const Source &field : shape_.fields) {
        const size_t size = padded(field);
        if (one.high.compare(at, size, other.low, at, size) < 0 || other.high.compare(at, size, one.low, at, size) < 0)
            return false;
        at += size;
    }
    return true;
}

Run::Bits Run::common_bits(const Element &element) const
{
    Bits all;
    size_t at = 0;
    for (const Source &field : shape_.fields) {
        uint8_t bits = 0;
        const size_t end = at + padded(field);
        for (; at < end; ++at) {
            const auto differ = static_cast<uint8_t>(element.low[at] ^ element.high[at]);
            bits = static_cast<uint8_t>(bits + std::countl_zero(differ));
            if (differ != 0)
                break;
        }
        at = end;
        all.push_back(bits);
    }
    return all;
}

// The first or the last value whose first bits are these.
std::string Run::block_of(const std::string &value, const Bits &bits, bool last) const
{
    std::string block = value;
    size_t at = 0;
    for (size_t field = 0; field < shape_.fields.size(); ++field) {
        const size_t size = padded(shape_.fields[field]);
        for (size_t byte = 0; byte < size; ++byte) {
            const int keep = std::clamp(static_cast<int>(bits[field]) - static_cast<int>(byte * 8), 0, 8);
            const auto free = static_cast<uint8_t>(0xffU >> static_cast<unsigned>(keep));
            const auto old = static_cast<uint8_t>(block[at + byte]);
            block[at + byte] = static_cast<char>(last ? old | free : old & static_cast<uint8_t>(~free));
        }
        at += size;
    }
    return block;
}

bool Run::fits(const Element &element) const
{
    const Bits own = common_bits(element);
    for (const auto &[bits, blocks] : blocks_) {
        // From the first block that the element's own block has or is in, to the last.
        Bits wider = bits;
        for (size_t at = 0; at < wider.size(); ++at)
            wider[at] = std::min(wider[at], own[at]);
        const auto first = blocks.lower_bound(block_of(element.low, wider, false));
        const auto last = blocks.upper_bound(block_of(element.high, wider, true));
        const auto in_the_way = [&](const auto &other) { return overlap(element, other.second); };
        if (std::any_of(first, last, in_the_way))
            return false;
    }
    return true;
}

bool Run::add(const Element &element)
{
    if (!fits(element))
        return false;
    const Bits bits = common_bits(element);
    blocks_[bits].emplace(block_of(element.low, bits, false), element);
    ++size_;
    return true;
}

bool Run::remove(const Element &element)
{
    const auto group = blocks_.find(common_bits(element));
    if (group == blocks_.end())
        return false;
    const auto [first, last] = group->second.equal_range(block_of(element.low, group->first, false));
    const auto found = std::find_if(first, last, [&element](const auto &other) { return other.second == element; });
    if (found == last)
        return false;
    group->second.erase(found);
    if (group->second.empty())
        blocks_.erase(group);
    --size_;
    return true;
}

} // namespace plx::plane::packet
