// Other systems' rules: any bytes, of any kind of file, are refused or become a policy that is read without a fault.
#include "input.hpp"

#include <sstream>
#include <tools/plx/import/draft.hpp>
#include <tools/plx/policy.hpp>

using namespace plx::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using Read = void (*)(std::istream &, const import::Options &, import::Draft &);
    static constexpr Read kinds[] = {import::read_cidr, import::read_iptables, import::read_cisco, import::read_nft};
    fuzz::input input(data, size);
    const Read read = input.pick(kinds);
    const uint8_t choices = input.number();
    import::Options options;
    options.app = "a";
    options.port = (choices & 1) != 0 ? "1-4" : "";
    options.tcp_flags = (choices & 2) != 0;
    options.interfaces = {{"e1", "5"}};
    std::istringstream rules(input.rest());
    import::Draft draft;
    try {
        read(rules, options, draft);
    } catch (const import::Unsaid &) {
        return 0;
    }
    std::stringstream text;
    draft.print(text, options);
    Errors errors;
    fuzz::require(read_policy(text, "/nowhere/", errors).has_value() && errors.empty(), "what is made is a policy");
    return 0;
}
