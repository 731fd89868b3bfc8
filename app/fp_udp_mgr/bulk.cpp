// See bulk.hpp.
#include "bulk.hpp"

#include "../fp_udp_req_mng/pending.hpp"

#include <cstdlib>
#include <plx/bulk.h>
#include <tq_mom.h>

// A platform may lack them.
#pragma weak tq_mom_batch_begin
#pragma weak tq_mom_batch_end
#pragma weak tq_mom_batch_open

namespace plx::mgr::bulk {
namespace {

constexpr uint32_t calls_per_bracket = 256;
constexpr uint32_t calls_of_one_operation = 3; // set_apply may remove two records before it writes one
constexpr uint32_t classes_remembered = 64;
constexpr int unanswered = -1; // the store client's results are positive

struct acl_class {
    fp_udp_acl_key acl;
    bool known;
    class_read read;
};

struct bracket {
    void *ctx;
    bool unbatched; // the platform has no batches
    bool batched;   // it collects
    bool settling;
    int32_t failed; // first since the beginning
    uint64_t last_id;
    uint32_t used;
    call calls[calls_per_bracket];
    int results[calls_per_bracket];
    acl_class classes[classes_remembered];
};

bracket *now = nullptr;

void settle_before_pass()
{
    (void)settle(); // told, and kept for the end
}

acl_class &class_slot(const fp_udp_acl_info &acl)
{
    return now->classes[acl.acl_id % classes_remembered];
}

bool is_for(const acl_class &slot, const fp_udp_acl_info &acl)
{
    return slot.known && slot.acl.acl_id == acl.acl_id && std::strcmp(slot.acl.app_type, acl.app_type) == 0;
}

bool is_at(void *ctx)
{
    return now != nullptr && now->ctx == ctx && !now->settling;
}

} // namespace

void make_room()
{
    if (now != nullptr && now->used + calls_of_one_operation > calls_per_bracket)
        (void)settle(); // told, and kept for the end
}

uint64_t request_id()
{
    const uint64_t id = new_request_id();
    if (now == nullptr)
        return id;
    now->last_id = id > now->last_id ? id : now->last_id + 1;
    return now->last_id;
}

bool collects(void *ctx)
{
    if (!is_at(ctx) || now->unbatched) {
        (void)settle();
        return false;
    }
    if (!now->batched) {
        now->batched = tq_mom_batch_begin != nullptr && tq_mom_batch_end != nullptr && tq_mom_batch_begin(ctx) == 0;
        now->unbatched = !now->batched;
    }
    return now->batched;
}

void add(const call &made)
{
    now->calls[now->used++] = made;
}

int32_t settle()
{
    if (now == nullptr || !now->batched || now->settling)
        return FP_UDP_OK;
    const uint32_t count = now->used;
    const int32_t earlier = now->failed;
    for (uint32_t i = 0; i < count; ++i)
        now->results[i] = unanswered;
    now->settling = true;
    now->failed = FP_UDP_OK;
    now->batched = false;
    const int rv = tq_mom_batch_end(now->ctx, now->results, count);
    for (uint32_t i = 0; i < count; ++i) {
        const int result = now->results[i] != unanswered ? now->results[i] : rv != 0 ? rv : int{TQ_MOM_BAD_ANSWER};
        now->calls[i].settle(now->ctx, now->calls[i], result);
    }
    now->used = 0;
    now->settling = false;
    const int32_t failed = now->failed;
    now->failed = earlier != FP_UDP_OK ? earlier : failed;
    return failed;
}

int admit(void *ctx)
{
    (void)settle();
    return tq_mom_batch_open != nullptr && tq_mom_batch_open(ctx) != 0 ? TQ_MOM_INVALID : TQ_MOM_OK;
}

void note(int32_t failure)
{
    if (now != nullptr && now->failed == FP_UDP_OK)
        now->failed = failure;
}

const class_read *remembered(const fp_udp_acl_info &acl)
{
    return now == nullptr || !is_for(class_slot(acl), acl) ? nullptr : &class_slot(acl).read;
}

// A read that failed is made again.
void remember(const fp_udp_acl_info &acl, class_read read)
{
    if (now == nullptr || read.result == FP_UDP_READ_FAILED)
        return;
    acl_class &slot = class_slot(acl);
    slot = {{}, true, read};
    std::memcpy(slot.acl.app_type, acl.app_type, sizeof slot.acl.app_type);
    slot.acl.acl_id = acl.acl_id;
}

void forget_classes()
{
    if (now != nullptr)
        for (acl_class &slot : now->classes)
            slot.known = false;
}

} // namespace plx::mgr::bulk

using namespace plx::mgr;
using bulk::now;

extern "C" {

int32_t plx_bulk_begin(void *g_ssd_fp_global)
{
    if (g_ssd_fp_global == nullptr || now != nullptr)
        return FP_UDP_INVALID;
    now = static_cast<bulk::bracket *>(std::calloc(1, sizeof(bulk::bracket)));
    if (now == nullptr) {
        report<Error>("calloc for a bracket fail.");
        return FP_UDP_NO_MEMORY;
    }
    now->ctx = g_ssd_fp_global;
    plx::req::before_pass = bulk::settle_before_pass;
    return FP_UDP_OK;
}

int32_t plx_bulk_flush(void *g_ssd_fp_global)
{
    if (!bulk::is_at(g_ssd_fp_global))
        return FP_UDP_INVALID;
    bulk::forget_classes();
    return bulk::settle();
}

int32_t plx_bulk_end(void *g_ssd_fp_global)
{
    if (!bulk::is_at(g_ssd_fp_global))
        return FP_UDP_INVALID;
    (void)bulk::settle();
    const int32_t failed = now->failed;
    plx::req::before_pass = nullptr;
    std::free(now);
    now = nullptr;
    return failed;
}

} // extern "C"
