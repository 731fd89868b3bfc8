/* plx/cache.h: the process's copy of what it wrote: nodes, the three node tables, and the operations that keep them
 * linked.
 *
 * For looking: an application finds here what it has set and how far its outcome is. The manager's operations keep the
 * cache; whoever adds or deletes nodes by hand leaves records in the store that the library does not know of, or the
 * other way round. A node's memory is the cache's: it is valid until it, or its ACL, is deleted, which any callback and
 * any turn of the event loop may do.
 */
#ifndef PLX_CACHE_H
#define PLX_CACHE_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

struct fp_udp_req_node;

/* A circular list: of a head, the first and last element; of an element, its neighbours. An empty head points at
 * itself. */
typedef struct fp_udp_list {
    struct fp_udp_list *next;
    struct fp_udp_list *prev;
} fp_udp_list;

/* A cached ACL: one that was set, or that an apply or the synchronisation at start brought. */
typedef struct fp_udp_acl_node {
    /* Of fp_udp_ace_node, newest first. */
    fp_udp_list ace_list;
    /* Of fp_udp_apply_node, newest first. */
    fp_udp_list apply_list;
    fp_udp_acl_info acl;
    /* Elements of ace_list. */
    uint32_t ace_count;
} fp_udp_acl_node;

/* A cached ACE. Its attributes are not cached: get_ace reads them from the store. */
typedef struct fp_udp_ace_node {
    /* In the ACL's ace_list. */
    fp_udp_list links;
    /* A copy of the ACL's descriptor as of when the ACE was added. */
    fp_udp_acl_info acl;
    fp_udp_ace_info ace;
    /* Pending request, or NULL: nothing is waited for. */
    struct fp_udp_req_node *req;
} fp_udp_ace_node;

/* A cached apply. */
typedef struct fp_udp_apply_node {
    /* In the ACL's apply_list. */
    fp_udp_list links;
    /* As in fp_udp_ace_node. */
    fp_udp_acl_info acl;
    fp_udp_apply_info apply;
    /* As in fp_udp_ace_node. */
    struct fp_udp_req_node *req;
} fp_udp_apply_node;

/* The table of one kind of node: an open-addressing hash set of node pointers, keyed by fields inside the nodes, that
 * owns no node.
 *   acl:   app_type, acl_id
 *   ace:   app_type, acl_id, sn
 *   apply: app_type, acl_id, apply_type, phyid, pri; not dir: see fp_udp_apply_key
 * A search key is a node of which only the key's fields are filled. A table must be initialised before it is used.
 *
 *   init      makes an empty table, once; 0.
 *   insert    stores the node. When an equal key is stored already, or the table cannot grow, the node is not stored.
 *             Always 0.
 *   find      the stored node with an equal key, or NULL.
 *   remove    takes the node with an equal key out, without freeing it.
 *   size      number of stored nodes.
 *   traverse  calls back for each node in bucket order until a callback returns non-zero, and returns that. The
 *             callback may remove nodes, but not insert.
 *   traverse_with_index  the same over `count` buckets from bucket `start`.
 *   traverse_op          traverse, with its result dropped: 0. */
#define FP_UDP_NODE_TABLE(kind)                                                                                        \
    typedef struct fp_udp_##kind##_table {                                                                             \
        uint32_t n_buckets;   /* 0 or a power of two, at least 4 */                                                    \
        uint32_t size;        /* stored nodes */                                                                       \
        uint32_t n_occupied;  /* stored and deleted buckets */                                                         \
        uint32_t upper_bound; /* n_occupied at which the table is rebuilt */                                           \
        uint32_t *flags;      /* two bits a bucket: 2 empty, 1 deleted, 0 stored */                                    \
        fp_udp_##kind##_node **keys;                                                                                   \
        void *vals; /* NULL: the table is a set */                                                                     \
    } fp_udp_##kind##_table;                                                                                           \
    typedef int32_t (*fp_udp_##kind##_node_cb)(fp_udp_##kind##_node * node, void *arg);                                \
    extern fp_udp_##kind##_table *fp_udp_##kind##_node_list;                                                           \
    int32_t fp_udp_##kind##_node_hash_init(void);                                                                      \
    int32_t fp_udp_##kind##_node_hash_insert(fp_udp_##kind##_node *node);                                              \
    fp_udp_##kind##_node *fp_udp_##kind##_node_hash_find(const fp_udp_##kind##_node *key);                             \
    void fp_udp_##kind##_node_hash_remove(const fp_udp_##kind##_node *key);                                            \
    uint32_t fp_udp_##kind##_node_hash_size(void);                                                                     \
    int32_t fp_udp_##kind##_node_hash_traverse(fp_udp_##kind##_node_cb cb, void *arg);                                 \
    int32_t fp_udp_##kind##_node_hash_traverse_with_index(fp_udp_##kind##_node_cb cb, uint32_t start, uint32_t count,  \
                                                          void *arg);                                                  \
    int32_t fp_udp_##kind##_node_traverse_op(fp_udp_##kind##_node_cb cb, void *arg)

FP_UDP_NODE_TABLE(acl);
FP_UDP_NODE_TABLE(ace);
FP_UDP_NODE_TABLE(apply);

/* The cache operations own the nodes: callers must not keep a node past its delete. Of the ACL descriptor only app_type
 * and acl_id find the ACL; an add copies its descriptors whole. None looks for duplicates: get first, add when that
 * returns -7. */

/* Makes the three tables. 0. */
int32_t fp_udp_acldb_init(void);

/* 0 and the node in *node, or -7 and NULL. -4 for a null `node`. */
int32_t fp_udp_acldb_get_acl(const fp_udp_acl_info *acl, fp_udp_acl_node **node);
int32_t fp_udp_acldb_get_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node);
int32_t fp_udp_acldb_get_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node);

/* 0 or -2. A second add under a live key leaves the first node and returns 0. */
int32_t fp_udp_acldb_add_acl(const fp_udp_acl_info *acl);
/* 0 and the new node, -7 when the ACL is not cached, -2 when memory is exhausted or the table cannot grow (nothing is
 * left then), or -4 for a null `node`. */
int32_t fp_udp_acldb_add_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace, fp_udp_ace_node **node);
/* 0 and the new node, -2 as above, or -4 for a null `node`. An ACL that is not cached is added first, and goes again
 * where its apply is refused. */
int32_t fp_udp_acldb_add_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, fp_udp_apply_node **node);

/* Always 0. Deleting an ACL deletes its ACEs and applies; pending requests are dropped without a callback. */
int32_t fp_udp_acldb_del_acl(const fp_udp_acl_info *acl);
int32_t fp_udp_acldb_del_ace(const fp_udp_acl_info *acl, const fp_udp_ace_info *ace);
int32_t fp_udp_acldb_del_apply(const fp_udp_acl_info *acl, const fp_udp_apply_info *apply);

#ifdef __cplusplus
}
#endif

#endif
