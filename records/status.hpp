// What a service node answers a request with: the `p_status` of its status record, and what an application's fail
// callback receives.
//
// 0 is success. The other codes start above those of the store client and of the library, so that a number in a log
// tells by itself who refused.
#pragma once

#include <cstdint>
#include <plx/status.h>
#include <string_view>

namespace plx {

enum class Status : int32_t {
    ok = FP_UDP_NODE_OK,
    table_full = FP_UDP_NODE_TABLE_FULL,
    unsupported = FP_UDP_NODE_UNSUPPORTED,
    malformed = FP_UDP_NODE_MALFORMED,
    bad_value = FP_UDP_NODE_BAD_VALUE,
    refused = FP_UDP_NODE_REFUSED,
    out_of_range = FP_UDP_NODE_OUT_OF_RANGE,
    contradiction = FP_UDP_NODE_CONTRADICTION,
    not_permitted = FP_UDP_NODE_NOT_PERMITTED,
    plane_error = FP_UDP_NODE_PLANE_ERROR,
    no_interface = FP_UDP_NODE_NO_INTERFACE
};

// A short text for a status word as it came from the store: any number may be in it.
std::string_view status_text(int32_t status);

} // namespace plx
