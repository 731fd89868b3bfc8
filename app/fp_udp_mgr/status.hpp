// Handlers of the records that service nodes write; registration subscribes them.
#pragma once

#include <tq_mom.h>

namespace plx::mgr {

int32_t ace_service_call_back(void *ctx, const tq_mom_notification *notification, void *arg);
int32_t apply_service_call_back(void *ctx, const tq_mom_notification *notification, void *arg);
int32_t ace_cnter_notify_call_back(void *ctx, const tq_mom_notification *notification, void *arg);

} // namespace plx::mgr
