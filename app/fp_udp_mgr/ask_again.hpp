// Asking the service nodes again, where answers of theirs were lost.
#pragma once

namespace plx::mgr {

// From now on, a few at a time, whatever is pending at this moment is written anew.
void ask_again(void *ctx);

} // namespace plx::mgr
