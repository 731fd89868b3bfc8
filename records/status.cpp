// Texts of the status codes: the public header's.
#include "records/status.hpp"

namespace plx {

std::string_view status_text(int32_t status)
{
    return plx_node_status_text(status);
}

} // namespace plx
