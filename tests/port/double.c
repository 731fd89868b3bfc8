/* An integrator's platform, as small as it can be: a store of the last write, a clock that stands, timers that are only
 * counted. */
#include <libcgstctrl.h>
#include <ssat.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tq_mom.h>
#include <tq_time.h>
#include <tq_zlog.h>

enum { MAX_SUBSCRIPTIONS = 16 };

int port_timers, port_commands, port_writes, port_log_lines;
char port_last_table[64];
static struct {
    const ProtobufCMessageDescriptor *type;
    tq_mom_callback cb;
} subscriptions[MAX_SUBSCRIPTIONS];
static int subscribed;

int tq_mom_client_connect_sync(void *handle, uint32_t db)
{
    return handle == NULL || db != 8;
}
int tq_mom_state_get(void *handle, uint32_t db, int reserved)
{
    (void)handle, (void)db;
    return reserved;
}
static int note_write(const ProtobufCMessage *record)
{
    snprintf(port_last_table, sizeof port_last_table, "%s", record->descriptor->name);
    ++port_writes;
    return 0;
}
int tq_mom_hmset_sync(void *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields, uint32_t count)
{
    (void)handle, (void)db;
    return fields == NULL || count == 0 ? 1 : note_write(record);
}
int tq_mom_set_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    (void)handle, (void)db;
    return note_write(record);
}
tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    (void)handle, (void)db, (void)record;
    return calloc(1, sizeof(tq_mom_hash_res));
}
void tq_mom_hash_res_free(tq_mom_hash_res *res)
{
    free(res);
}
int tq_mom_del_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    (void)handle, (void)db;
    return note_write(record);
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
    (void)handle, (void)db, (void)selection, (void)arg;
    if (subscribed == MAX_SUBSCRIPTIONS)
        return 1;
    subscriptions[subscribed].type = record->descriptor;
    subscriptions[subscribed++].cb = cb;
    return 0;
}
int tq_mom_dsbegin_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint64_t bound)
{
    (void)handle, (void)db, (void)record, (void)selection;
    return bound != 1000;
}
int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound)
{
    (void)handle, (void)db, (void)record, (void)selection;
    return bound != 1000;
}

/* What the program delivers changes with. */
int port_deliver(void *handle, int event, const ProtobufCMessage *record)
{
    const tq_mom_notification notification = {event, record, 0, 0};
    int i, told = 0;
    for (i = 0; i < subscribed; ++i)
        if (subscriptions[i].type == record->descriptor) {
            subscriptions[i].cb(handle, &notification, NULL);
            ++told;
        }
    return told;
}

int tq_monotime(struct timeval *now)
{
    now->tv_sec = 1000;
    now->tv_usec = 5;
    return 0;
}
uint64_t tq_timeval_to_us(const struct timeval *tv)
{
    return (uint64_t)tv->tv_sec * 1000000u + (uint64_t)tv->tv_usec;
}
uint64_t tq_timeval_to_ms(const struct timeval *tv)
{
    return tq_timeval_to_us(tv) / 1000u;
}
uint64_t tq_timeval_to_sec(const struct timeval *tv)
{
    return tq_timeval_to_us(tv) / 1000000u;
}
int tq_time_2_string(char *buffer, size_t size)
{
    return snprintf(buffer, size, "now") == 3;
}
int tq_thread_insert_timer_timeval(tq_thread_master *master, tq_thread **handle, tq_thread_func func, void *arg,
                                   const struct timeval *interval, const char *name)
{
    (void)handle, (void)arg;
    port_timers += master != NULL && func != NULL && interval->tv_sec == 0 && strcmp(name, "fp_udp_api") == 0;
    return 0;
}
void *tq_thread_arg(const tq_thread *thread)
{
    (void)thread;
    return NULL;
}

void *tq_zlog_init(const char *category)
{
    return strcmp(category, "policy_plx") == 0 ? &port_log_lines : NULL;
}
void tqdf_zlog(void *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *format, ...)
{
    (void)file, (void)file_len, (void)func, (void)func_len, (void)line, (void)level, (void)format;
    ++*(int *)category;
}
int at_snprintf(char *buffer, size_t size, const char *format, ...)
{
    int n;
    va_list arguments;
    va_start(arguments, format);
    n = vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return n;
}

int ssat_lib_init(void *context, const char *module)
{
    return context == NULL || strstr(module, ".fp") == NULL;
}
int ssat_reg_mod_cmd(const char *module, const char *command, int reserved, const char *description,
                     ssat_handler handler)
{
    port_commands += module != NULL && command != NULL && reserved == 0 && description != NULL && handler != NULL;
    return 0;
}
int libcgstctrl_gen_init(void *context, uint32_t value, const char *name)
{
    return context == NULL || value != 3 || strcmp(name, "port") != 0;
}
int libcgstctrl_gen_topic_reg(void *context, uint32_t value, const char *name, const ProtobufCMessage *record,
                              int reserved)
{
    return context == NULL || value != 3 || name == NULL || record == NULL || reserved != 0;
}
