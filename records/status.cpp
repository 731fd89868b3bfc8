// Texts of the status codes.
#include "records/status.hpp"

namespace plx {

std::string_view status_text(int32_t status)
{
    switch (static_cast<Status>(status)) {
    case Status::ok:
        return "ok";
    case Status::table_full:
        return "table full";
    case Status::unsupported:
        return "unsupported attribute";
    case Status::malformed:
        return "malformed attributes";
    case Status::bad_value:
        return "attribute value of wrong size";
    case Status::refused:
        return "refused by configuration";
    case Status::out_of_range:
        return "number out of range";
    }
    return "unknown status";
}

} // namespace plx
