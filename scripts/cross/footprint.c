/* Measures what the library takes of a process's heap, and whether it starts threads. scripts/cross/footprint builds
 * it.
 *
 * The program stands in for the store client, the timers, the log and the debug shell, and none of these takes memory
 * here: whatever the heap grows by, the library keeps. It prints one figure a line as "name value".
 */
#include <dirent.h>
#include <inttypes.h>
#include <libcgstctrl.h>
#include <malloc.h>
#include <plx/libplx.h>
#include <ssat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tq_mom.h>
#include <tq_time.h>
#include <tq_zlog.h>
#include <unistd.h>

enum { ENTRIES = 10000, DATABASE = 1, ACL_ID = 1 };
#define APP_TYPE "security_app"

/* ---- the platform: everything succeeds, nothing is kept -------------------------------------------------------- */

int tq_mom_client_connect_sync(void *handle, uint32_t db)
{
    (void)handle, (void)db;
    return 0;
}

int tq_mom_state_get(void *handle, uint32_t db, int reserved)
{
    (void)handle, (void)db, (void)reserved;
    return 0;
}

int tq_mom_hmset_sync(void *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields, uint32_t count)
{
    (void)handle, (void)db, (void)record, (void)fields, (void)count;
    return 0;
}

int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    (void)handle, (void)db, (void)record, (void)selection, (void)cb, (void)arg;
    return 0;
}

int tq_mom_subscribe(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    (void)handle, (void)db, (void)record, (void)selection, (void)cb, (void)arg;
    return 0;
}

int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    (void)master, (void)handle, (void)func, (void)arg, (void)interval, (void)name;
    return 0;
}

void *tq_zlog_init(const char *category)
{
    (void)category;
    return NULL;
}

int ssat_lib_init(void *context, const char *module)
{
    (void)context, (void)module;
    return 0;
}

int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler)
{
    (void)module, (void)command, (void)reserved, (void)description, (void)handler;
    return 0;
}

/* ---- the application -------------------------------------------------------------------------------------------- */

static int32_t heard(void *context, const fp_udp_acl_info *acl, uint64_t sn, const uint8_t *priv)
{
    (void)context, (void)acl, (void)sn, (void)priv;
    return 0;
}

static int32_t failed(void *context, const fp_udp_acl_info *acl, uint64_t sn, int32_t status, const uint8_t *priv)
{
    (void)context, (void)acl, (void)sn, (void)status, (void)priv;
    return 0;
}

static size_t heap(void)
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

static size_t threads(void)
{
    size_t count = 0;
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == NULL)
        exit(1);
    while (readdir(tasks) != NULL)
        count++;
    closedir(tasks);
    return count;
}

static void check(int32_t result, const char *what)
{
    if (result == 0)
        return;
    fprintf(stderr, "footprint: %s returned %" PRId32 "\n", what, result);
    exit(1);
}

static fp_udp_ace *make_ace(const fp_udp_mgr *mgr, uint64_t sn)
{
    fp_udp_ace *ace = mgr->alloc_ace(sn, 0);
    if (ace == NULL)
        exit(1);
    const uint8_t permit = 1;
    fp_udp_attr attr;
    memset(&attr, 0, sizeof attr);
    ace->tlv->construct(&attr, "fwd", FP_UDP_ATTR_ACTION, &permit, 1);
    ace->tlv->push(&ace->tlv, attr);
    return ace;
}

static void set_aces(const fp_udp_mgr *mgr, void *context)
{
    const fp_udp_acl_key acl = {APP_TYPE, ACL_ID};
    for (uint64_t sn = 1; sn <= ENTRIES; sn++) {
        fp_udp_ace *ace = make_ace(mgr, sn);
        check(mgr->set_ace(context, &acl, ace), "set_ace");
        mgr->free_ace(ace);
    }
}

static void report(const char *name, size_t before, size_t after, size_t count)
{
    printf("%s %zu\n", name, (after - before + count - 1) / count);
}

int main(void)
{
    void *context[2] = {NULL, NULL};
    fp_udp_acl_handler handler;
    memset(&handler, 0, sizeof handler);
    check(plx_initial(), "plx_initial"); /* once, for what the C library itself allocates on first use */
    setvbuf(stdout, NULL, _IONBF, 0);

    const size_t threads_at_start = threads();
    const size_t at_start = heap();
    check(plx_initial(), "plx_initial");
    check(fp_udp_register_app_type(APP_TYPE), "fp_udp_register_app_type");
    check(fp_udp_register_acl_handler(context, DATABASE, &handler), "fp_udp_register_acl_handler");
    const fp_udp_mgr *mgr = fp_udp_get_mgr();
    const size_t registered = heap();

    const fp_udp_acl acl = {.app_type = APP_TYPE, .acl_id = ACL_ID};
    check(mgr->set_acl(context, &acl), "set_acl");
    const size_t with_acl = heap();
    set_aces(mgr, context);
    const size_t cached = heap();

    handler.ace_reply_ok_cb = heard;
    handler.ace_fail_cb = failed;
    check(fp_udp_register_acl_handler(context, DATABASE, &handler), "fp_udp_register_acl_handler");
    const size_t registered_again = heap();
    set_aces(mgr, context);
    const size_t pending = heap();

    report("heap-registered", at_start, registered, 1);
    report("heap-acl", registered, with_acl, 1);
    report("heap-ace", with_acl, cached, ENTRIES);
    report("heap-ace-pending", registered_again, pending, ENTRIES);
    report("threads", threads_at_start, threads(), 1);
    printf("entries %" PRIu32 "\n", fp_udp_ace_node_hash_size());
    return 0;
}
