/* An application in C that has nothing but the installed headers and libraries: it writes one ACL and reads its record
 * back from the store. Exits with 0 when the record holds what was written. */
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <stdio.h>
#include <tq_context.h>
#include <tq_mom.h>

enum { DATABASE = 1 };

static int stored_class(tq_context *context, uint32_t acl_id)
{
    SPolicy__AclKey key = S_POLICY__ACL_KEY__INIT;
    SPolicy__Acl wanted = S_POLICY__ACL__INIT;
    tq_mom_hash_res *read;
    int cls = -1;

    key.t_app_type = (char *)"outside";
    key.acl_id = acl_id;
    wanted.index = &key;
    read = tq_mom_hgetall_sync(context, DATABASE, &wanted.base);
    if (read != NULL && read->status == 0 && read->record != NULL)
        cls = (int)((const SPolicy__Acl *)read->record)->acl_cls;
    tq_mom_hash_res_free(read);
    return cls;
}

int main(void)
{
    fp_udp_acl_handler handler = {0};
    fp_udp_acl acl = {"outside", 7, 3, {0}};
    tq_context *context = tq_context_new("mem:");
    fp_udp_mgr *mgr = fp_udp_get_mgr();
    int cls;

    if (context == NULL || plx_initial() != 0 || fp_udp_register_app_type("outside") != 0 ||
        fp_udp_register_acl_handler(context, DATABASE, &handler) != 0 || mgr->set_acl(context, &acl) != 0)
        return 1;
    cls = stored_class(context, 7);
    printf("the store holds class %d\n", cls);
    return cls == 3 ? 0 : 1;
}
