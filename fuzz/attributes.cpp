// Attribute buffers of any content through copy, push and read-back. A buffer's block ends where its length says, so
// that a sanitizer sees a walk beyond it. What a copy must hold is worked out here a second time, from the description.
#include "library.hpp"

#include <support/keyed.h>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;
using owned_ace = std::unique_ptr<fp_udp_ace, void (*)(fp_udp_ace *)>;

constexpr uint64_t sn = 7;
constexpr uint32_t fwd = 0x202; // the forwarding action's type word

bytes any_block(fuzz::input &in)
{
    const auto beyond =
        in.below(16) == 0 ? in.number<uint32_t>() % 100'000 : 0; // zeros behind what the input spells out
    bytes block;
    const auto append = [&block](const void *data, size_t size) {
        block.insert(block.end(), static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + size);
    };
    while (!in.done() && in.chance()) { // well-formed, if nothing lies about its length
        const uint32_t type = in.chance() ? fwd : in.number<uint32_t>();
        const std::string value = in.text();
        const uint32_t len = in.below(8) == 0 ? in.number<uint32_t>() : static_cast<uint32_t>(value.size());
        append(&type, sizeof type);
        append(&len, sizeof len);
        append(value.data(), value.size());
    }
    const std::string raw = in.rest();
    append(raw.data(), raw.size());
    block.resize(block.size() + beyond);
    return block;
}

// An entry whose attributes are `block`, in a buffer without a byte more.
owned_ace make_ace(fp_udp_mgr &mgr, const bytes &block)
{
    owned_ace ace(mgr.alloc_ace(sn, 1), mgr.free_ace);
    auto *tlv = static_cast<fp_udp_ace_tlv *>(malloc(offsetof(fp_udp_ace_tlv, data) + block.size()));
    memcpy(static_cast<void *>(tlv), ace->tlv, offsetof(fp_udp_ace_tlv, data));
    tlv->len = static_cast<uint16_t>(block.size());
    std::copy(block.begin(), block.end(), tlv->data);
    free(std::exchange(ace->tlv, tlv));
    return ace;
}

bytes held(const fp_udp_ace &ace)
{
    return {ace.tlv->data, ace.tlv->data + ace.tlv->len};
}

// Every byte that the length speaks of is there to be read.
void walk(const fp_udp_ace &ace)
{
    fuzz::require(ace.tlv == nullptr || held(ace).size() == ace.tlv->len, "a buffer holds what its length says");
}

struct without_fwd {
    bytes kept;
    int zero = -1; // of the last forwarding action: its value is 0; -1 without one
};

without_fwd strip(const bytes &block)
{
    without_fwd result;
    size_t at = 0;
    while (at < block.size()) {
        uint32_t header[2] = {};
        const size_t head = std::min(block.size() - at, sizeof header);
        memcpy(header, &block[at], head);
        const size_t value = at + head;
        const size_t end = value + std::min<size_t>(header[1], block.size() - value);
        if (header[0] == fwd)
            result.zero = end > value && block[value] == 0 ? 1 : 0;
        else
            result.kept.insert(result.kept.end(), block.begin() + static_cast<long>(at),
                               block.begin() + static_cast<long>(end));
        at = end;
    }
    result.kept.resize(static_cast<uint16_t>(block.size() - 9));
    return result;
}

void push_all(fp_udp_ace &ace, fuzz::input in)
{
    while (!in.done() && ace.tlv != nullptr) {
        const char *names[] = {"fwd", "sip", "dip", "no_such_name", "name_of_seventeen", "name_of_18_letters"};
        const char *name = in.pick(names);
        const std::string value = in.bytes(FP_UDP_ATTR_VALUE_MAX);
        fp_udp_attr attr{};
        ace.tlv->construct(&attr, name, in.below(4), reinterpret_cast<const uint8_t *>(value.data()),
                           in.chance() ? static_cast<int32_t>(value.size()) : in.number<int16_t>() & ~0xff);
        if (in.chance())
            memset(attr.name, 'x', sizeof attr.name);
        ace.tlv->push(&ace.tlv, attr);
        walk(ace);
    }
}

void copy(fp_udp_mgr &mgr, const bytes &block, fuzz::input in)
{
    const owned_ace old = make_ace(mgr, block);
    const owned_ace whole(mgr.copy_ace(old.get(), 1, nullptr), mgr.free_ace);
    fuzz::require(held(*whole) == block, "a whole copy holds every attribute");
    uint8_t zero = 7;
    const owned_ace part(mgr.copy_ace(old.get(), 0, &zero), mgr.free_ace);
    const without_fwd expected = strip(block);
    fuzz::require(held(*part) == expected.kept, "a copy holds all but the forwarding action");
    fuzz::require(zero == (expected.zero < 0 ? 7 : expected.zero), "a copy tells of the action that it leaves out");
    const owned_ace untold(mgr.copy_ace(old.get(), 0, nullptr), mgr.free_ace);
    fuzz::require(held(*untold) == expected.kept, "nobody needs to be told");
    push_all(*part, in);
    push_all(*whole, in);
}

void read_back(fp_udp_mgr &mgr, const std::string &packed)
{
    const fp_udp_acl_key key = {"my_app", 1};
    fake::store.records["8 ace[my_app,1,7]"] = packed;
    const owned_ace ace(mgr.get_ace(&fuzz::context, &key, sn), mgr.free_ace);
    if (ace != nullptr)
        walk(*ace);
}

void read_back(fp_udp_mgr &mgr, const bytes &block)
{
    keyed<SPolicy__Ace, SPolicy__AceKey, s_policy__ace__descriptor> stored;
    stored.key.t_app_type = const_cast<char *>("my_app"), stored.key.acl_id = 1, stored.key.sn = sn;
    stored.record.value = {block.size(), const_cast<uint8_t *>(block.data())};
    fake::store.put(8, stored.record.base);
    const fp_udp_acl_key acl = {"my_app", 1};
    const owned_ace ace(mgr.get_ace(&fuzz::context, &acl, sn), mgr.free_ace);
    fuzz::require(ace != nullptr, "a stored ACE is read back");
    fuzz::require(ace->tlv->len == static_cast<uint16_t>(block.size()), "its length is the stored one");
    fuzz::require(std::equal(ace->tlv->data, ace->tlv->data + ace->tlv->len, block.begin()), "and so is its content");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fp_udp_mgr &mgr = fuzz::fresh_library({});
    fuzz::input in(data, size);
    const fuzz::input again = in;
    read_back(mgr, fuzz::input(in).rest());
    bytes block = any_block(in);
    read_back(mgr, block);
    block.resize(std::min<size_t>(block.size(), UINT16_MAX));
    copy(mgr, block, again);
    return 0;
}
