// See runs.hpp.
#include "plane/packet/runs.hpp"

#include <algorithm>
#include <bit>
#include <set>

namespace plx::plane::packet {

namespace {

constexpr size_t most_fields = 8;
constexpr uint32_t most_layers = 8;
constexpr size_t most_maps = 64;
// Whoever overlaps more than these is not looked up: each insertion has its bound.
constexpr size_t most_looks = 1024;
constexpr size_t most_moves = 128;

void append(const Bytes &value, const Source &source, std::string &key)
{
    key.append(value.data.begin(), value.data.begin() + source.size);
    key.append(padded(source) - source.size, '\0');
}

// Sizes that nft(8) can take a key apart by.
bool has_shown_size(const Source &source)
{
    return source.size == 1 || source.size == 2 || source.size == 4 || source.size == 6 || source.size == 16;
}

bool is_field(const Test &test)
{
    const Load load = test.source.load;
    const bool loads = load == Load::link || load == Load::network || load == Load::transport || load == Load::l4proto;
    return loads && test.relation == Relation::equal && has_shown_size(test.source);
}

void add_field(const Test &test, Mappable &into)
{
    into.shape.fields.push_back(test.source);
    append(test.value, test.source, into.element.key);
    append(test.mask.size != 0 ? test.mask : ones(test.source.size), test.source, into.element.mask);
}

bool overlap(const Element &one, const Element &other)
{
    for (size_t at = 0; at < one.key.size(); ++at)
        if (((one.key[at] ^ other.key[at]) & one.mask[at] & other.mask[at]) != 0)
            return false;
    return true;
}

uint8_t leading_ones(std::string_view mask)
{
    uint8_t bits = 0;
    for (const char each : mask) {
        const auto byte = static_cast<uint8_t>(each);
        bits = static_cast<uint8_t>(bits + std::countl_one(byte));
        if (byte != 0xff)
            break;
    }
    return bits;
}

std::string field_name(std::string_view mask)
{
    const uint8_t bits = leading_ones(mask);
    int set = 0;
    for (const char byte : mask)
        set += std::popcount(static_cast<uint8_t>(byte));
    if (set == bits)
        return std::to_string(bits);
    std::string text = "x";
    for (const char byte : mask)
        for (const unsigned shift : {4U, 0U})
            text += "0123456789abcdef"[static_cast<uint8_t>(byte) >> shift & 15U];
    return text;
}

} // namespace

size_t padded(const Source &field)
{
    return (field.size + size_t{3}) / 4 * 4;
}

std::string mask_name(std::span<const Source> fields, const std::string &mask)
{
    std::string name;
    size_t at = 0;
    for (const Source &field : fields) {
        name += (name.empty() ? "" : "-") + field_name(std::string_view(mask).substr(at, field.size));
        at += padded(field);
    }
    return name;
}

std::optional<Mappable> mappable(const Rule &rule)
{
    const bool judges = rule.verdict == Verdict::accept || rule.verdict == Verdict::drop;
    if (!rule.actions.empty() || !rule.counted || !rule.over_meter.empty() || rule.one_in != 0 || !judges)
        return std::nullopt;
    Mappable all{.shape = {}, .element = {{}, {}, rule.verdict}};
    for (const Test &test : rule.tests) {
        if (is_field(test))
            add_field(test, all);
        else
            all.shape.guards.push_back(test);
    }
    const size_t fields = all.shape.fields.size();
    const bool fits = fields != 0 && fields <= most_fields && all.element.key.size() <= largest_key;
    return fits ? std::optional(std::move(all)) : std::nullopt;
}

// ---- layers ---------------------------------------------------------------------------------------------------------

Layers::Bits Layers::prefix_bits(const std::string &mask) const
{
    Bits all;
    size_t at = 0;
    for (const Source &field : fields_) {
        all.push_back(leading_ones(std::string_view(mask).substr(at, field.size)));
        at += padded(field);
    }
    return all;
}

// The first or the last key that has the bits in common which both masks begin with.
std::string Layers::edge(const std::string &key, const Bits &one, const Bits &other, bool last) const
{
    std::string result = key;
    size_t at = 0;
    for (size_t field = 0; field < fields_.size(); ++field) {
        const int bits = std::min(one[field], other[field]);
        const size_t size = padded(fields_[field]);
        for (size_t byte = 0; byte < size; ++byte) {
            const int keep = std::clamp(bits - static_cast<int>(byte * 8), 0, 8);
            const auto free = static_cast<uint8_t>(0xffU >> static_cast<unsigned>(keep));
            const auto old = static_cast<uint8_t>(result[at + byte]);
            result[at + byte] = static_cast<char>(last ? old | free : old & static_cast<uint8_t>(~free));
        }
        at += size;
    }
    return result;
}

// False: too many to look at.
bool Layers::find_in(const Map &map, const Place &place, const Item &item, const Bits &bits, Found &found) const
{
    if (place.second == item.element.mask) {
        if (const auto same = map.items.find(item.element.key); same != map.items.end() && same->second != &item)
            found.items.push_back(same->second);
        return true;
    }
    const std::string last = edge(item.element.key, map.bits, bits, true);
    for (auto at = map.items.lower_bound(edge(item.element.key, map.bits, bits, false));
         at != map.items.end() && at->first <= last; ++at) {
        if (++found.looks > most_looks)
            return false;
        if (at->second != &item && overlap(at->second->element, item.element))
            found.items.push_back(at->second);
    }
    return true;
}

bool Layers::find(const Item &item, Found &found) const
{
    const Bits bits = prefix_bits(item.element.mask);
    return std::all_of(maps_.begin(), maps_.end(),
                       [&](const auto &map) { return find_in(map.second, map.first, item, bits, found); });
}

// Those that stand behind an item in the list and overlap it, or one of them; and the layer that the item comes to.
bool Layers::gather(Item &item, std::vector<Item *> &behind, uint32_t &layer) const
{
    std::set<const Item *> seen;
    Found found;
    layer = 0;
    for (size_t at = 0; at <= behind.size(); ++at) {
        const Item &of = at == 0 ? item : *behind[at - 1];
        found.items.clear();
        if (!find(of, found))
            return false;
        for (Item *other : found.items) {
            if (at == 0 && other->position < item.position)
                layer = std::max(layer, other->layer + 1);
            if (of.position < other->position && seen.insert(other).second)
                behind.push_back(other);
        }
        if (behind.size() > most_moves)
            return false;
    }
    return layer < most_layers;
}

bool Layers::insert(Item &item, std::vector<Move> &moves)
{
    std::vector<Item *> behind;
    uint32_t layer = 0;
    if (!gather(item, behind, layer))
        return false;
    const bool another = !maps_.contains({layer, item.element.mask});
    if (another && maps_.size() + 1 + behind.size() > most_maps)
        return false;
    if (!behind.empty())
        return insert_behind(item, std::move(behind), moves);
    put(item, layer);
    moves.push_back({&item, std::nullopt, layer});
    return true;
}

// All of them are put in again, in the order of the list: each behind what is there and overlaps it.
bool Layers::insert_behind(Item &item, std::vector<Item *> behind, std::vector<Move> &moves)
{
    std::map<Item *, uint32_t> old;
    for (Item *each : behind) {
        old[each] = each->layer;
        remove(*each);
    }
    behind.push_back(&item);
    std::sort(behind.begin(), behind.end(),
              [](const Item *one, const Item *other) { return one->position < other->position; });
    size_t done = 0;
    for (; done < behind.size(); ++done) {
        std::vector<Item *> none;
        uint32_t layer = 0;
        if (!gather(*behind[done], none, layer))
            break;
        put(*behind[done], layer);
    }
    const bool all = done == behind.size();
    for (size_t at = 0; at < done && !all; ++at)
        remove(*behind[at]);
    for (const auto &[each, layer] : old) {
        if (!all)
            put(*each, layer);
        else if (each->layer != layer)
            moves.push_back({each, layer, each->layer});
    }
    if (all)
        moves.push_back({&item, std::nullopt, item.layer});
    return all;
}

void Layers::remove(Item &item)
{
    const auto map = maps_.find({item.layer, item.element.mask});
    map->second.items.erase(item.element.key);
    if (map->second.items.empty())
        maps_.erase(map);
}

void Layers::put(Item &item, uint32_t layer)
{
    item.layer = layer;
    Map &map = maps_[{layer, item.element.mask}];
    if (map.items.empty())
        map.bits = prefix_bits(item.element.mask);
    map.items[item.element.key] = &item;
}

std::vector<Layers::Place> Layers::places() const
{
    std::vector<Place> all;
    for (const auto &[place, map] : maps_)
        all.push_back(place);
    return all;
}

} // namespace plx::plane::packet
