/* plx/manager.h: start-up, the callbacks an application registers, and the operations it gets in return.
 *
 * Results and callbacks. WHETHER A WRITE REACHED THE STORE IS TOLD BY THE CALLBACKS, NOT BY RESULTS ALONE:
 *
 *  - set_acl, set_ace and set_apply return 0 after a write that the store refused when the fail callback is null. With
 *    it they return what it returned, so let a fail callback return the code that it was given.
 *  - 0 from set_ace and set_apply with the callbacks registered means that the outcome is on its way. It arrives from
 *    the event loop, once: in the ok callback or in the fail callback.
 *  - set_port_disable and svi_router_enable without their fail callbacks return the result of a second record's write,
 *    and uplink_enable returns nothing at all.
 *  - a deletion that the store refused returns 0 or a second record's result, and no callback tells: the diagnostic
 *    channel does (diag.h), at Error level. Read the record back where it matters.
 *
 * Register every fail callback of what you use. What each operation returns in each case stands beside it.
 */
#ifndef PLX_MANAGER_H
#define PLX_MANAGER_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- callbacks ------------------------------------------------------------------------------------------------- */

enum fp_udp_change { FP_UDP_CHANGE_SET = 0, FP_UDP_CHANGE_DELETED = 1 };

/* The events an application wants to hear of; a null slot is an event it does not want. The library copies the table at
 * every registration. Pointers handed to a callback live until it returns. Where an operation ends in a callback, the
 * callback's result becomes the operation's result. Fields of a descriptor that the event does not know are zero. */
typedef struct fp_udp_acl_handler {
    /* 0, 1: an ACL write reached the store, or failed: `result` is the store client's code, or -2 where the cache had
     * no memory and the store was not asked. Runs inside set_acl. */
    int32_t (*set_acl_ok_cb)(void *g_ssd_fp_global, const fp_udp_acl *acl, const uint8_t *priv);
    int32_t (*set_acl_fail_cb)(void *g_ssd_fp_global, const fp_udp_acl *acl, int32_t result, const uint8_t *priv);

    /* 2: an ACE is programmed, or has aged without a failure. From the event loop; inside set_ace for an ACL that needs
     * no confirmation. A non-null slot switches tracking of ACE writes on. */
    int32_t (*ace_reply_ok_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv);
    /* 3: a service node reported `status`, enum fp_udp_node_status (event loop); or the write itself failed (inside
     * set_ace) with the store client's code, -7 (the ACL is not cached) or -2. Null: neither is told, and set_ace
     * returns 0 for a write that the store refused. A non-null slot subscribes to ACE status records. */
    int32_t (*ace_fail_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn, int32_t status,
                           const uint8_t *priv);

    /* 4, 5: the same for applies; -7 does not occur. */
    int32_t (*apply_reply_ok_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply,
                                 const uint8_t *priv);
    int32_t (*apply_fail_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply,
                             int32_t status, const uint8_t *priv);

    /* 6, 7: never called. */
    void (*reserved_6)(void);
    void (*reserved_7)(void);

    /* 8, 9: a port disable reached the store, or failed there. Runs inside set_port_disable. */
    int32_t (*port_disable_ok_cb)(void *g_ssd_fp_global, uint32_t phyid);
    int32_t (*port_disable_fail_cb)(void *g_ssd_fp_global, uint32_t phyid, int32_t result);

    /* 10: a service node published an ACE's counters. Subscribes to counter records. */
    int32_t (*ace_counter_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn,
                              const fp_udp_ace_counter *counter);

    /* 11, 12: the SVI router setting reached the store, or failed there. Runs inside svi_router_enable. */
    int32_t (*svi_router_ok_cb)(void *g_ssd_fp_global, const uint8_t *priv);
    int32_t (*svi_router_fail_cb)(void *g_ssd_fp_global, int32_t result, const uint8_t *priv);

    /* 13, 14: an uplink setting reached the store, or failed there. Runs inside uplink_enable, which returns nothing:
     * no other way tells. The callbacks' results are dropped. */
    int32_t (*uplink_ok_cb)(void *g_ssd_fp_global, uint32_t phyid, uint32_t type, const uint8_t *priv);
    int32_t (*uplink_fail_cb)(void *g_ssd_fp_global, uint32_t phyid, uint32_t type, int32_t result,
                              const uint8_t *priv);

    /* 15, 16: an ACL or ACE record of "security_app" was changed in the store by others; `kind` is enum fp_udp_change.
     * A non-null slot connects to database 8 and subscribes there; slot 15 also fills the cache at registration. */
    int32_t (*acl_change_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, int32_t kind);
    int32_t (*ace_change_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn, int32_t kind);
} fp_udp_acl_handler;
FP_UDP_LAYOUT(sizeof(fp_udp_acl_handler) == 17 * sizeof(void *));

/* ---- operations ------------------------------------------------------------------------------------------------ */

/* Every operation that takes the context takes the one given at registration, and works on the database given there
 * unless it says otherwise. A name that is null (where nothing else is said), longer than 31 characters or without its
 * terminator is refused with -4 (NULL and count 0 where an object or list is returned): nothing is written, cached or
 * deleted, and no callback runs. Store failures come back as the store client's own code. */
typedef struct fp_udp_mgr {
    /* 0: writes an ACL to the store and caches it; one that is cached keeps its ACEs and applies. A failed write
     * removes the ACL, and with it its ACEs and applies, from the cache. Runs set_acl_ok_cb or set_acl_fail_cb before
     * it returns, and returns what that returned. Without set_acl_fail_cb it returns 0 also when the store refused the
     * write, and goes on to write where the cache had no memory; without set_acl_ok_cb a success is 0. */
    int32_t (*set_acl)(void *g_ssd_fp_global, const fp_udp_acl *acl);
    /* 1: deletes an ACL from the store and, with all of its ACEs and applies, from the cache. A failing store is
     * reported and does not stop the deletion; ACE records already in the store stay there. No callback runs. Returns
     * 0. */
    int32_t (*del_acl)(void *g_ssd_fp_global, const fp_udp_acl_key *key);
    /* 2, 3: bracket a rewrite of all ACLs of an application type: those not set in between are deleted from the store.
     * The cache is not touched. Returns the store's result. */
    int32_t (*expire_acl)(void *g_ssd_fp_global, const char *app_type);
    int32_t (*del_expire_acl)(void *g_ssd_fp_global, const char *app_type);
    /* 4: lists the sequence numbers of an ACL's cached ACEs, newest first. Returns the array, which is also stored in
     * *sn and is the caller's to free(), with its length in *count; NULL and 0 for an unknown ACL or when memory is
     * short. An ACL without ACEs: count 0, and an array that is to be freed all the same. NULL, and nothing written,
     * where `sn` or `count` is null. */
    uint64_t *(*iterator_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, uint64_t **sn, uint32_t *count);
    /* 5: reads the class of an ACL of "security_app" from database 8. 0, -4 (`acl_cls` is null), -7 (no such ACL) or
     * -11 (store not readable); *acl_cls is written on success alone. */
    int32_t (*get_acl_cls)(void *g_ssd_fp_global, int32_t acl_id, uint8_t *acl_cls);

    /* 6: writes an ACE to the store and caches it under its ACL, which must be cached (-7 otherwise). `ace` stays the
     * caller's. With ace_reply_ok_cb registered the outcome comes from the event loop once every service node has
     * answered, one has refused, or 180 seconds have passed; but an ACE of another type than "security_app" whose ACL
     * has no applies needs no confirmation, and the callback runs before this returns. A failed write removes the ACE
     * from the cache and runs ace_fail_cb. Setting an entry again starts over: answers to the earlier write no longer
     * count.
     *
     * Returns 0 when the record is written and its outcome will be told; what ace_reply_ok_cb returned where no
     * confirmation was needed; what ace_fail_cb returned where the write failed. Without ace_fail_cb: -7 or -2 when the
     * cache refused and nothing was written, but 0 when the store refused the write. Without ace_reply_ok_cb a success
     * is 0 and nobody follows the entry. -2 with it: the record is written, but no memory to follow it, and no callback
     * will tell. */
    int32_t (*set_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, const fp_udp_ace *ace);
    /* 7: deletes an ACE from the store and the cache; a failing store is reported and does not stop it: the record may
     * still stand there, and be programmed. No callback runs, and a pending outcome is dropped. Returns 0. */
    int32_t (*delete_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, uint64_t sn);
    /* 8, 9: bracket a rewrite of all ACEs of an application type, as 2 and 3 do for ACLs. */
    int32_t (*expire_ace)(void *g_ssd_fp_global, const char *app_type);
    int32_t (*del_expire_ace)(void *g_ssd_fp_global, const char *app_type);
    /* 10, 11: make and free an ACE object with an empty attribute buffer. NULL when memory is short; freeing NULL does
     * nothing. */
    fp_udp_ace *(*alloc_ace)(uint64_t sn, uint8_t default_ace);
    void (*free_ace)(fp_udp_ace *ace);
    /* 12: reads an ACE back from database 8: sn, default_ace and attributes; priv and ace_pri are zero. The caller
     * frees it. NULL when there is none, or it cannot be read, or memory is short: the diagnostic channel tells which.
     */
    fp_udp_ace *(*get_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, uint64_t sn);
    /* 13: copies an ACE; the caller frees the copy. With `whole` zero the copy is without its forwarding action, priv
     * and ace_pri are zero, *fwd_zero (left alone when there is no such action) tells whether that action's value was
     * 0, and the copy's attribute length is the old one less 9, the size of one `fwd` with a one-byte value, whatever
     * the entry holds: for an entry without exactly that the length, in 16 bits, does not fit the attributes, and the
     * bytes beyond them are zero. NULL for a null entry or when memory is short. */
    fp_udp_ace *(*copy_ace)(const fp_udp_ace *old, int32_t whole, uint8_t *fwd_zero);

    /* 14: binds an ACL to a port: writes the apply to the store and caches it, with its ACL when that is not cached
     * yet. `acl_cls` is the class the caller believes the ACL has: the store's answer wins, a difference is reported.
     * With apply_reply_ok_cb registered the outcome comes from the event loop, as for an ACE. A failed write removes
     * the apply from the cache and runs apply_fail_cb. A null `acl` or `apply`: nothing is done, 0.
     *
     * Returns as set_ace does: 0 with the outcome to come; what apply_fail_cb returned; without it -2 when the cache
     * had no memory, but 0 when the store refused the write. An ACL in both directions on one port needs two
     * priorities: fp_udp_apply_key (types.h) says why. */
    int32_t (*set_apply)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint32_t acl_cls,
                         const fp_udp_apply *apply);
    /* 15: deletes an apply and its status from the store, and the apply from the cache; a failing store is reported and
     * does not stop it. No callback runs, and a pending outcome is dropped. Returns 0, also for a null `acl` or
     * `apply`.
     */
    int32_t (*del_apply)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, const fp_udp_apply *apply);
    /* 16, 17: bracket a rewrite of all applies, and their status records, of an applying application type. Returns the
     * store's result for the status records; a failure for the applies themselves is reported only. A null type: 0. */
    int32_t (*expire_apply)(void *g_ssd_fp_global, const char *apply_type);
    int32_t (*del_expire_apply)(void *g_ssd_fp_global, const char *apply_type);
    /* 18, 19: make and free an apply object with the key's fields and an empty attribute buffer. */
    fp_udp_apply *(*alloc_apply)(const fp_udp_apply_key *key);
    void (*free_apply)(fp_udp_apply *apply);

    void (*reserved_20)(void); /* null */
    void (*reserved_21)(void); /* null */

    /* 22: disables a port: writes its record, and resets the status record. Runs port_disable_ok_cb or
     * port_disable_fail_cb, by the first write alone, and returns what it returned. Without that callback it returns
     * the second write's result, which says nothing of the first. */
    int32_t (*set_port_disable)(void *g_ssd_fp_global, uint32_t phyid);
    /* 23: enables it again: deletes both records and returns the result of the second deletion; a failure of the first,
     * after which the port stays disabled, is reported only. No callback runs. */
    int32_t (*del_port_disable)(void *g_ssd_fp_global, uint32_t phyid);
    /* 24: writes the SVI router setting with its 8 private bytes (null: zeros), or with `enable` 0 removes it.
     * Callbacks and results are those of 22, and for the removal of 23. */
    int32_t (*svi_router_enable)(void *g_ssd_fp_global, const uint8_t *priv, uint32_t enable);
    /* 25, 26: bracket a rewrite of the SVI router setting. Result as for 16 and 17. */
    int32_t (*expire_svi_router_enable)(void *g_ssd_fp_global);
    int32_t (*del_expire_svi_router_enable)(void *g_ssd_fp_global);
    /* 27: writes an uplink setting, or with `enable` 0 removes it. Returns nothing: uplink_ok_cb and uplink_fail_cb
     * tell of a write, and nobody of a removal. A null `uplink` is reported, and nothing happens. */
    void (*uplink_enable)(void *g_ssd_fp_global, const fp_udp_uplink *uplink, uint32_t enable);
    /* 28, 29: bracket a rewrite of all uplink settings. Result as for 16 and 17. */
    int32_t (*expire_uplink)(void *g_ssd_fp_global);
    int32_t (*del_expire_uplink)(void *g_ssd_fp_global);
    /* 30, 31: write and delete a port binding. bind_type is 1 (port), 2 (VLAN) or 3 (logical interface), acl_cls at
     * most 6; -4 otherwise, and nothing is written. Return the store's result; no callback runs. */
    int32_t (*set_port_bindinfo)(void *g_ssd_fp_global, const char *app_type, uint32_t acl_cls, uint32_t phyid,
                                 uint32_t bind_type, uint32_t bind_id);
    int32_t (*del_port_bindinfo)(void *g_ssd_fp_global, const char *app_type, uint32_t acl_cls, uint32_t phyid,
                                 uint32_t bind_type, uint32_t bind_id);
    /* 32, 33, 34: write the enable marker, remove it, write the publish marker of an application type: while the enable
     * marker stands, for `tm_val` seconds at most, service nodes hold the type's changes back, and make them together
     * when the publish marker comes. tm_val is 0 to 60; -4 beyond. Return the store's result; no callback runs. The
     * name is not checked. */
    int32_t (*enable_app_commit)(void *g_ssd_fp_global, const char *app_type, uint32_t tm_val);
    int32_t (*disable_app_commit)(void *g_ssd_fp_global, const char *app_type);
    int32_t (*publish_app_commit)(void *g_ssd_fp_global, const char *app_type);
} fp_udp_mgr;
FP_UDP_LAYOUT(sizeof(fp_udp_mgr) == 35 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_mgr, reserved_20) == 20 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_mgr, publish_app_commit) == 34 * sizeof(void *));

/* ---- start-up -------------------------------------------------------------------------------------------------- */

/* Opens the log, category "policy_plx", and reads its level from the first line of /etc/plx_dbg/<process name>, or
 * where that file does not exist of /etc/plx_dbg/plx: a number from 1 to 5 (diag.h); any other text is level 1, an
 * empty or missing file leaves the level as it is, 1 at load. Call it before anything else. 0, or -1 when the process's
 * name cannot be read. */
int32_t plx_initial(void);

/* Registers an application type for status subscriptions; call it for each type before fp_udp_register_acl_handler.
 * Types stay registered. 0, also when it is registered already; -1 for a null name, one of more than 32 characters, the
 * 51st type, or when memory is short. A type of 32 characters is accepted here but refused by every operation. */
int32_t fp_udp_register_app_type(const char *app_type);

/* Registers the tables acl, ace and apply as topics of the user `name`; `value` goes to the topic library unchanged. 0,
 * -4 for a null argument, -17 when the topic library refuses. */
int32_t fp_udp_cgst_register(void *g_ssd_fp_global, uint32_t value, const char *name);

/* Registers the application: its context, the database of its policy, and its callbacks (copied). Sets up cache, debug
 * commands and timers the first time, and subscribes every time it is called. Callbacks may run before it returns only
 * by way of the application's own calls. 0; -1 when the store or the cache cannot be set up; otherwise the result of
 * the service-node subscription, after which the call may be repeated. */
FP_UDP_RESULT int32_t fp_udp_register_acl_handler(void *g_ssd_fp_global, uint32_t db,
                                                  const fp_udp_acl_handler *handler);

/* Returns the operation table, which lives as long as the library; starts the operation log anew. */
fp_udp_mgr *fp_udp_get_mgr(void);

/* Makes the cache treat applies that differ only in priority as one: setting such an apply with another priority moves
 * it. Call it before the first apply is cached, which is before fp_udp_register_acl_handler: an apply that is in the
 * cache with its priority is not found any more afterwards, so its answers are dropped and deleting it leaves it there.
 * There is no way back: what was cached without its priority could not be told apart again. The second tells whether it
 * is so: 1 or 0. */
void fp_udp_set_cmp_apply_skip_prio(void);
uint8_t fp_udp_is_cmp_apply_skip_priority(void);

/* Registered application types from index 0 up, null after the last. */
extern char *regist_app_type[FP_UDP_APP_TYPE_MAX];

#ifdef __cplusplus
}
#endif

#endif
