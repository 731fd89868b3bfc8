/* The smallest complete application: one ACL with one entry, bound to a port, and what became of them.
 *
 *     minimal [STORE [NODES]]
 *
 * STORE is the address of the policy store, such as unix:/run/policy.sock; without it PLX_STORE of the environment is
 * taken. NODES is how many service nodes must be alive before anything is written, 1 when it is not given. An embedded
 * store has no service nodes by itself.
 *
 * Exits with 0 when every node has programmed everything, 3 when something failed, 4 when nodes or answers did not come
 * in time, 5 when the store cannot be reached.
 */
#include <plx/libplx.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

enum { POLICY_DB = 8, NODES_MS = 10000, MOST_TURNS = 100, TURN_MS = 100 };
enum { PROGRAMMED = 0, FAILED = 3, NO_ANSWER = 4, NO_STORE = 5 };

static int outcomes;
static int failures;

/* Who refused shows in the number: the library, the store, or a service node. */
static const char *why(int32_t status)
{
    if (status < 0)
        return plx_result_text(status);
    return status > 100 ? plx_node_status_text(status) : tq_mom_strerror(status);
}

/* Without this callback a write that the store refused would look like a success. What a fail callback returns is what
 * the operation returns, where it runs inside one. */
static int32_t acl_failed(void *context, const fp_udp_acl *acl, int32_t result, const uint8_t *priv)
{
    (void)context, (void)priv;
    printf("ACL %s/%u is not written: %s (%d)\n", acl->app_type, acl->acl_id, why(result), result);
    return result;
}

static int32_t entry_ok(void *context, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv)
{
    (void)context, (void)priv;
    printf("entry %s/%u/%llu is programmed\n", acl->app_type, acl->acl_id, (unsigned long long)sn);
    ++outcomes;
    return 0;
}

static int32_t entry_failed(void *context, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *priv)
{
    (void)context, (void)priv;
    printf("entry %s/%u/%llu failed: %s (%d)\n", acl->app_type, acl->acl_id, (unsigned long long)sn, why(status),
           status);
    ++outcomes, ++failures;
    return status;
}

static int32_t apply_ok(void *context, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, const uint8_t *priv)
{
    (void)context, (void)priv;
    printf("ACL %s/%u is applied to port %u\n", acl->app_type, acl->acl_id, apply->phyid);
    ++outcomes;
    return 0;
}

static int32_t apply_failed(void *context, const fp_udp_acl_info *acl, const fp_udp_apply_info *apply, int32_t status,
                            const uint8_t *priv)
{
    (void)context, (void)priv;
    printf("ACL %s/%u cannot be applied to port %u: %s (%d)\n", acl->app_type, acl->acl_id, apply->phyid, why(status),
           status);
    ++outcomes, ++failures;
    return status;
}

/* Drops what comes from 192.0.2.0/24. Values of match fields are in network byte order, an address followed by its
 * mask. */
static int32_t set_entry(fp_udp_mgr *mgr, void *context, const fp_udp_acl *acl)
{
    static const uint8_t source[] = {192, 0, 2, 0, 255, 255, 255, 0};
    static const uint8_t deny = 0;
    static const plx_attribute attributes[] = {
        {FP_UDP_ATTR_FIELD, "ipv4_src", source, sizeof source},
        {FP_UDP_ATTR_ACTION, "fwd", &deny, sizeof deny},
    };
    const char *missing;
    fp_udp_acl_key key;
    int32_t result;
    fp_udp_ace *ace = mgr->alloc_ace(1, 0);
    if (ace == NULL)
        return FP_UDP_NO_MEMORY;

    memcpy(key.app_type, acl->app_type, sizeof key.app_type);
    key.acl_id = acl->acl_id;
    ace->ace_pri = 100;
    result = plx_push_all(&ace->tlv, attributes, sizeof attributes / sizeof *attributes, &missing);
    if (result == FP_UDP_OK)
        result = mgr->set_ace(context, &key, ace);
    else
        printf("attribute %s: %s\n", missing, why(result)); /* the entry would match more than it is meant to */
    mgr->free_ace(ace);
    return result;
}

static int32_t set_apply(fp_udp_mgr *mgr, void *context, const fp_udp_acl *acl)
{
    fp_udp_acl_info info = {{0}, 0, 0, 0, {0}};
    fp_udp_apply_key key = {{0}, 7, 10, FP_UDP_DIRECTION_IN}; /* port 7, priority 10 */
    fp_udp_apply *apply;
    int32_t result;

    memcpy(info.app_type, acl->app_type, sizeof info.app_type);
    info.acl_id = acl->acl_id;
    memcpy(key.apply_type, acl->app_type, sizeof key.apply_type);
    apply = mgr->alloc_apply(&key);
    if (apply == NULL)
        return FP_UDP_NO_MEMORY;
    result = mgr->set_apply(context, &info, acl->acl_cls, apply);
    mgr->free_apply(apply);
    return result;
}

/* The binding first: an entry of an ACL that is bound to no port needs nobody's confirmation. */
static int write_and_wait(fp_udp_mgr *mgr, tq_context *context, const fp_udp_acl *acl)
{
    int turn;
    if (mgr->set_acl(context, acl) != 0 || set_apply(mgr, context, acl) != 0 || set_entry(mgr, context, acl) != 0) {
        fprintf(stderr, "minimal: the policy could not be written\n");
        return FAILED;
    }
    for (turn = 0; outcomes < 2 && turn < MOST_TURNS; ++turn)
        tq_loop_run_once(context->master, TURN_MS);
    if (failures != 0)
        return FAILED;
    if (outcomes < 2)
        fprintf(stderr, "minimal: %d of 2 outcomes are still open\n", 2 - outcomes);
    return outcomes < 2 ? NO_ANSWER : PROGRAMMED;
}

int main(int argc, char **argv)
{
    const int nodes = argc > 2 ? atoi(argv[2]) : 1;
    fp_udp_acl_handler handler = {0};
    fp_udp_acl acl = {"minimal", 1, 0, {0}};
    tq_context *context = tq_context_new(argc > 1 ? argv[1] : NULL);
    if (context == NULL) {
        perror("minimal: store");
        return NO_STORE;
    }

    handler.set_acl_fail_cb = acl_failed;
    handler.ace_reply_ok_cb = entry_ok;
    handler.ace_fail_cb = entry_failed;
    handler.apply_reply_ok_cb = apply_ok;
    handler.apply_fail_cb = apply_failed;
    if (plx_initial() != 0 || fp_udp_register_app_type(acl.app_type) != 0 ||
        fp_udp_register_acl_handler(context, POLICY_DB, &handler) != 0) {
        fprintf(stderr, "minimal: the store cannot be reached\n");
        return NO_STORE;
    }
    if (plx_wait_for_nodes(context->master, nodes, NODES_MS, tq_loop_run_once) < nodes) {
        fprintf(stderr, "minimal: only %d of %d service nodes are alive\n", (int)g_fp_service.count, nodes);
        return NO_ANSWER;
    }
    return write_and_wait(fp_udp_get_mgr(), context, &acl);
}
