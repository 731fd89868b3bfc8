// What the files of this area share: the source path that they report under, the registration state, names and
// descriptors.
#pragma once

#include "../fp_udp_dbg/channel/channel.hpp"

#include <cstring>
#include <plx/cache.h>
#include <plx/manager.h>
#include <tq_time.h>

namespace plx::mgr {

inline constexpr char source[] = "app/fp_udp_mgr.cpp";
template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
using enum diag::Word;

// The one application type whose ACLs are followed in the store, and the database that is always asked for them.
inline constexpr char security_app[] = "security_app";
inline constexpr uint32_t security_db = 8;

// The registration state.
struct fp_udp_mgr_para {
    uint32_t db;                // of every write, and of status and service-node subscriptions
    fp_udp_acl_handler handler; // the application's callbacks
    uint8_t inited;             // a registration has succeeded
    int32_t app_type_num;       // entries of regist_app_type
    uint8_t cmp_apply_skip_prio;
    uint8_t set_up; // cache, commands and timers stand, whatever became of the subscriptions
};
extern fp_udp_mgr_para para;

// True for a name of at most 31 characters; a null name is none.
inline bool valid(const char *name)
{
    return name != nullptr && strnlen(name, FP_UDP_APP_TYPE_SIZE) < FP_UDP_APP_TYPE_SIZE;
}

// True for an ACL, ACL key or descriptor that is there and has a valid name.
template <class Named> bool valid(const Named *named) requires requires
{
    named->app_type;
}
{
    return named != nullptr && valid(named->app_type);
}

// Reports a name that is not valid, as the calling function.
[[nodiscard]] inline int32_t refuse_name(const char *function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    report<Error>(diag::place{function, line}, "app_type is invalid");
    return FP_UDP_INVALID;
}

// Descriptors in which only what names the thing is filled. The names must be valid.
fp_udp_acl_info acl_descriptor(const char *app_type, uint32_t acl_id);
fp_udp_ace_info ace_descriptor(uint64_t sn);
fp_udp_apply_info apply_descriptor(const char *apply_type, uint32_t phyid, uint32_t priority, uint32_t direction);

// Starts a cached ACE or apply over: what an earlier write was answered counts no more.
template <class Info> void start_over(Info &cached, const Info &fresh)
{
    cached.stat = 0;
    cached.uuid = fresh.uuid;
    std::memcpy(cached.priv, fresh.priv, sizeof fresh.priv);
    cached.req_count = 0;
    cached.is_req = 0;
}

// The identifier of a request: the monotonic clock in microseconds. While the clock cannot be read, one more than the
// last.
uint64_t new_request_id();

} // namespace plx::mgr
