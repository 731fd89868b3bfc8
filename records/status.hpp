// What a service node answers a request with: the `p_status` of its status record, and what an application's fail
// callback receives.
//
// 0 is success. The other codes start above those of the store client and of the library, so that a number in a log
// tells by itself who refused.
#pragma once

#include <cstdint>
#include <string_view>

namespace plx {

enum class Status : int32_t {
    ok = 0,            // programmed
    table_full = 101,  // the table has no room for one more entry
    unsupported = 102, // an attribute that this plane does not know
    malformed = 103,   // the packed attributes do not add up to the buffer's length
    bad_value = 104,   // an attribute's value has not the size of its form
    refused = 105,     // the plane is configured to refuse this entry
    out_of_range = 106 // a number in the key or the record is beyond what the plane has
};

// A short text for a status word as it came from the store: any number may be in it.
std::string_view status_text(int32_t status);

} // namespace plx
