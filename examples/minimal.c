/* The smallest complete application: one ACL with one entry, bound to a port, and what became of them.
 *
 *     minimal [STORE]
 *
 * STORE is the address of the policy store, such as unix:/run/policy.sock; without it PLX_STORE of the environment is
 * taken. An embedded store has no service nodes by itself: there the entry stays unanswered until the loop is left.
 */
#include <plx/libplx.h>
#include <stdio.h>
#include <string.h>
#include <tq_context.h>
#include <tq_loop.h>

enum { POLICY_DB = 8, MOST_TURNS = 100, TURN_MS = 100 };

static int outcomes;
static int failures;

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
    printf("entry %s/%u/%llu failed: status %d\n", acl->app_type, acl->acl_id, (unsigned long long)sn, status);
    ++outcomes, ++failures;
    return 0;
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
    printf("ACL %s/%u cannot be applied to port %u: status %d\n", acl->app_type, acl->acl_id, apply->phyid, status);
    ++outcomes, ++failures;
    return 0;
}

/* Drops what comes from 192.0.2.0/24. Values of match fields are in network byte order, an address followed by its
 * mask. */
static int32_t set_entry(fp_udp_mgr *mgr, void *context, const fp_udp_acl *acl)
{
    static const uint8_t source[] = {192, 0, 2, 0, 255, 255, 255, 0};
    static const uint8_t deny = 0;
    fp_udp_acl_key key;
    fp_udp_attr attr;
    int32_t result;
    fp_udp_ace *ace = mgr->alloc_ace(1, 0);
    if (ace == NULL)
        return FP_UDP_NO_MEMORY;

    memcpy(key.app_type, acl->app_type, sizeof key.app_type);
    key.acl_id = acl->acl_id;
    ace->ace_pri = 100;
    ace->tlv->construct(&attr, "ipv4_src", FP_UDP_ATTR_FIELD, source, sizeof source);
    ace->tlv->push(&ace->tlv, attr);
    if (ace->tlv != NULL) {
        ace->tlv->construct(&attr, "fwd", FP_UDP_ATTR_ACTION, &deny, sizeof deny);
        ace->tlv->push(&ace->tlv, attr);
    }
    result = ace->tlv != NULL ? mgr->set_ace(context, &key, ace) : FP_UDP_NO_MEMORY;
    mgr->free_ace(ace);
    return result;
}

static int32_t set_apply(fp_udp_mgr *mgr, void *context, const fp_udp_acl *acl)
{
    fp_udp_acl_info info = {{0}, 0, 0, 0, {0}};
    fp_udp_apply_key key = {{0}, 7, 10, 0}; /* port 7, priority 10, inbound */
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

int main(int argc, char **argv)
{
    fp_udp_acl_handler handler = {0};
    fp_udp_acl acl = {"minimal", 1, 0, {0}};
    fp_udp_mgr *mgr;
    int turn;
    tq_context *context = tq_context_new(argc > 1 ? argv[1] : NULL);
    if (context == NULL) {
        perror("minimal: store");
        return 1;
    }

    handler.ace_reply_ok_cb = entry_ok;
    handler.ace_fail_cb = entry_failed;
    handler.apply_reply_ok_cb = apply_ok;
    handler.apply_fail_cb = apply_failed;
    plx_initial();
    fp_udp_register_app_type(acl.app_type);
    if (fp_udp_register_acl_handler(context, POLICY_DB, &handler) != 0) {
        fprintf(stderr, "minimal: the store cannot be reached\n");
        return 1;
    }

    /* The binding first: an entry of an ACL that is bound to no port needs nobody's confirmation. */
    mgr = fp_udp_get_mgr();
    if (mgr->set_acl(context, &acl) != 0 || set_apply(mgr, context, &acl) != 0 || set_entry(mgr, context, &acl) != 0) {
        fprintf(stderr, "minimal: the policy could not be written\n");
        return 1;
    }
    for (turn = 0; outcomes < 2 && turn < MOST_TURNS; ++turn)
        tq_loop_run_once(context->master, TURN_MS);
    if (outcomes < 2)
        printf("%d of 2 outcomes are still open\n", 2 - outcomes);
    return failures == 0 && outcomes == 2 ? 0 : 1;
}
