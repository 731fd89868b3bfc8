// The library's two timers, one-shot, each inserting itself again once its work is done. The handle of a timer that has
// fired is cleared here: a timer library may leave it, and refuse to insert what looks pending.
#include "../list.hpp"
#include "area.hpp"

#include <plx/request.h>

extern "C" {
tq_thread *g_req_check_thread = nullptr;
tq_thread *g_service_expire_thread = nullptr;
}

namespace plx::req {
namespace {

// The whole interval stands in the microsecond field; the timer library takes it so.
constexpr suseconds_t req_check_us = 10'000'000;
constexpr suseconds_t service_expire_us = 15'000'000;

[[nodiscard]] int insert(tq_thread **handle, tq_thread_func func, suseconds_t interval_us)
{
    // The thread master is the second member of every context.
    auto **members = static_cast<tq_thread_master **>(g_req_para.g_ssd_fp_global);
    tq_thread_master *master = members == nullptr ? nullptr : members[1];
    const timeval interval = {0, interval_us};
    return tq_thread_insert_timer_timeval(master, handle, func, nullptr, &interval, "fp_udp_api");
}

[[nodiscard]] int insert_req_check();
[[nodiscard]] int insert_service_expire();

int on_req_check(tq_thread *)
{
    g_req_check_thread = nullptr;
    fp_udp_req_check_proc(0);
    return insert_req_check();
}

int on_service_expire(tq_thread *)
{
    g_service_expire_thread = nullptr;
    if (silence_counts())
        fp_udp_fp_service_node_expire();
    return insert_service_expire();
}

int insert_req_check()
{
    return insert(&g_req_check_thread, on_req_check, req_check_us);
}

int insert_service_expire()
{
    return insert(&g_service_expire_thread, on_service_expire, service_expire_us);
}

} // namespace
} // namespace plx::req

using namespace plx::req;

extern "C" {

int32_t fp_udp_expire(void)
{
    const int rv = insert_service_expire();
    if (rv != 0)
        report<Error>("set expire timer failed. rv = %d", rv);
    return rv;
}

int32_t fp_udp_req_check(void)
{
    const int rv = insert_req_check();
    if (rv != 0)
        report<Error>("set req_check timer failed. rv = %d", rv);
    return rv;
}

int32_t fp_udp_req_init(void *g_ssd_fp_global, const fp_udp_acl_handler *handler)
{
    g_req_para.g_ssd_fp_global = g_ssd_fp_global;
    g_req_para.handler = handler;
    plx::list::reset(g_req_para.pending);
    plx::list::reset(g_fp_service.nodes);
    g_fp_service.count = 0;
    (void)fp_udp_expire(); // reported
    return fp_udp_req_check();
}

} // extern "C"
