// See tags.hpp.
#include "plane/nftables/tags.hpp"

#include "records/fnv.hpp"
#include <charconv>
#include <cstring>

namespace plx::plane::nftables {

namespace {

// nft(8) keeps a comment as type 0, and passes over types that it does not know.
constexpr uint8_t comment_type = 0;
constexpr uint8_t tag_type = 0x70;
constexpr size_t longest_chain_name = 120; // the kernel's bound is 127

// Numbers stand in network order, so that an image of a table means the same on every machine.
class Writer {
  public:
    explicit Writer(std::string &bytes) : bytes_(bytes) {}
    template <typename Number> void operator()(Number number)
    {
        for (size_t shift = sizeof number * 8; shift != 0;)
            bytes_.push_back(static_cast<char>(number >> (shift -= 8)));
    }
    void operator()(const std::string &text)
    {
        (*this)(static_cast<uint8_t>(text.size()));
        bytes_ += text;
    }

  private:
    std::string &bytes_;
};

class TagReader {
  public:
    explicit TagReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    template <typename Number> void operator()(Number &number)
    {
        number = 0;
        for (const uint8_t byte : take(sizeof number))
            number = static_cast<Number>(number << 8U | byte);
    }
    void operator()(std::string &text)
    {
        uint8_t size = 0;
        (*this)(size);
        const auto raw = take(size);
        text.assign(raw.begin(), raw.end());
    }
    bool whole() const { return whole_ && bytes_.empty(); }

  private:
    std::span<const uint8_t> take(size_t size)
    {
        whole_ = whole_ && size <= bytes_.size();
        if (!whole_)
            return {};
        const auto taken = bytes_.first(size);
        bytes_ = bytes_.subspan(size);
        return taken;
    }
    std::span<const uint8_t> bytes_;
    bool whole_ = true;
};

// The key's fields, then all others, in the same order for both ways.
void each_field(auto &tag, auto &&visit)
{
    visit(tag.request);
    visit(tag.fingerprint);
    visit(tag.priority);
    visit(tag.directions);
    visit(tag.rule);
    visit(tag.rules);
    visit(tag.page);
    visit(tag.made_by);
    visit(tag.interface);
    visit(tag.map);
    visit(tag.name);
}

void each_key_field(auto &key, auto &&visit)
{
    std::visit([&](auto &of) { std::apply([&](auto &...field) { (visit(field), ...); }, of.fields(of)); }, key);
}

bool make_key(size_t index, Key &key)
{
    switch (index) {
    case 0:
        key = AceKey();
        return true;
    case 1:
        key = ApplyKey();
        return true;
    case 3:
        key = PortOffKey();
        return true;
    default:
        return false;
    }
}

std::string comment_of(const Tag &tag)
{
    if (tag.purpose == Purpose::page)
        return "page " + std::to_string(tag.page);
    if (tag.purpose == Purpose::run)
        return "run " + std::to_string(tag.page);
    if (tag.purpose == Purpose::map)
        return "entries by " + tag.map;
    if (tag.purpose == Purpose::guard)
        return "frames with two tags";
    if (const auto *ace = std::get_if<AceKey>(&tag.key))
        return ace->app + '/' + std::to_string(ace->acl) + '/' + std::to_string(ace->sn) +
               (tag.name.empty() ? "" : ' ' + tag.name);
    if (const auto *apply = std::get_if<ApplyKey>(&tag.key))
        return apply->app + " applies " + apply->acl_app + '/' + std::to_string(apply->acl);
    return "port is off";
}

void put_part(std::string &bytes, uint8_t type, const std::string &part)
{
    bytes.push_back(static_cast<char>(type));
    bytes.push_back(static_cast<char>(part.size()));
    bytes += part;
}

bool plain(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
}

std::string escaped(const std::string &name)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char character : name) {
        if (plain(character)) {
            text += character;
            continue;
        }
        const auto byte = static_cast<uint8_t>(character);
        text += {'%', digits[byte >> 4U], digits[byte & 15U]};
    }
    return text;
}

std::optional<std::string> unescaped(std::string_view text)
{
    std::string name;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            name += text[at];
            continue;
        }
        uint8_t byte = 0;
        const char *digits = text.data() + at + 1;
        if (at + 2 >= text.size() || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
            return std::nullopt;
        name += static_cast<char>(byte);
        at += 2;
    }
    return name;
}

std::string take_part(std::string_view &text)
{
    const size_t end = std::min(text.find('.'), text.size());
    std::string part(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

std::optional<uint32_t> number_of(const std::string &text)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

std::string digest(const std::string &text)
{
    const uint64_t hash = fnv1a({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    char digits[17];
    snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

std::string apply_name(const ApplyKey &key)
{
    const std::string place = std::to_string(key.phyid) + '.' + std::to_string(key.priority) + '.';
    const std::string list = escaped(key.acl_app) + '.' + std::to_string(key.acl);
    if (key.app == key.acl_app && place.size() + list.size() < longest_chain_name)
        return place + list;
    return place + digest(key.app + '/' + list); // the application that applies would make it too long
}

// One of the parts of user data; empty when it is not there.
std::span<const uint8_t> part_of(std::span<const uint8_t> user_data, uint8_t type)
{
    while (user_data.size() >= 2 && user_data[0] != type)
        user_data = user_data.subspan(std::min<size_t>(user_data.size(), size_t(2) + user_data[1]));
    if (user_data.size() < 2 || user_data.size() < size_t(2) + user_data[1])
        return {};
    return user_data.subspan(2, user_data[1]);
}

void write_bytes(Writer &write, const packet::Bytes &bytes)
{
    write(std::string(bytes.data.begin(), bytes.data.begin() + bytes.size));
}

void write_source(Writer &write, const packet::Source &source)
{
    write(static_cast<uint8_t>(source.load));
    write(source.size);
    write(static_cast<uint8_t>(source.offset));
}

// Numbers that are none of ours are left to be found by whole().
class ShapeReader {
  public:
    explicit ShapeReader(TagReader &read) : read_(read) {}
    uint8_t number(uint8_t most)
    {
        uint8_t number = 0;
        read_(number);
        good_ = good_ && number <= most;
        return good_ ? number : 0;
    }
    packet::Source source()
    {
        const auto load = static_cast<packet::Load>(number(static_cast<uint8_t>(packet::Load::extension)));
        const uint8_t size = number(16);
        return {load, size, number(UINT8_MAX)};
    }
    packet::Bytes bytes()
    {
        std::string text;
        read_(text);
        good_ = good_ && text.size() <= 16;
        return packet::Bytes({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
    }
    packet::Test test()
    {
        packet::Test test;
        test.source = source();
        test.relation = static_cast<packet::Relation>(number(static_cast<uint8_t>(packet::Relation::none_of)));
        if (const uint8_t set = number(static_cast<uint8_t>(packet::constant_sets().size())); set != 0)
            test.set = &packet::constant_sets()[set - 1U];
        test.mask = bytes();
        test.value = bytes();
        test.last = bytes();
        return test;
    }
    bool good() const { return good_; }

  private:
    TagReader &read_;
    bool good_ = true;
};

} // namespace

std::string map_data_of(const MapTag &tag)
{
    std::string bytes, packed;
    Writer write(packed);
    write(static_cast<uint8_t>(tag.place.first));
    write(tag.place.second);
    write(static_cast<uint8_t>(tag.shape.fields.size()));
    for (const packet::Source &field : tag.shape.fields)
        write_source(write, field);
    write(static_cast<uint8_t>(tag.shape.guards.size()));
    for (const packet::Test &guard : tag.shape.guards) {
        write_source(write, guard.source);
        write(static_cast<uint8_t>(guard.relation));
        write(static_cast<uint8_t>(guard.set == nullptr ? 0 : guard.set - packet::constant_sets().data() + 1));
        for (const packet::Bytes *each : {&guard.mask, &guard.value, &guard.last})
            write_bytes(write, *each);
    }
    if (packed.size() <= UINT8_MAX)
        put_part(bytes, tag_type, packed);
    return bytes;
}

std::optional<MapTag> map_tag_of(std::span<const uint8_t> user_data)
{
    TagReader read(part_of(user_data, tag_type));
    ShapeReader shape(read);
    MapTag tag;
    tag.place.first = shape.number(UINT8_MAX);
    read(tag.place.second);
    size_t size = 0;
    for (uint8_t left = shape.number(UINT8_MAX); left > 0; --left)
        size += packet::padded(tag.shape.fields.emplace_back(shape.source()));
    for (uint8_t left = shape.number(UINT8_MAX); left > 0; --left)
        tag.shape.guards.push_back(shape.test());
    const bool good = read.whole() && shape.good() && size == tag.place.second.size() && size != 0;
    return good ? std::optional(std::move(tag)) : std::nullopt;
}

std::string user_data_of(const Tag &tag)
{
    std::string bytes, packed;
    packed.reserve(128);
    bytes.reserve(256);
    Writer write(packed);
    write(static_cast<uint8_t>(tag.purpose));
    write(static_cast<uint8_t>(tag.key.index()));
    write(static_cast<uint8_t>(tag.default_entry | tag.unless_default << 1 | tag.by_interface << 2));
    each_key_field(tag.key, write);
    each_field(tag, write);
    put_part(bytes, comment_type, comment_of(tag) + '\0');
    put_part(bytes, tag_type, packed);
    return bytes;
}

std::optional<Tag> tag_of(std::span<const uint8_t> user_data)
{
    TagReader read(part_of(user_data, tag_type));
    Tag tag;
    uint8_t purpose = 0, index = 0, flags = 0;
    read(purpose);
    read(index);
    read(flags);
    if (purpose < 1 || purpose > static_cast<uint8_t>(Purpose::map) || !make_key(index, tag.key))
        return std::nullopt;
    tag.purpose = static_cast<Purpose>(purpose);
    tag.default_entry = (flags & 1U) != 0;
    tag.unless_default = (flags & 2U) != 0;
    tag.by_interface = (flags & 4U) != 0;
    each_key_field(tag.key, read);
    each_field(tag, read);
    return read.whole() ? std::optional(std::move(tag)) : std::nullopt;
}

std::string head_name(const AclKey &acl)
{
    return "acl." + escaped(acl.app) + '.' + std::to_string(acl.acl);
}

std::string page_name(const AclKey &acl, uint32_t page)
{
    return head_name(acl) + '.' + std::to_string(page);
}

std::string map_name(const std::string &page, const std::string &map)
{
    return page + '.' + map;
}

std::string map_part(const packet::Shape &shape, const packet::Layers::Place &place)
{
    return std::to_string(place.first) + '.' + packet::mask_name(shape.fields, place.second);
}

std::string hook_name(const Key &key, bool out)
{
    const std::string side = out ? "out." : "in.";
    if (const auto *apply = std::get_if<ApplyKey>(&key))
        return side + apply_name(*apply);
    return side + "off." + std::to_string(std::get<PortOffKey>(key).phyid);
}

std::optional<ListName> list_name(std::string_view name)
{
    if (take_part(name) != "acl")
        return std::nullopt;
    auto app = unescaped(take_part(name));
    const auto acl = number_of(take_part(name));
    if (!app || !acl)
        return std::nullopt;
    ListName list{{std::move(*app), *acl}, std::nullopt};
    if (!name.empty() && !(list.page = number_of(std::string(name))))
        return std::nullopt;
    return list;
}

} // namespace plx::plane::nftables
