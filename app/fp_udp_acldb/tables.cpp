// The three node tables: what their keys are, and the exported names of each family.
//
// Notices name the first difference found. Each kind has its own words for it, which log readers match.
#include "tables.hpp"

#include "area.hpp"
#include "word_hash.hpp"

#include <iterator>
#include <plx/cache.h>

namespace plx::acldb {
namespace {

// Equal in all of their bytes, as the fields of equal names nearly always are: compared as words, without a call.
inline bool same_bytes(const char (&a)[FP_UDP_APP_TYPE_SIZE], const char (&b)[FP_UDP_APP_TYPE_SIZE])
{
    uint64_t x[FP_UDP_APP_TYPE_SIZE / sizeof(uint64_t)], y[std::size(x)], difference = 0;
    std::memcpy(x, a, sizeof x);
    std::memcpy(y, b, sizeof y);
    for (size_t i = 0; i < std::size(x); ++i)
        difference |= x[i] ^ y[i];
    return difference == 0;
}

// 0 for equal names, 1 for different ones. Fields without a terminator are compared in their 32 bytes.
int32_t fp_udp_app_type_cmp(const char (&a)[FP_UDP_APP_TYPE_SIZE], const char (&b)[FP_UDP_APP_TYPE_SIZE])
{
    if (same_bytes(a, b))
        return 0;
    const size_t length = strnlen(a, sizeof a);
    if (length != strnlen(b, sizeof b)) {
        report<Notice>("NOT EQUAL");
        return 1;
    }
    if (std::memcmp(a, b, length) != 0) {
        report<Notice>("APP_TYPE DO NOT EQUAL.");
        return 1;
    }
    return 0;
}

int32_t fp_udp_acl_node_key_cmp(const fp_udp_acl_node &a, const fp_udp_acl_node &b)
{
    if (a.acl.acl_id != b.acl.acl_id) {
        report<Notice>("NOT EQUAL");
        return 0;
    }
    if (fp_udp_app_type_cmp(a.acl.app_type, b.acl.app_type) != 0) {
        report<Notice>("APP_TYPE NOT EQUAL");
        return 0;
    }
    return 1;
}

int32_t fp_udp_ace_node_key_cmp(const fp_udp_ace_node &a, const fp_udp_ace_node &b)
{
    if (a.acl.acl_id != b.acl.acl_id) {
        report<Notice>("ACL ID DO NOT EQUAL.");
        return 0;
    }
    if (a.ace.sn != b.ace.sn) {
        report<Notice>("SN DO NOT EQUAL.");
        return 0;
    }
    if (fp_udp_app_type_cmp(a.acl.app_type, b.acl.app_type) != 0) {
        report<Notice>("APP_TYPE NOT EQUAL");
        return 0;
    }
    return 1;
}

int32_t fp_udp_apply_node_key_cmp(const fp_udp_apply_node &a, const fp_udp_apply_node &b)
{
    if (a.apply.phyid != b.apply.phyid) {
        report<Notice>("PHYID DO NOT EQUAL.");
        return 0;
    }
    if (a.apply.pri != b.apply.pri) {
        report<Notice>("PRIORITY DO NOT EQUAL.");
        return 0;
    }
    if (a.acl.acl_id != b.acl.acl_id) {
        report<Notice>("ACL ID DO NOT EQUAL.");
        return 0;
    }
    return fp_udp_app_type_cmp(a.acl.app_type, b.acl.app_type) == 0 &&
                   fp_udp_app_type_cmp(a.apply.apply_type, b.apply.apply_type) == 0
               ? 1
               : 0;
}

struct acl_kind {
    using node = fp_udp_acl_node;
    using table = fp_udp_acl_table;
    static uint32_t hash(const node &n) { return word_hash(n.acl.acl_id); }
    static bool equal(const node &a, const node &b) { return fp_udp_acl_node_key_cmp(a, b) != 0; }
    [[gnu::always_inline]] static void prefetch(const node &n) { __builtin_prefetch(&n.acl.acl_id); }
};

struct ace_kind {
    using node = fp_udp_ace_node;
    using table = fp_udp_ace_table;
    static uint32_t hash(const node &n)
    {
        return word_hash(n.acl.acl_id, static_cast<uint32_t>(n.ace.sn), static_cast<uint32_t>(n.ace.sn >> 32));
    }
    static bool equal(const node &a, const node &b) { return fp_udp_ace_node_key_cmp(a, b) != 0; }
    [[gnu::always_inline]] static void prefetch(const node &n)
    {
        __builtin_prefetch(&n.acl.acl_id);
        __builtin_prefetch(&n.ace.sn);
    }
};

struct apply_kind {
    using node = fp_udp_apply_node;
    using table = fp_udp_apply_table;
    static uint32_t hash(const node &n) { return word_hash(n.apply.phyid, n.apply.pri, n.acl.acl_id); }
    static bool equal(const node &a, const node &b) { return fp_udp_apply_node_key_cmp(a, b) != 0; }
    [[gnu::always_inline]] static void prefetch(const node &n)
    {
        __builtin_prefetch(&n.acl.acl_id);
        __builtin_prefetch(&n.apply.phyid);
    }
};

} // namespace
} // namespace plx::acldb

#define FP_UDP_NODE_FAMILY(kind)                                                                                       \
    extern "C" {                                                                                                       \
    fp_udp_##kind##_table *fp_udp_##kind##_node_list = nullptr;                                                        \
    }                                                                                                                  \
    static auto kind##_nodes()                                                                                         \
    {                                                                                                                  \
        return plx::acldb::node_table<plx::acldb::kind##_kind>(fp_udp_##kind##_node_list);                             \
    }                                                                                                                  \
    plx::acldb::Stored plx::acldb::store(fp_udp_##kind##_node &node)                                                   \
    {                                                                                                                  \
        return kind##_nodes().insert(node);                                                                            \
    }                                                                                                                  \
    extern "C" {                                                                                                       \
    int32_t fp_udp_##kind##_node_hash_init(void)                                                                       \
    {                                                                                                                  \
        fp_udp_##kind##_node_list =                                                                                    \
            static_cast<fp_udp_##kind##_table *>(std::calloc(1, sizeof(fp_udp_##kind##_table)));                       \
        return 0;                                                                                                      \
    }                                                                                                                  \
    int32_t fp_udp_##kind##_node_hash_insert(fp_udp_##kind##_node *node)                                               \
    {                                                                                                                  \
        if (node != nullptr)                                                                                           \
            (void)kind##_nodes().insert(*node); /* dropped: plx/cache.h says so */                                     \
        return 0;                                                                                                      \
    }                                                                                                                  \
    fp_udp_##kind##_node *fp_udp_##kind##_node_hash_find(const fp_udp_##kind##_node *key)                              \
    {                                                                                                                  \
        return kind##_nodes().find(key);                                                                               \
    }                                                                                                                  \
    void fp_udp_##kind##_node_hash_remove(const fp_udp_##kind##_node *key)                                             \
    {                                                                                                                  \
        kind##_nodes().remove(key);                                                                                    \
    }                                                                                                                  \
    uint32_t fp_udp_##kind##_node_hash_size(void)                                                                      \
    {                                                                                                                  \
        return kind##_nodes().size();                                                                                  \
    }                                                                                                                  \
    int32_t fp_udp_##kind##_node_hash_traverse(fp_udp_##kind##_node_cb cb, void *arg)                                  \
    {                                                                                                                  \
        return kind##_nodes().traverse(cb, 0, UINT32_MAX, arg);                                                        \
    }                                                                                                                  \
    int32_t fp_udp_##kind##_node_hash_traverse_with_index(fp_udp_##kind##_node_cb cb, uint32_t start, uint32_t count,  \
                                                          void *arg)                                                   \
    {                                                                                                                  \
        return kind##_nodes().traverse(cb, start, count, arg);                                                         \
    }                                                                                                                  \
    int32_t fp_udp_##kind##_node_traverse_op(fp_udp_##kind##_node_cb cb, void *arg)                                    \
    {                                                                                                                  \
        (void)kind##_nodes().traverse(cb, 0, UINT32_MAX, arg); /* dropped: plx/cache.h says so */                      \
        return 0;                                                                                                      \
    }                                                                                                                  \
    }

FP_UDP_NODE_FAMILY(acl)
FP_UDP_NODE_FAMILY(ace)
FP_UDP_NODE_FAMILY(apply)
