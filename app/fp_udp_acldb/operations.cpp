// The cache operations: the only way in which nodes are made, linked and freed.
//
// Every ACE and apply node hangs on its ACL's list and stands in its kind's table, unless an equal one stood there
// before. A node that its table has no room for is refused: nothing would ever find it. A node's pending request goes
// with it. Names without a terminator never get in.
#include "area.hpp"
#include "tables.hpp"

#include "../list.hpp"

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

bool usable(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace)
{
    return usable(acl) && ace != nullptr;
}

bool usable(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply)
{
    return usable(acl) && apply != nullptr && terminated(apply->apply_type);
}

fp_udp_acl_node *find(const fp_udp_acl_info &acl)
{
    fp_udp_acl_node key;
    key.acl = acl;
    return fp_udp_acl_node_hash_find(&key);
}

fp_udp_ace_node *find(const fp_udp_acl_info &acl, const fp_udp_ace_info &ace)
{
    fp_udp_ace_node key;
    key.acl = acl;
    key.ace = ace;
    return fp_udp_ace_node_hash_find(&key);
}

void skip_priority(fp_udp_apply_info &apply)
{
    if (fp_udp_is_cmp_apply_skip_priority() != 0)
        apply.pri = 0;
}

fp_udp_apply_node *find(const fp_udp_acl_info &acl, const fp_udp_apply_info &apply)
{
    fp_udp_apply_node key;
    key.acl = acl;
    key.apply = apply;
    skip_priority(key.apply);
    return fp_udp_apply_node_hash_find(&key);
}

template <class Node> int32_t hand_out(Node *found, Node **node)
{
    if (node == nullptr)
        return FP_UDP_INVALID;
    *node = found;
    return found == nullptr ? FP_UDP_NOT_FOUND : FP_UDP_OK;
}

// What differs between the two kinds of node on an ACL's lists.
void forget(fp_udp_ace_node &node)
{
    fp_udp_ace_node_hash_remove(&node);
}

void forget(fp_udp_apply_node &node)
{
    fp_udp_apply_node_hash_remove(&node);
}

void drop_request(fp_udp_ace_node &node)
{
    fp_udp_req_node_del(FP_UDP_REQ_ACE, &node);
}

void drop_request(fp_udp_apply_node &node)
{
    fp_udp_req_node_del(FP_UDP_REQ_APPLY, &node);
}

// A single delete drops the request first, an ACL's delete takes the node out of its table first and poisons its links.
template <class Node> void destroy_one(Node &node)
{
    drop_request(node);
    forget(node);
    list::unlink(node.links);
    std::free(&node);
}

template <class Node> void destroy_all(fp_udp_list &head)
{
    for (Node &node : elements<Node>(head)) {
        forget(node);
        list::unlink(node.links);
        node.links = {poison_next, poison_prev};
        drop_request(node);
        std::free(&node);
    }
}

// A node that stands in its table and on no list yet, or null.
fp_udp_apply_node *new_apply(const fp_udp_acl_info &acl, const fp_udp_apply_info &apply,
                             const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    auto *node = static_cast<fp_udp_apply_node *>(std::malloc(sizeof(fp_udp_apply_node)));
    if (node == nullptr) {
        report<Error>(diag::place{function, line}, "malloc for acl node fail."); // "acl": log readers match this text
        return nullptr;
    }
    node->req = nullptr;
    node->acl = acl;
    node->apply = apply;
    skip_priority(node->apply);
    if (store(*node) != Stored::Full)
        return node;
    report<Error>(diag::place{function, line}, "insert apply node fail");
    std::free(node);
    return nullptr;
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
    destroy_all<fp_udp_ace_node>(node->ace_list);
    destroy_all<fp_udp_apply_node>(node->apply_list);
    fp_udp_acl_node_hash_remove(node);
    std::free(node);
    return FP_UDP_OK;
}

int32_t fp_udp_acldb_get_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node)
{
    return hand_out(usable(acl, ace) ? find(*acl, *ace) : nullptr, node);
}

int32_t fp_udp_acldb_add_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node)
{
    if (!usable(acl, ace) || node == nullptr)
        return FP_UDP_INVALID;
    fp_udp_acl_node *owner = find(*acl);
    if (owner == nullptr) {
        report<Error>("can find acl while add ace, app_type:%s acl_id:%d sn:%llx\n", acl->app_type, acl->acl_id,
                      ace->sn);
        return FP_UDP_NOT_FOUND;
    }
    auto *added = static_cast<fp_udp_ace_node *>(std::malloc(sizeof(fp_udp_ace_node)));
    if (added == nullptr) {
        report<Error>("malloc for ace node fail.");
        return FP_UDP_NO_MEMORY;
    }
    added->req = nullptr;
    added->acl = *acl;
    added->ace = *ace;
    if (store(*added) == Stored::Full) {
        report<Error>("insert ace node fail");
        std::free(added);
        return FP_UDP_NO_MEMORY;
    }
    plx::list::push_front(owner->ace_list, added->links);
    ++owner->ace_count;
    *node = added;
    return FP_UDP_OK;
}

int32_t fp_udp_acldb_del_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace)
{
    fp_udp_acl_node *owner = usable(acl, ace) ? find(*acl) : nullptr;
    fp_udp_ace_node *node = owner == nullptr ? nullptr : find(*acl, *ace);
    if (node == nullptr)
        return FP_UDP_OK;
    destroy_one(*node);
    --owner->ace_count;
    return FP_UDP_OK;
}

int32_t fp_udp_acldb_get_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node)
{
    return hand_out(usable(acl, apply) ? find(*acl, *apply) : nullptr, node);
}

int32_t fp_udp_acldb_add_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node)
{
    if (!usable(acl, apply) || node == nullptr)
        return FP_UDP_INVALID;
    fp_udp_acl_node *known = find(*acl);
    if (known == nullptr && fp_udp_acldb_add_acl(acl) != FP_UDP_OK)
        return FP_UDP_NO_MEMORY;
    fp_udp_apply_node *added = new_apply(*acl, *apply);
    if (added == nullptr) {
        if (known == nullptr)
            fp_udp_acldb_del_acl(acl);
        return FP_UDP_NO_MEMORY;
    }
    fp_udp_acl_node *owner = known == nullptr ? find(*acl) : known;
    plx::list::push_front(owner->apply_list, added->links);
    *node = added;
    return FP_UDP_OK;
}

int32_t fp_udp_acldb_del_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply)
{
    fp_udp_acl_node *owner = usable(acl, apply) ? find(*acl) : nullptr;
    fp_udp_apply_node *node = owner == nullptr ? nullptr : find(*acl, *apply);
    if (node != nullptr)
        destroy_one(*node);
    return FP_UDP_OK;
}

} // extern "C"
