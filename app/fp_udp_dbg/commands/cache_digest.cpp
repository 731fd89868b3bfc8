// The debug command by which a tool finds out whether what is cached is what the store has: sums over an application's
// cached entries and applies, in 256 parts by the first byte of their keys' numbers (plx/digest.h), or those of a part,
// one by one. What stands under a key is here the identifier of its last write, which its record has as well; 0 of what
// was not written by this process.
#include "../../list.hpp"
#include "shell.hpp"

#include <cstring>
#include <plx/cache.h>
#include <plx/digest.h>
#include <plx/manager.h>

namespace plx::dbg {
namespace {

constexpr size_t part_count = 256;

struct walk {
    const char *app_type;
    int32_t part; // that is told one by one; -1: the sums are
    struct {
        uint64_t count, low, high;
    } sums[part_count];

    bool is(const char *type) const { return std::strncmp(type, app_type, FP_UDP_APP_TYPE_SIZE) == 0; }
    // Whether the record is of the part that is told.
    bool add(uint64_t key, uint64_t request)
    {
        auto &sum = sums[key >> 56U];
        ++sum.count;
        sum.low += plx_digest_low(key, request);
        sum.high += plx_digest_high(key, request);
        return static_cast<int32_t>(key >> 56U) == part;
    }
};

uint64_t with_name(uint64_t hash, const char *type)
{
    return plx_digest_text(hash, type, strnlen(type, FP_UDP_APP_TYPE_SIZE));
}

void add_ace(walk &to, const fp_udp_acl_info &acl, const fp_udp_ace_info &ace)
{
    const uint64_t key =
        plx_digest_number(plx_digest_number(with_name(PLX_DIGEST_ACE, acl.app_type), acl.acl_id), ace.sn);
    if (to.add(key, ace.uuid))
        std::printf("ace %u %llu %llu\n", acl.acl_id, static_cast<unsigned long long>(ace.sn),
                    static_cast<unsigned long long>(ace.uuid));
}

void add_apply(walk &to, const fp_udp_acl_info &acl, const fp_udp_apply_info &apply)
{
    uint64_t key =
        with_name(plx_digest_number(with_name(PLX_DIGEST_APPLY, apply.apply_type), acl.acl_id), acl.app_type);
    key = plx_digest_number(plx_digest_number(plx_digest_number(key, apply.phyid), apply.value_pri), apply.dir);
    if (to.add(key, apply.uuid))
        std::printf("apply %u %u %u %u %llu %.*s\n", acl.acl_id, apply.phyid, apply.value_pri, apply.dir,
                    static_cast<unsigned long long>(apply.uuid), FP_UDP_APP_TYPE_SIZE, acl.app_type);
}

int32_t add_acl(fp_udp_acl_node *node, void *arg)
{
    auto &to = *static_cast<walk *>(arg);
    if (to.is(node->acl.app_type))
        for (const fp_udp_ace_node &ace : elements<fp_udp_ace_node>(node->ace_list))
            add_ace(to, node->acl, ace.ace);
    for (const fp_udp_apply_node &apply : elements<fp_udp_apply_node>(node->apply_list))
        if (to.is(apply.apply.apply_type))
            add_apply(to, node->acl, apply.apply);
    return 0;
}

bool registered(const char *app_type)
{
    for (const char *own : regist_app_type)
        if (own != nullptr && std::strcmp(own, app_type) == 0)
            return true;
    return false;
}

} // namespace

int on_cache_digest(int argc, const ssat_value *argv)
{
    if (argc < 2 || argv == nullptr || argv[0].s == nullptr || !registered(argv[0].s))
        return FP_UDP_NOT_FOUND;
    walk all = {};
    all.app_type = argv[0].s;
    all.part = argv[1].d;
    (void)fp_udp_acl_node_traverse_op(add_acl, &all);
    for (size_t part = 0; part < part_count && all.part < 0; ++part)
        if (const auto &sum = all.sums[part]; sum.count != 0)
            std::printf("%zu %llu %llx %llx\n", part, static_cast<unsigned long long>(sum.count),
                        static_cast<unsigned long long>(sum.low), static_cast<unsigned long long>(sum.high));
    std::fflush(stdout);
    return FP_UDP_OK;
}

} // namespace plx::dbg
