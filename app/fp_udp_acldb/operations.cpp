// The cache operations: the only way in which nodes are made, linked and freed.
//
// Every ACE and apply node hangs on its ACL's list and stands in its kind's table, unless an equal one stood there
// before. A node that its table has no room for is refused: nothing would ever find it. A node's pending request goes
// with it. Names without a terminator never get in.
#include "../fp_udp_req_mng/kinds.hpp"
#include "../list.hpp"
#include "area.hpp"
#include "tables.hpp"

#include <cstdlib>
#include <cstring>
#include <plx/cache.h>
#include <plx/manager.h>
#include <plx/request.h>

namespace plx::acldb {
namespace {

// Unlinked nodes of a deleted ACL point here, so that a use after it shows.
const auto poison_next = reinterpret_cast<fp_udp_list *>(uintptr_t{0x00100100});
const auto poison_prev = reinterpret_cast<fp_udp_list *>(uintptr_t{0x00200200});

bool terminated(const char (&name)[FP_UDP_APP_TYPE_SIZE])
{
    return std::memchr(name, '\0', sizeof name) != nullptr;
}

bool usable(const fp_udp_acl_info *acl)
{
    return acl != nullptr && terminated(acl->app_type);
}

fp_udp_acl_node *find(const fp_udp_acl_info &acl)
{
    fp_udp_acl_node key;
    key.acl = acl;
    return fp_udp_acl_node_hash_find(&key);
}

// What the cache does with a node of either kind, and what it says of one. An ACL counts its ACEs alone.
template <class Node> struct cached;

template <> struct cached<fp_udp_ace_node> : kind<fp_udp_ace_node> {
    static constexpr auto find = fp_udp_ace_node_hash_find;
    static constexpr auto remove = fp_udp_ace_node_hash_remove;
    static constexpr diag::text<> no_memory = "malloc for ace node fail.";
    static constexpr diag::text<> no_room = "insert ace node fail";
    static bool usable(const info &) { return true; }
    static void make_key(info &) {}
    static void count_added(fp_udp_acl_node &owner) { ++owner.ace_count; }
    static void count_deleted(fp_udp_acl_node &owner) { --owner.ace_count; }
};

template <> struct cached<fp_udp_apply_node> : kind<fp_udp_apply_node> {
    static constexpr auto find = fp_udp_apply_node_hash_find;
    static constexpr auto remove = fp_udp_apply_node_hash_remove;
    static constexpr diag::text<> no_memory = "malloc for acl node fail."; // "acl": log readers match this text
    static constexpr diag::text<> no_room = "insert apply node fail";
    static bool usable(const info &apply) { return terminated(apply.apply_type); }
    static void make_key(info &apply)
    {
        if (fp_udp_is_cmp_apply_skip_priority() != 0)
            apply.pri = 0;
    }
    static void count_added(fp_udp_acl_node &) {}
    static void count_deleted(fp_udp_acl_node &) {}
};

template <class Node> using info_of = typename kind<Node>::info;

template <class Node> bool usable(const fp_udp_acl_info *acl, const info_of<Node> *info)
{
    return usable(acl) && info != nullptr && cached<Node>::usable(*info);
}

template <class Node> Node *find(const fp_udp_acl_info &acl, const info_of<Node> &info)
{
    Node key;
    key.acl = acl;
    state_of(key) = info;
    cached<Node>::make_key(state_of(key));
    return cached<Node>::find(&key);
}

template <class Node> [[nodiscard]] int32_t hand_out(Node *found, Node **node)
{
    if (node == nullptr)
        return FP_UDP_INVALID;
    *node = found;
    return found == nullptr ? FP_UDP_NOT_FOUND : FP_UDP_OK;
}

template <class Node> [[nodiscard]] int32_t get(const fp_udp_acl_info *acl, const info_of<Node> *info, Node **node)
{
    return hand_out(usable<Node>(acl, info) ? find<Node>(*acl, *info) : nullptr, node);
}

// A node that stands in its table and on no list yet, or null.
template <class Node> Node *new_node(const fp_udp_acl_info &acl, const info_of<Node> &info, diag::place at)
{
    auto *node = static_cast<Node *>(std::malloc(sizeof(Node)));
    if (node == nullptr) {
        report<Error>(at, cached<Node>::no_memory);
        return nullptr;
    }
    node->req = nullptr;
    node->acl = acl;
    state_of(*node) = info;
    cached<Node>::make_key(state_of(*node));
    if (store(*node) != Stored::Full)
        return node;
    report<Error>(at, cached<Node>::no_room);
    std::free(node);
    return nullptr;
}

template <class Node>
[[nodiscard]] int32_t add(fp_udp_acl_node &owner, const fp_udp_acl_info &acl, const info_of<Node> &info, Node **node,
                          const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    Node *added = new_node<Node>(acl, info, {function, line});
    if (added == nullptr)
        return FP_UDP_NO_MEMORY;
    list::push_front(owner.*kind<Node>::siblings, added->links);
    cached<Node>::count_added(owner);
    *node = added;
    return FP_UDP_OK;
}

// A single delete drops the request first, an ACL's delete takes the node out of its table first and poisons its links.
template <class Node> [[nodiscard]] int32_t del(const fp_udp_acl_info *acl, const info_of<Node> *info)
{
    fp_udp_acl_node *owner = usable<Node>(acl, info) ? find(*acl) : nullptr;
    Node *node = owner == nullptr ? nullptr : find<Node>(*acl, *info);
    if (node == nullptr)
        return FP_UDP_OK;
    fp_udp_req_node_del(kind<Node>::request_type, node);
    cached<Node>::remove(node);
    list::unlink(node->links);
    std::free(node);
    cached<Node>::count_deleted(*owner);
    return FP_UDP_OK;
}

template <class Node> void del_all(fp_udp_acl_node &owner)
{
    for (Node &node : elements<Node>(owner.*kind<Node>::siblings)) {
        cached<Node>::remove(&node);
        list::unlink(node.links);
        node.links = {poison_next, poison_prev};
        fp_udp_req_node_del(kind<Node>::request_type, &node);
        std::free(&node);
    }
}

} // namespace
} // namespace plx::acldb

using namespace plx::acldb;

extern "C" {

int32_t fp_udp_acldb_init(void)
{
    int32_t rv = fp_udp_acl_node_hash_init();
    if (rv == 0)
        rv = fp_udp_ace_node_hash_init();
    if (rv == 0)
        rv = fp_udp_apply_node_hash_init();
    return rv;
}

int32_t fp_udp_acldb_get_acl(const fp_udp_acl_info *acl, fp_udp_acl_node **node)
{
    return hand_out(usable(acl) ? find(*acl) : nullptr, node);
}

int32_t fp_udp_acldb_add_acl(const fp_udp_acl_info *acl)
{
    if (!usable(acl))
        return FP_UDP_INVALID;
    auto *node = static_cast<fp_udp_acl_node *>(std::malloc(sizeof(fp_udp_acl_node)));
    if (node == nullptr) {
        report<Error>("malloc for acl node fail.");
        return FP_UDP_NO_MEMORY;
    }
    plx::list::reset(node->ace_list);
    plx::list::reset(node->apply_list);
    node->ace_count = 0;
    node->acl = *acl;
    const Stored stored = store(*node);
    if (stored == Stored::Yes)
        return FP_UDP_OK;
    std::free(node);
    if (stored == Stored::Equal)
        return FP_UDP_OK;
    report<Error>("insert acl node fail.");
    return FP_UDP_NO_MEMORY;
}

int32_t fp_udp_acldb_del_acl(const fp_udp_acl_info *acl)
{
    fp_udp_acl_node *node = usable(acl) ? find(*acl) : nullptr;
    if (node == nullptr)
        return FP_UDP_OK;
    del_all<fp_udp_ace_node>(*node);
    del_all<fp_udp_apply_node>(*node);
    fp_udp_acl_node_hash_remove(node);
    std::free(node);
    return FP_UDP_OK;
}

int32_t fp_udp_acldb_get_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node)
{
    return get(acl, ace, node);
}

int32_t fp_udp_acldb_add_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node)
{
    if (!usable<fp_udp_ace_node>(acl, ace) || node == nullptr)
        return FP_UDP_INVALID;
    fp_udp_acl_node *owner = find(*acl);
    if (owner == nullptr) {
        report<Error>("can find acl while add ace, app_type:%s acl_id:%d sn:%llx\n", acl->app_type, acl->acl_id,
                      ace->sn);
        return FP_UDP_NOT_FOUND;
    }
    return add(*owner, *acl, *ace, node);
}

int32_t fp_udp_acldb_del_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace)
{
    return del<fp_udp_ace_node>(acl, ace);
}

int32_t fp_udp_acldb_get_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node)
{
    return get(acl, apply, node);
}

int32_t fp_udp_acldb_add_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node)
{
    if (!usable<fp_udp_apply_node>(acl, apply) || node == nullptr)
        return FP_UDP_INVALID;
    fp_udp_acl_node *known = find(*acl);
    if (known == nullptr && fp_udp_acldb_add_acl(acl) != FP_UDP_OK)
        return FP_UDP_NO_MEMORY;
    const int32_t rv = add(known == nullptr ? *find(*acl) : *known, *acl, *apply, node);
    if (rv != FP_UDP_OK && known == nullptr)
        fp_udp_acldb_del_acl(acl);
    return rv;
}

int32_t fp_udp_acldb_del_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply)
{
    return del<fp_udp_apply_node>(acl, apply);
}

} // extern "C"
