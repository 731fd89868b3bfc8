// Plans: any bytes are refused with a reason, or a plan whose entries are packed well and whose names fit.
#include "input.hpp"

#include <plx/types.h>
#include <sstream>
#include <tools/plx/plan.hpp>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::istringstream content(fuzz::input(data, size).rest());
    std::string error;
    const auto plan = plx::tool::read_plan(content, error);
    fuzz::require(plan.has_value() == error.empty(), "what is no plan has a reason");
    if (!plan)
        return 0;
    const size_t name = plan->policy.application.size();
    fuzz::require(name > 0 && name < FP_UDP_APP_TYPE_SIZE, "an application's name fits");
    for (const auto &acl : plan->policy.acls)
        for (const auto &entry : acl.entries)
            fuzz::require(plx::unpack(entry.attributes()).has_value() && entry.name().size() <= FP_UDP_PRIV_SIZE,
                          "an entry is whole");
    return 0;
}
