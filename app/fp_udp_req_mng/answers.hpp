// Whose success replies a pending request has.
//
// A node that names itself in its answers counts once for each write, however often it says so: it may have been
// restarted, or have written an answer again whose fate it did not learn. Answers without a name count one by one.
#pragma once

#include <cstddef>
#include <plx/request.h>

namespace plx::req {

// Notes that this node confirmed what is waited for. False: it had done so before.
bool first_word(fp_udp_req_node &request, const uint8_t *name, size_t length);

} // namespace plx::req
