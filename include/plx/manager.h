/* plx/manager.h: start-up, the callbacks an application registers, and the operations it gets in return. */
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
    /* 0, 1: an ACL write reached the store, or failed there with `result`. Runs inside set_acl. */
    int32_t (*set_acl_ok_cb)(void *g_ssd_fp_global, const fp_udp_acl *acl, const uint8_t *priv);
    int32_t (*set_acl_fail_cb)(void *g_ssd_fp_global, const fp_udp_acl *acl, int32_t result, const uint8_t *priv);

    /* 2: an ACE is programmed, or has aged without a failure. From the event loop; inside set_ace for an ACL that needs
     * no confirmation. A non-null slot switches tracking of ACE writes on. */
    int32_t (*ace_reply_ok_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv);
    /* 3: a service node reported `status` (event loop), or the write itself failed (inside set_ace). A non-null slot
     * subscribes to ACE status records. */
    int32_t (*ace_fail_cb)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint64_t sn, int32_t status,
                           const uint8_t *priv);

    /* 4, 5: the same for applies. */
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

    /* 13, 14: an uplink setting reached the store, or failed there. Runs inside uplink_enable; the result is dropped.
     */
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
     * removes the ACL, and with it its ACEs and applies, from the cache. Runs set_acl_ok_cb or set_acl_fail_cb. Without
     * them: 0, -2 or, after a failed write, the removal's 0. */
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
     * short. */
    uint64_t *(*iterator_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, uint64_t **sn, uint32_t *count);
    /* 5: reads the class of an ACL of "security_app" from database 8. 0, -4, -7 (no such ACL) or -11 (store not
     * readable); *acl_cls is written on success alone. */
    int32_t (*get_acl_cls)(void *g_ssd_fp_global, int32_t acl_id, uint8_t *acl_cls);

    /* 6: writes an ACE to the store and caches it under its ACL, which must be cached (-7 otherwise). `ace` stays the
     * caller's. With ace_reply_ok_cb registered the outcome comes from the event loop once every service node has
     * answered, one has refused, or 180 seconds have passed; but an ACE of another type than "security_app" whose ACL
     * has no applies needs no confirmation, and the callback runs before this returns. A failed write removes the ACE
     * from the cache and runs ace_fail_cb. Setting an entry again starts over: answers to the earlier write no longer
     * count. */
    int32_t (*set_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, const fp_udp_ace *ace);
    /* 7: deletes an ACE from the store and the cache; a failing store does not stop it. No callback runs, and a pending
     * outcome is dropped. Returns 0. */
    int32_t (*delete_ace)(void *g_ssd_fp_global, const fp_udp_acl_key *key, uint64_t sn);
    /* 8, 9: bracket a rewrite of all ACEs of an application type, as 2 and 3 do for ACLs. */
    int32_t (*expire_ace)(void *g_ssd_fp_global, const char *app_type);
    int32_t (*del_expire_ace)(void *g_ssd_fp_global, const char *app_type);
    /* 10, 11: make and free an ACE object with an empty attribute buffer. NULL when memory is short; freeing NULL does
     * nothing. */
    fp_udp_ace *(*alloc_ace)(uint64_t sn, uint8_t default_ace);
    void (*free_ace)(fp_udp_ace *ace);
    /* 12: reads an ACE back from database 8: sn, default_ace and attributes; priv and ace_pri are zero. The caller
     * frees it. NULL when there is none, or it cannot be read. */
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
     * the apply from the cache and runs apply_fail_cb. A null `acl` or `apply`: nothing is done, 0. */
    int32_t (*set_apply)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, uint32_t acl_cls,
                         const fp_udp_apply *apply);
    /* 15: deletes an apply and its status from the store, and the apply from the cache; a failing store does not stop
     * it. No callback runs. Returns 0. */
    int32_t (*del_apply)(void *g_ssd_fp_global, const fp_udp_acl_info *acl, const fp_udp_apply *apply);
    /* 16, 17: bracket a rewrite of all applies, and their status records, of an applying application type. A null type:
     * 0. */
    int32_t (*expire_apply)(void *g_ssd_fp_global, const char *apply_type);
    int32_t (*del_expire_apply)(void *g_ssd_fp_global, const char *apply_type);
    /* 18, 19: make and free an apply object with the key's fields and an empty attribute buffer. */
    fp_udp_apply *(*alloc_apply)(const fp_udp_apply_key *key);
    void (*free_apply)(fp_udp_apply *apply);

    void (*reserved_20)(void); /* null */
    void (*reserved_21)(void); /* null */

    /* 22, 23: disable a port, and enable it again. */
    int32_t (*set_port_disable)(void *g_ssd_fp_global, uint32_t phyid);
    int32_t (*del_port_disable)(void *g_ssd_fp_global, uint32_t phyid);
    /* 24: writes the SVI router setting with its 8 private bytes, or with `enable` 0 removes it. */
    int32_t (*svi_router_enable)(void *g_ssd_fp_global, const uint8_t *priv, uint32_t enable);
    /* 25, 26: bracket a rewrite of the SVI router setting. */
    int32_t (*expire_svi_router_enable)(void *g_ssd_fp_global);
    int32_t (*del_expire_svi_router_enable)(void *g_ssd_fp_global);
    /* 27: writes an uplink setting, or with `enable` 0 removes it. */
    void (*uplink_enable)(void *g_ssd_fp_global, const fp_udp_uplink *uplink, uint32_t enable);
    /* 28, 29: bracket a rewrite of all uplink settings. */
    int32_t (*expire_uplink)(void *g_ssd_fp_global);
    int32_t (*del_expire_uplink)(void *g_ssd_fp_global);
    /* 30, 31: write and delete a port binding. bind_type is 1 (port), 2 (VLAN) or 3 (logical interface), acl_cls at
     * most 6; -4 otherwise. */
    int32_t (*set_port_bindinfo)(void *g_ssd_fp_global, const char *app_type, uint32_t acl_cls, uint32_t phyid,
                                 uint32_t bind_type, uint32_t bind_id);
    int32_t (*del_port_bindinfo)(void *g_ssd_fp_global, const char *app_type, uint32_t acl_cls, uint32_t phyid,
                                 uint32_t bind_type, uint32_t bind_id);
    /* 32, 33, 34: write the enable marker, remove it, write the publish marker of an application type. tm_val is in
     * seconds, 0 to 60; -4 beyond. The name is not checked. */
    int32_t (*enable_app_commit)(void *g_ssd_fp_global, const char *app_type, uint32_t tm_val);
    int32_t (*disable_app_commit)(void *g_ssd_fp_global, const char *app_type);
    int32_t (*publish_app_commit)(void *g_ssd_fp_global, const char *app_type);
} fp_udp_mgr;
FP_UDP_LAYOUT(sizeof(fp_udp_mgr) == 35 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_mgr, reserved_20) == 20 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_mgr, publish_app_commit) == 34 * sizeof(void *));

/* ---- start-up -------------------------------------------------------------------------------------------------- */

/* Opens the log and reads its level. Call it before anything else. 0, or -1 when the process's name cannot be read. */
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
int32_t fp_udp_register_acl_handler(void *g_ssd_fp_global, uint32_t db, const fp_udp_acl_handler *handler);

/* Returns the operation table, which lives as long as the library; starts the operation log anew. */
fp_udp_mgr *fp_udp_get_mgr(void);

/* Makes the cache treat applies that differ only in priority as one. There is on purpose no way back. */
void fp_udp_set_cmp_apply_skip_prio(void);
uint8_t fp_udp_is_cmp_apply_skip_priority(void);

/* Registered application types from index 0 up, null after the last. */
extern char *regist_app_type[FP_UDP_APP_TYPE_MAX];

#ifdef __cplusplus
}
#endif

#endif
