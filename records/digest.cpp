// See digest.hpp.
#include "records/digest.hpp"

#include <plx/digest.h>
#include <type_traits>

namespace plx {

namespace {

uint64_t stir(uint64_t hash, uint64_t number)
{
    return plx_digest_number(hash, number);
}

uint64_t stir(uint64_t hash, const std::string &text)
{
    return plx_digest_text(hash, text.data(), text.size());
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
    lo += plx_digest_low(key, fingerprint);
    hi += plx_digest_high(key, fingerprint);
}

void Digest::remove(uint64_t key, uint64_t fingerprint)
{
    --count;
    lo -= plx_digest_low(key, fingerprint);
    hi -= plx_digest_high(key, fingerprint);
}

std::string described(const Key &key)
{
    return std::visit(Described(), key);
}

} // namespace plx
