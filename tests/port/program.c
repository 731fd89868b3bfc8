/* An application on the integrator's platform: registers, writes, and hears an outcome. */
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <stdio.h>

int port_timers(void);
int port_commands(void);
int port_last_call(const char *begins);
int port_deliver(const char *table, int event, const ProtobufCMessage *record);

static int answered;

static int32_t on_ok(void *context, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv)
{
    (void)context, (void)priv;
    answered += acl->acl_id == 4 && sn == 9;
    return 0;
}
static int32_t on_fail(void *context, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *priv)
{
    (void)context, (void)acl, (void)sn, (void)status, (void)priv;
    return 0;
}

#define CHECK(condition)                                                                                               \
    do                                                                                                                 \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                                            \
            return 1;                                                                                                  \
        }                                                                                                              \
    while (0)

int main(void)
{
    int master;
    void *context[2] = {NULL, &master};
    const fp_udp_acl_handler handler = {.ace_reply_ok_cb = on_ok, .ace_fail_cb = on_fail};
    const fp_udp_acl acl = {"security_app", 4, 1, {0}};
    const fp_udp_acl_key key = {"security_app", 4};
    SPolicy__AceKey index = S_POLICY__ACE_KEY__INIT;
    SPolicy__AcePsta status = S_POLICY__ACE_PSTA__INIT;
    fp_udp_mgr *mgr;
    fp_udp_ace *ace;

    CHECK(plx_initial() == 0);
    CHECK(fp_udp_register_app_type("security_app") == 0);
    CHECK(fp_udp_cgst_register(context, 3, "port") == 0);
    CHECK(fp_udp_register_acl_handler(context, 8, &handler) == 0);
    CHECK(port_timers() == 2 && port_commands() == 9);

    mgr = fp_udp_get_mgr();
    ace = mgr->alloc_ace(9, 0);
    CHECK(ace != NULL);
    CHECK(mgr->expire_ace(context, "security_app") == 0);
    CHECK(mgr->set_acl(context, &acl) == 0 && port_last_call("hmset 8 acl[security_app,4]"));
    CHECK(mgr->set_ace(context, &key, ace) == 0 && port_last_call("hmset 8 ace[security_app,4,9]"));
    CHECK(mgr->del_expire_ace(context, "security_app") == 0);
    mgr->free_ace(ace);

    index.t_app_type = "security_app";
    index.acl_id = 4;
    index.sn = 9;
    status.index = &index;
    status.rep_uuid = 1000000000u; /* the double's clock stands */
    CHECK(port_deliver("ace_psta", 1, &status.base) == 0);
    CHECK(answered == 1);
    ace = mgr->get_ace(context, &key, 9);
    CHECK(ace != NULL && ace->sn == 9);
    mgr->free_ace(ace);
    printf("the library runs on another platform\n");
    return 0;
}
