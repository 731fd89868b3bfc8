// The doubles behind the platform's headers, and the application that registers with them.
#include "platform.hpp"
#include "counting.hpp"

#include <cstdlib>
#include <libcgstctrl.h>
#include <plx/diag.h>
#include <ssat.h>
#include <tq_mom.h>
#include <tq_time.h>
#include <tq_zlog.h>

namespace bench {

uint64_t store_writes;
uint64_t formatting_calls;

namespace {

struct {
    void *client;
    void *thread_master;
} application_context;

fp_udp_acl_handler callbacks()
{
    fp_udp_acl_handler handler = {};
    handler.ace_reply_ok_cb = [](void *, const fp_udp_acl_info *, uint64_t, const uint8_t *) { return 0; };
    handler.ace_fail_cb = [](void *, const fp_udp_acl_info *, uint64_t, int32_t, const uint8_t *) { return 0; };
    return handler;
}

fp_udp_mgr *registered()
{
    const fp_udp_acl_handler handler = callbacks();
    plx_initial();
    fp_udp_register_app_type(app_type);
    if (fp_udp_register_acl_handler(context(), 0, &handler) != 0)
        std::abort();
    fp_udp_mgr *mgr = fp_udp_get_mgr();
    fp_udp_debug_sw = 0;
    g_policy_plx_zlog_level = 0;
    return mgr;
}

} // namespace

void *context()
{
    return &application_context;
}

fp_udp_mgr &library()
{
    static fp_udp_mgr *mgr = registered();
    return *mgr;
}

} // namespace bench

extern "C" {

int tq_mom_client_connect_sync(void *, uint32_t)
{
    return 0;
}

int tq_mom_state_get(void *, uint32_t, int)
{
    return 0;
}

int tq_mom_hmset_sync(void *, uint32_t, const ProtobufCMessage *, const uint32_t *, uint32_t)
{
    ++bench::store_writes;
    return 0;
}

int tq_mom_set_sync(void *, uint32_t, const ProtobufCMessage *)
{
    ++bench::store_writes;
    return 0;
}

tq_mom_hash_res *tq_mom_hgetall_sync(void *, uint32_t, const ProtobufCMessage *)
{
    return nullptr;
}

void tq_mom_hash_res_free(tq_mom_hash_res *) {}

int tq_mom_del_sync(void *, uint32_t, const ProtobufCMessage *)
{
    return 0;
}

int tq_mom_scan_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t, tq_mom_callback, void *)
{
    return 0;
}

int tq_mom_subscribe(void *, uint32_t, const ProtobufCMessage *, uint32_t, tq_mom_callback, void *)
{
    return 0;
}

int tq_mom_dsbegin_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t, uint64_t)
{
    return 0;
}

int tq_mom_dsend_sync(void *, uint32_t, const ProtobufCMessage *, uint32_t, uint32_t)
{
    return 0;
}

int tq_thread_insert_timer_timeval(tq_thread_master *, tq_thread **, tq_thread_func, void *, const timeval *,
                                   const char *)
{
    return 0;
}

int ssat_lib_init(void *, const char *)
{
    return 0;
}

int ssat_reg_mod_cmd(const char *, const char *, int, const char *, ssat_handler)
{
    return 0;
}

int libcgstctrl_gen_init(void *, uint32_t, const char *)
{
    return 0;
}

int libcgstctrl_gen_topic_reg(void *, uint32_t, const char *, const ProtobufCMessage *, int)
{
    return 0;
}

void *tq_zlog_init(const char *)
{
    return bench::context();
}

void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *, ...)
{
    ++bench::formatting_calls;
}

int at_snprintf(char *buffer, size_t size, const char *, ...)
{
    ++bench::formatting_calls;
    if (size != 0)
        buffer[0] = '\0';
    return 0;
}

} // extern "C"
