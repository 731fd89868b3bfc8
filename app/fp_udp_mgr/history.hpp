// Tells the application that the store has lost what was written to it (plx/history.h).
#pragma once

#include <tq_mom.h>

namespace plx::mgr {

// To be called with what any subscription is told.
void note_history(void *ctx, const tq_mom_notification &notification);

} // namespace plx::mgr
