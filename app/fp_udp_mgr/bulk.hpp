// Calls that are collected between plx_bulk_begin() and plx_bulk_end(): cached at once, settled together.
//
// 1. A call that may be collected makes room first, while it holds no node: settling runs callbacks, which may delete
//    any.
// 2. It caches, writes into the platform's batch, and leaves what is to be done with the store's word on it (add).
// 3. settle() ends the platform's batch before it looks at any result, so that callbacks find no batch open. What they
//    call goes to the store at once.
// 4. Everything else that goes to the store settles first (admit, settle). No batch is open while none is collected.
//
// One bracket for the process, on the context that it was begun with. Without one, and on a platform that has no
// batches, nothing is ever collected.
#pragma once

#include "area.hpp"

namespace plx::mgr::bulk {

// One collected call: what it was about, and what happens once its result is known.
struct call {
    void (*settle)(void *ctx, const call &made, int result);
    fp_udp_acl_key acl;
    fp_udp_apply_key apply;
    uint64_t sn;
    uint64_t ace_pri;
    uint64_t uuid;
};

// Settles where the bracket is full.
void make_room();
// The identifier of a request: in a bracket one that no other call of it has.
uint64_t request_id();
// Whether a write made now is collected. Where it is not, nothing is.
bool collects(void *ctx);
void add(const call &made);
// Ends the batch and does what is to be done. The first failure, or 0. From inside a callback that it runs, nothing.
int32_t settle();
// Before a call that goes to the store at once. TQ_MOM_INVALID while the application has a batch of its own open: it
// would get the result, and nobody the failure.
[[nodiscard]] int admit(void *ctx);
// A failure for the result of flush and end.
void note(int32_t failure);

// What reading the class of an ACL gave in this bracket: the class, written on success alone, and the read's result.
struct class_read {
    int32_t result;
    uint8_t acl_cls;
};
const class_read *remembered(const fp_udp_acl_info &acl);
void remember(const fp_udp_acl_info &acl, class_read read);
void forget_classes();

} // namespace plx::mgr::bulk
