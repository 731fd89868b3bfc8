// See frames.hpp.
#include "packets/frames.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <map>
#include <span>
#include <sstream>
#include <stdexcept>

namespace plx::test {

namespace {

using Bytes = std::vector<uint8_t>;

struct Slot {
    std::string key;
    unsigned offset, size, shift = 0, bits = 0; // bits: 0: all of them
};

struct Layer {
    std::string name, bytes; // in hexadecimal
    std::string link;        // "ether", "protocol" or "port": what names the layer inside; "none"
    unsigned link_at;
    std::map<std::string, uint64_t> ids; // numbers by which an outer layer names this, by its link
    std::vector<Slot> slots;
    std::vector<std::string> inside; // what a random frame has there
};

std::vector<std::string> split(const std::string &text, char at)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, at);) {
        part.erase(0, part.find_first_not_of(' '));
        if (!part.empty() && part != "-")
            parts.push_back(part);
        else if (at == ';')
            parts.emplace_back();
    }
    return parts;
}

std::string join(const std::vector<std::string> &parts)
{
    std::string all;
    for (const std::string &part : parts)
        all += part;
    return all;
}

Layer layer_of(const std::string &line)
{
    const std::vector<std::string> columns = split(line, ';');
    const std::vector<std::string> link = split(columns.at(2), ':');
    Layer layer{columns[0],
                columns[1],
                link.at(0),
                link.size() == 2 ? static_cast<unsigned>(std::stoul(link[1])) : 0,
                {},
                {},
                split(columns.at(5), ' ')};
    for (const std::string &id : split(columns[3], ' '))
        layer.ids[split(id, '=').at(0)] = std::stoul(split(id, '=').at(1), nullptr, 0);
    for (const std::string &text : split(columns[4], ' ')) {
        const std::vector<std::string> parts = split(text, ':');
        const auto number = [&parts](size_t at) {
            return at < parts.size() ? static_cast<unsigned>(std::stoul(parts[at])) : 0;
        };
        layer.slots.push_back({parts.at(0), number(1), number(2), number(3), number(4)});
    }
    return layer;
}

const Layer *layer_named(const std::string &name)
{
    static const std::vector<Layer> layers = [] {
        std::vector<Layer> all;
        std::ifstream file(PLX_LAYERS);
        for (std::string line; std::getline(file, line);) {
            if (line[0] != '#')
                all.push_back(layer_of(line));
        }
        return all;
    }();
    const auto found =
        std::find_if(layers.begin(), layers.end(), [&name](const Layer &layer) { return layer.name == name; });
    return found == layers.end() ? nullptr : &*found;
}

void set_number(Bytes &bytes, const Slot &slot, uint64_t number)
{
    const uint64_t mask = (slot.bits == 0 ? ~0ULL : (1ULL << slot.bits) - 1) << slot.shift;
    for (unsigned at = slot.size; at-- > 0;) {
        const unsigned down = (slot.size - 1 - at) * 8;
        uint8_t &byte = bytes.at(slot.offset + at);
        byte = static_cast<uint8_t>((byte & ~(mask >> down)) | ((number << slot.shift & mask) >> down));
    }
}

void set_text(Bytes &bytes, const Slot &slot, const std::string &text)
{
    const Bytes address = address_of(text);
    if (address.empty())
        return set_number(bytes, slot, std::stoull(text, nullptr, 0));
    std::copy_n(address.begin(), std::min<size_t>(slot.size, address.size()), bytes.begin() + slot.offset);
}

uint16_t checksum(std::span<const uint8_t> header)
{
    uint32_t sum = 0;
    for (size_t at = 0; at + 1 < header.size(); at += 2)
        sum += static_cast<uint32_t>(header[at] << 8 | header[at + 1]);
    while (sum >> 16 != 0)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// A layer's text: its name, and what stands in its brackets.
struct Word {
    std::string name;
    std::vector<std::pair<std::string, std::string>> values;
    bool gives(const std::string &key) const
    {
        return std::any_of(values.begin(), values.end(), [&key](const auto &value) { return value.first == key; });
    }
};

Word word_of(const std::string &text)
{
    const size_t bracket = text.find('(');
    Word word{text.substr(0, bracket), {}};
    if (bracket == std::string::npos)
        return word;
    std::istringstream inside(text.substr(bracket + 1, text.size() - bracket - 2));
    for (std::string part; std::getline(inside, part, ',');) {
        const size_t equals = part.find('=');
        word.values.emplace_back(part.substr(0, equals), equals == std::string::npos ? "" : part.substr(equals + 1));
    }
    return word;
}

void set_unless_given(const Word &word, Bytes &bytes, const Slot &slot, uint64_t number)
{
    if (!word.gives(slot.key))
        set_number(bytes, slot, number);
}

Bytes with_layer(const Word &word, const Layer &layer, const Layer *inner, const Bytes &inside)
{
    Bytes bytes = unhex(layer.bytes);
    const unsigned link_size = layer.link == "protocol" ? 1 : 2;
    if (inner != nullptr && inner->ids.contains(layer.link))
        set_number(bytes, {"", layer.link_at, link_size}, inner->ids.at(layer.link));
    const size_t whole = bytes.size() + inside.size();
    if (layer.name == "eth" && inner == nullptr)
        set_number(bytes, {"", 12, 2}, inside.size());
    for (const auto &[key, text] : word.values) {
        const auto slot =
            std::find_if(layer.slots.begin(), layer.slots.end(), [&key = key](const Slot &s) { return s.key == key; });
        if (slot == layer.slots.end())
            throw std::invalid_argument(layer.name + " has no " + key);
        set_text(bytes, *slot, text);
    }
    if (layer.name == "udp")
        set_unless_given(word, bytes, {"len", 4, 2}, whole);
    if (layer.name == "ip6")
        set_unless_given(word, bytes, {"len", 4, 2}, inside.size());
    if (layer.name.starts_with("ip4")) {
        set_unless_given(word, bytes, {"len", 2, 2}, whole);
        set_unless_given(word, bytes, {"sum", 10, 2}, checksum(bytes));
    }
    bytes.insert(bytes.end(), inside.begin(), inside.end());
    return bytes;
}

template <typename Container> const auto &pick(std::mt19937 &random, const Container &from)
{
    return from[random() % std::size(from)];
}

std::string any_slot(std::mt19937 &random, const Slot &slot)
{
    const unsigned bits = slot.bits != 0 ? slot.bits : slot.size * 8;
    const std::string text = slot.size == 16                ? any_ipv6(random)
                             : slot.size == 6               ? any_mac(random)
                             : slot.size == 4 && bits == 32 ? any_ipv4(random)
                                                            : std::to_string(any_number(random, bits));
    return slot.key + '=' + text;
}

} // namespace

std::vector<uint8_t> address_of(const std::string &text)
{
    Bytes bytes(16);
    for (const auto &[family, size] : {std::pair(AF_INET, 4), std::pair(AF_INET6, 16)}) {
        bytes.resize(static_cast<size_t>(size));
        if (inet_pton(family, text.c_str(), bytes.data()) == 1)
            return bytes;
    }
    return std::count(text.begin(), text.end(), ':') == 5 ? unhex(join(split(text, ':'))) : Bytes();
}

std::vector<uint8_t> unhex(const std::string &text)
{
    Bytes bytes;
    for (size_t at = 0; at + 1 < text.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

std::vector<uint8_t> frame_of(const std::string &text)
{
    std::vector<Word> words;
    std::istringstream in(text);
    for (std::string part; in >> part;)
        words.push_back(word_of(part));
    Bytes bytes;
    size_t cut = 0;
    const Layer *inner = nullptr;
    for (auto word = words.rbegin(); word != words.rend(); ++word) {
        const Layer *layer = layer_named(word->name);
        if (word->name == "cut") {
            cut = std::stoul(word->values.at(0).first);
        } else if (word->name == "raw") {
            const Bytes raw = unhex(word->values.at(0).first);
            bytes.insert(bytes.begin(), raw.begin(), raw.end());
        } else if (layer == nullptr) {
            throw std::invalid_argument("no layer " + word->name);
        } else {
            bytes = with_layer(*word, *layer, inner, bytes);
        }
        inner = layer;
    }
    bytes.resize(bytes.size() - std::min(cut, bytes.size()));
    return bytes;
}

std::string any_frame(std::mt19937 &random)
{
    std::string text;
    const Layer *layer = layer_named("eth");
    for (size_t depth = 0; layer != nullptr && depth < 9; ++depth) {
        std::string values;
        for (const Slot &slot : layer->slots) {
            const bool is_link = layer->link != "none" && slot.offset == layer->link_at;
            const std::string &key = slot.key;
            const bool risky = is_link || key == "len" || key == "head" || key == "sum";
            if (random() % (risky ? 40 : 4) == 0)
                values += (values.empty() ? "" : ",") + any_slot(random, slot);
        }
        text += (depth == 0 ? "" : " ") + layer->name + (values.empty() ? "" : '(' + values + ')');
        const bool ends = layer->inside.empty() || random() % 12 == 0;
        const std::string next = ends ? "" : pick(random, layer->inside);
        layer = layer_named(next);
        if (layer == nullptr && !next.empty())
            text += ' ' + next;
    }
    return text + " raw(000102030405060708090a0b0c0d0e0f1011121314151617)" +
           (random() % 4 == 0 ? " cut(" + std::to_string(random() % 40) + ")" : "");
}

uint64_t any_number(std::mt19937 &random, unsigned bits)
{
    static constexpr uint64_t likely[] = {0,    0,    1,      1,      2,      3,      4,      5,    6,   7,
                                          8,    17,   47,     58,     64,     80,     100,    129,  443, 1025,
                                          3784, 4789, 0x0800, 0x0806, 0x8100, 0x86dd, 0xffff, ~0ULL};
    return pick(random, likely) & (bits >= 64 ? ~0ULL : (1ULL << bits) - 1);
}

const char *any_ipv4(std::mt19937 &random)
{
    static constexpr const char *all[] = {"10.0.0.1", "10.0.0.2", "10.1.2.3", "192.0.2.1", "255.255.255.255"};
    return pick(random, all);
}

const char *any_ipv6(std::mt19937 &random)
{
    static constexpr const char *all[] = {"2001:db8::1", "2001:db8::2", "2001:db8:1::1", "fe80::1", "ff02::1"};
    return pick(random, all);
}

const char *any_mac(std::mt19937 &random)
{
    static constexpr const char *all[] = {"02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:01:00:01",
                                          "ff:ff:ff:ff:ff:ff", "01:00:5e:00:00:01"};
    return pick(random, all);
}

} // namespace plx::test
