// The registration state and the small things that every operation needs.
#include "area.hpp"

namespace plx::mgr {

fp_udp_mgr_para para = {};

fp_udp_acl_info acl_descriptor(const char *app_type, uint32_t acl_id)
{
    fp_udp_acl_info acl = {};
    std::memcpy(acl.app_type, app_type, std::strlen(app_type));
    acl.acl_id = acl_id;
    return acl;
}

fp_udp_ace_info ace_descriptor(uint64_t sn)
{
    fp_udp_ace_info ace = {};
    ace.sn = sn;
    return ace;
}

fp_udp_apply_info apply_descriptor(const char *apply_type, uint32_t phyid, uint32_t priority, uint32_t direction)
{
    fp_udp_apply_info apply = {};
    std::memcpy(apply.apply_type, apply_type, std::strlen(apply_type));
    apply.phyid = phyid;
    apply.pri = priority;
    apply.dir = direction;
    apply.value_pri = priority;
    return apply;
}

uint64_t new_request_id()
{
    static uint64_t last = 0;
    timeval now = {};
    last = tq_monotime(&now) == 0 ? tq_timeval_to_us(&now) : last + 1;
    return last;
}

} // namespace plx::mgr
