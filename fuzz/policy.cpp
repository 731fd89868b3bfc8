// Policy files: any bytes are a policy within its limits or a list of what is wrong with them.
#include "input.hpp"

#include <plx/types.h>
#include <sstream>
#include <tools/plx/policy.hpp>

namespace {

using namespace plx::tool;

void check(const PolicyEntry &entry)
{
    const auto attributes = plx::unpack(entry.attributes());
    fuzz::require(attributes.has_value(), "an entry is packed well");
    for (const plx::Attribute &attribute : *attributes) {
        bool known = false;
        fuzz::require(plx::form_of(attribute, known) != nullptr, "an attribute has its form");
    }
    fuzz::require(entry.name().size() <= FP_UDP_PRIV_SIZE, "an entry's name fits");
}

void check(const Policy &policy)
{
    fuzz::require(!policy.application.empty() && policy.application.size() < FP_UDP_APP_TYPE_SIZE,
                  "an application's name fits");
    for (const PolicyAcl &acl : policy.acls) {
        fuzz::require(acl.name.size() <= FP_UDP_PRIV_SIZE, "an ACL's name fits");
        for (const PolicyEntry &entry : acl.entries)
            check(entry);
    }
}

// What is said of a file goes to a terminal.
void check(const Errors &errors)
{
    fuzz::require(!errors.empty(), "what is not a policy has a fault");
    for (const auto &[place, line] : errors.told("file"))
        for (const char c : place.file + line)
            fuzz::require(c >= ' ' && c < 0x7f, "a fault is plain text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::istringstream content(fuzz::input(data, size).rest());
    Errors errors;
    const auto policy = read_policy(content, "/nowhere/", errors);
    fuzz::require(policy.has_value() == errors.empty(), "a policy is read or faults are told");
    if (policy)
        check(*policy);
    else
        check(errors);
    return 0;
}
