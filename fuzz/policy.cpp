// Policy files: any bytes are a policy within its limits or a list of what is wrong with them.
#include "input.hpp"

#include <plx/types.h>
#include <tools/plx/policy.hpp>

namespace {

using namespace plx::tool;

void check(const PolicyEntry &entry)
{
    for (const PolicyAttribute &attribute : entry.attributes) {
        fuzz::require(attribute.form != nullptr, "an attribute has its form");
        fuzz::require(attribute.value.size() <= FP_UDP_ATTR_VALUE_MAX, "an attribute's value fits");
    }
    fuzz::require(entry.name.size() <= FP_UDP_PRIV_SIZE, "an entry's name fits");
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
    for (const std::string &line : errors.lines("file"))
        for (const char c : line)
            fuzz::require(c >= ' ' && c < 0x7f, "a fault is plain text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string content = fuzz::input(data, size).rest();
    Part root;
    Errors errors;
    if (!parse_document(content, root, errors)) {
        check(errors);
        return 0;
    }
    const auto policy = read_policy(root, errors);
    fuzz::require(policy.has_value() == errors.empty(), "a policy is read or faults are told");
    if (policy)
        check(*policy);
    else
        check(errors);
    return 0;
}
