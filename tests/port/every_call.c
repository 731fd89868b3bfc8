/* An application on an integrator's platform: every exported function and every slot of the manager's table, called
 * from C99 with what the headers promise: a declaration that C cannot use, a symbol that is missing, or a result that
 * is not the documented one shows here. run.sh compares what this calls with what the library exports. */
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int port_deliver(const char *table, int event, const ProtobufCMessage *record);

static int failures, slots, answered;

static int32_t on_ok(void *context, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv)
{
    (void)context, (void)priv;
    return answered += acl->acl_id == 4 && sn == 9;
}
static int32_t on_fail(void *context, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *priv)
{
    (void)context, (void)acl, (void)sn, (void)status, (void)priv;
    return 0;
}

#define GIVES(expected, call)                                                                                          \
    do {                                                                                                               \
        const long given = (long)(call);                                                                               \
        if (given != (long)(expected)) {                                                                               \
            fprintf(stderr, "%s:%d: %s gives %ld\n", __FILE__, __LINE__, #call, given);                                \
            ++failures;                                                                                                \
        }                                                                                                              \
    } while (0)
#define SLOT(expected, call)                                                                                           \
    do {                                                                                                               \
        ++slots;                                                                                                       \
        GIVES(expected, mgr->call);                                                                                    \
    } while (0)

/* The eight functions of one kind's node table, on a table of their own. */
#define NODE_TABLE(kind)                                                                                               \
    static int32_t count_##kind(fp_udp_##kind##_node *node, void *arg)                                                 \
    {                                                                                                                  \
        ++*(int *)arg;                                                                                                 \
        return node->acl.acl_id == 77 ? 0 : -1;                                                                        \
    }                                                                                                                  \
    static void call_##kind##_table(void)                                                                              \
    {                                                                                                                  \
        static fp_udp_##kind##_node node;                                                                              \
        int seen = 0;                                                                                                  \
        node.acl.acl_id = 77;                                                                                          \
        GIVES(0, fp_udp_##kind##_node_hash_init());                                                                    \
        GIVES(0, fp_udp_##kind##_node_hash_insert(&node));                                                             \
        GIVES(1, fp_udp_##kind##_node_hash_find(&node) == &node);                                                      \
        GIVES(1, fp_udp_##kind##_node_hash_size());                                                                    \
        GIVES(0, fp_udp_##kind##_node_hash_traverse(count_##kind, &seen));                                             \
        GIVES(0, fp_udp_##kind##_node_hash_traverse_with_index(count_##kind, 0, 4, &seen));                            \
        GIVES(0, fp_udp_##kind##_node_traverse_op(count_##kind, &seen));                                               \
        GIVES(3, seen);                                                                                                \
        fp_udp_##kind##_node_hash_remove(&node);                                                                       \
        GIVES(1, fp_udp_##kind##_node_hash_find(&node) == NULL && fp_udp_##kind##_node_list->size == 0);               \
    }
NODE_TABLE(acl)
NODE_TABLE(ace)
NODE_TABLE(apply)

static const fp_udp_acl_info other = {"my_app", 5, 0, 0, {0}};

static void call_cache(void)
{
    fp_udp_ace_info ace = {0};
    fp_udp_apply_info apply = {"my_app", 3, 0, 0, 0, 0, 0, {0}, 0, 0};
    fp_udp_acl_node *acl_node;
    fp_udp_ace_node *ace_node;
    fp_udp_apply_node *apply_node;
    GIVES(-7, fp_udp_acldb_get_acl(&other, &acl_node));
    GIVES(-7, fp_udp_acldb_add_ace(&other, &ace, &ace_node));
    GIVES(0, fp_udp_acldb_add_acl(&other));
    GIVES(0, fp_udp_acldb_add_ace(&other, &ace, &ace_node));
    GIVES(0, fp_udp_acldb_get_ace(&other, &ace, &ace_node));
    GIVES(0, fp_udp_acldb_add_apply(&other, &apply, &apply_node));
    GIVES(0, fp_udp_acldb_get_apply(&other, &apply, &apply_node));

    GIVES(-4, fp_udp_req_node_add(3, ace_node));
    GIVES(0, fp_udp_req_node_add(FP_UDP_REQ_ACE, ace_node));
    GIVES(0, fp_udp_ace_req_stat_proc(ace_node, FP_UDP_NODE_TABLE_FULL, 0));
    GIVES(FP_UDP_NODE_TABLE_FULL, ace_node->ace.stat);
    GIVES(0, fp_udp_req_node_del(FP_UDP_REQ_ACE, ace_node));
    GIVES(-4, fp_udp_apply_req_stat_proc(NULL, 0, 0));

    GIVES(0, fp_udp_acldb_del_ace(&other, &ace));
    GIVES(0, fp_udp_acldb_del_apply(&other, &apply));
    GIVES(0, fp_udp_acldb_del_acl(&other));
}

static void call_requests(void *context, const fp_udp_acl_handler *handler)
{
    const fp_udp_service_node_key node = {0, 1, 2};
    GIVES(0, fp_udp_req_init(context, handler));
    GIVES(0, fp_udp_expire());
    GIVES(0, fp_udp_req_check());
    fp_udp_req_check_proc(0);
    GIVES(0, fp_udp_service_node_subscribe(context, 8));
    GIVES(1, fp_udp_fp_service_node_search(&node) == NULL);
    GIVES(0, fp_udp_fp_service_node_add(&node));
    GIVES(1, fp_udp_fp_service_node_search(&node) != NULL);
    fp_udp_fp_service_node_expire();
    GIVES(1, plx_wait_for_nodes(NULL, 1, 1000, NULL)); /* enough are known: no loop is run */
}

static void call_diagnostics(void *context)
{
    char name[100] = "";
    GIVES(0, fp_udp_dbg_get_proc_name(name));
    GIVES(0, strcmp(name, "every_call"));
    fp_udp_at_reg_init(context);
    GIVES(0, fp_udp_at_set_zlog_level(6));
    GIVES(1, g_policy_plx_zlog_level);
    GIVES(-4, plx_register_debug_commands(NULL));
    GIVES(0, plx_register_debug_commands(context));
    GIVES(1, plx_get_counters()->ace.failed); /* call_cache judged one */
    plx_set_history_cb(NULL);
    GIVES(0, fp_udp_op_log_init());
    GIVES(0, fp_udp_debug_sw & FP_UDP_DEBUG_OP_LOG); /* so these write nothing */
    fp_udp_log_op_acl(&other, NULL, NULL, FP_UDP_OP_ADD);
    fp_udp_log_op_ace(&other, NULL, NULL, NULL, NULL, FP_UDP_OP_ADD);
    fp_udp_log_op_apply(&other, NULL, NULL, NULL, FP_UDP_OP_ADD);
}

static void call_entries(fp_udp_mgr *mgr, void *context, const char *type, const fp_udp_acl_key *key)
{
    fp_udp_ace *ace = (++slots, mgr->alloc_ace(9, 1));
    fp_udp_ace *copy, *read;
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    SPolicy__AcePsta status = S_POLICY__ACE_PSTA__INIT;
    uint8_t deny = 0;
    uint64_t *numbers;
    uint32_t count;
    index.t_app_type = "security_app";
    index.acl_id = 4;
    index.sn = 9;
    status.index = &index;
    status.rep_uuid = 1000000000u; /* the double's clock stands */
    GIVES(-4, plx_push(&ace->tlv, FP_UDP_ATTR_FIELD, "ipv4_scr", &deny, 1));
    GIVES(0, plx_push(&ace->tlv, FP_UDP_ATTR_ACTION, "fwd", &deny, 1));
    copy = (++slots, mgr->copy_ace(ace, 0, &deny));
    GIVES(1, deny == 1 && copy->tlv->len == 0);
    SLOT(0, expire_ace(context, type));
    SLOT(0, set_ace(context, key, ace));
    GIVES(0, port_deliver("ace_psta", 1, &status.base));
    GIVES(1, answered);
    GIVES(0, plx_bulk_begin(context)); /* this platform has no batches */
    GIVES(0, mgr->set_ace(context, key, ace));
    GIVES(0, plx_bulk_flush(context));
    GIVES(0, plx_bulk_end(context));
    GIVES(-4, plx_bulk_end(context));
    SLOT(1, iterator_ace(context, key, &numbers, &count) == numbers);
    GIVES(1, count == 1 && numbers[0] == 9);
    free(numbers);
    read = (++slots, mgr->get_ace(context, key, 9));
    GIVES(1, read != NULL && read->tlv->len == ace->tlv->len);
    mgr->free_ace(read);
    SLOT(0, del_expire_ace(context, type));
    SLOT(0, delete_ace(context, key, 9));
    mgr->free_ace(copy);
    ++slots, mgr->free_ace(ace);
}

static void call_applies(fp_udp_mgr *mgr, void *context, const char *type, const fp_udp_acl_info *acl)
{
    const fp_udp_apply_key key = {"my_app", 3, 10, FP_UDP_DIRECTION_OUT};
    fp_udp_apply *apply = (++slots, mgr->alloc_apply(&key));
    GIVES(FP_UDP_DIRECTION_OUT, apply->direction);
    SLOT(0, expire_apply(context, type));
    SLOT(0, set_apply(context, acl, 1, apply));
    SLOT(0, del_expire_apply(context, type));
    SLOT(0, del_apply(context, acl, apply));
    ++slots, mgr->free_apply(apply);
}

static void call_ports(fp_udp_mgr *mgr, void *context, const char *type)
{
    const fp_udp_uplink uplink = {7, 1, {0}};
    SLOT(0, set_port_disable(context, 7));
    SLOT(0, del_port_disable(context, 7));
    SLOT(0, svi_router_enable(context, NULL, 1));
    SLOT(0, expire_svi_router_enable(context));
    SLOT(0, del_expire_svi_router_enable(context));
    ++slots, mgr->uplink_enable(context, &uplink, 1);
    SLOT(0, expire_uplink(context));
    SLOT(0, del_expire_uplink(context));
    SLOT(0, set_port_bindinfo(context, type, 6, 7, 3, 1));
    SLOT(-4, del_port_bindinfo(context, type, 6, 7, 4, 1));
    SLOT(-4, enable_app_commit(context, type, 61));
    SLOT(0, publish_app_commit(context, type));
    SLOT(0, disable_app_commit(context, type));
}

static void call_slots(fp_udp_mgr *mgr, void *context)
{
    static const char type[] = "security_app";
    const fp_udp_acl acl = {"security_app", 4, 1, {0}};
    const fp_udp_acl_info info = {"security_app", 4, 0, 0, {0}};
    const fp_udp_acl_key key = {"security_app", 4};
    uint8_t cls = 200;
    SLOT(0, expire_acl(context, type));
    SLOT(0, set_acl(context, &acl));
    SLOT(0, del_expire_acl(context, type));
    SLOT(0, get_acl_cls(context, 4, &cls));
    GIVES(1, cls);
    call_entries(mgr, context, type, &key);
    call_applies(mgr, context, type, &info);
    call_ports(mgr, context, type);
    SLOT(0, del_acl(context, &key));
    GIVES(33, slots);
    GIVES(1, mgr->reserved_20 == NULL && mgr->reserved_21 == NULL);
}

int main(void)
{
    int master;
    void *context[2] = {NULL, &master};
    const fp_udp_acl_handler handler = {.ace_reply_ok_cb = on_ok, .ace_fail_cb = on_fail};

    call_acl_table();
    call_ace_table();
    call_apply_table();
    GIVES(0, fp_udp_acldb_init());
    GIVES(0, plx_initial());
    GIVES(0, fp_udp_is_cmp_apply_skip_priority());
    fp_udp_set_cmp_apply_skip_prio();
    GIVES(1, fp_udp_is_cmp_apply_skip_priority());
    GIVES(0, fp_udp_register_app_type("security_app"));
    GIVES(-4, fp_udp_cgst_register(context, 3, NULL));
    GIVES(0, fp_udp_register_acl_handler(context, 8, &handler));
    call_slots(fp_udp_get_mgr(), context);
    call_cache();
    call_requests(context, &handler);
    call_diagnostics(context);
    printf("every exported function and 33 operations were called: %d faults\n", failures);
    return failures == 0 ? 0 : 1;
}
