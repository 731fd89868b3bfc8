// See digest.hpp.
#include "records/digest.hpp"

#include <bit>
#include <type_traits>

namespace plx {

namespace {

// Every bit of the number has a say in every bit of the result.
uint64_t stir(uint64_t number)
{
    number = (number ^ number >> 30U) * 0xbf58476d1ce4e5b9U;
    number = (number ^ number >> 27U) * 0x94d049bb133111ebU;
    return number ^ number >> 31U;
}

uint64_t stir(uint64_t hash, uint64_t number)
{
    return stir((hash ^ number) + 0x9e3779b97f4a7c15U);
}

// Eight characters at a time, the first in the lowest bits, and the length.
uint64_t stir(uint64_t hash, const std::string &text)
{
    uint64_t word = 0;
    unsigned bits = 0;
    for (const char c : text) {
        word |= static_cast<uint64_t>(static_cast<unsigned char>(c)) << bits;
        bits += 8;
        if (bits == 64) {
            hash = stir(hash, word);
            word = bits = 0;
        }
    }
    return stir(stir(hash, word), text.size());
}

uint64_t low_sum(uint64_t key, uint64_t fingerprint)
{
    return stir(key, fingerprint);
}

uint64_t high_sum(uint64_t key, uint64_t fingerprint)
{
    return stir(stir(std::rotl(fingerprint, 32)), key);
}

std::string ways(const ApplyKey &apply)
{
    const std::string way = apply.direction == 0   ? "in"
                            : apply.direction == 1 ? "out"
                                                   : "direction " + std::to_string(apply.direction);
    return " on port " + std::to_string(apply.phyid) + ' ' + way;
}

struct Described {
    std::string operator()(const AceKey &ace) const
    {
        return "acl " + std::to_string(ace.acl) + " sn " + std::to_string(ace.sn);
    }
    std::string operator()(const ApplyKey &apply) const
    {
        return "acl " + std::to_string(apply.acl) + (apply.acl_app == apply.app ? "" : " of " + apply.acl_app) +
               ways(apply);
    }
    std::string operator()(const PortBindKey &bind) const
    {
        return "class " + std::to_string(bind.acl_cls) + " bound to port " + std::to_string(bind.phyid);
    }
    std::string operator()(const PortOffKey &off) const { return "port " + std::to_string(off.phyid) + " off"; }
    std::string operator()(const UplinkKey &uplink) const { return "uplink " + std::to_string(uplink.phyid); }
    std::string operator()(const SviRouterKey &) const { return "svi router"; }
};

} // namespace

uint64_t digest_of(const Key &key)
{
    uint64_t hash = key.index();
    std::visit(
        [&hash]<typename KeyType>(const KeyType &typed) {
            std::apply([&hash](const auto &...field) { ((hash = stir(hash, field)), ...); }, KeyType::fields(typed));
        },
        key);
    return hash;
}

void Digest::add(uint64_t key, uint64_t fingerprint)
{
    ++count;
    lo += low_sum(key, fingerprint);
    hi += high_sum(key, fingerprint);
}

void Digest::remove(uint64_t key, uint64_t fingerprint)
{
    --count;
    lo -= low_sum(key, fingerprint);
    hi -= high_sum(key, fingerprint);
}

std::string described(const Key &key)
{
    return std::visit(Described(), key);
}

} // namespace plx
