// `plx check`: what is wrong with a policy file, and what is suspicious in it, without a store.
#include "check/warnings.hpp"
#include "commands.hpp"
#include "output.hpp"

#include <iostream>
#include <memory>

namespace plx::tool {

namespace {

struct CheckOptions {
    std::string file;
    std::vector<std::string> ignored; // kinds of warnings
    bool warnings = true;
    bool strict = false;
    bool json = false;
};

std::string counted(size_t count, const std::string &what)
{
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

void summarise(const Policy &policy, size_t warnings)
{
    size_t entries = 0;
    for (const PolicyAcl &acl : policy.acls)
        entries += acl.entries.size();
    output().summary() = {
        {"acls", policy.acls.size()}, {"entries", entries}, {"applies", policy.applies.size()}, {"warnings", warnings}};
    if (!output().json())
        std::cout << counted(policy.acls.size(), "ACL") << ", " << entries << (entries == 1 ? " entry, " : " entries, ")
                  << policy.applies.size() << (policy.applies.size() == 1 ? " apply, " : " applies, ")
                  << counted(warnings, "warning") << '\n';
}

int check(const CheckOptions &options)
{
    output().begin("check", options.json);
    Errors errors;
    const auto policy = read_policy(options.file, errors);
    tell(errors, options.file);
    if (!policy)
        return output().error(EXIT_BAD_FILE, counted(errors.size(), "error") + " in the policy");
    const Warnings warnings = options.warnings ? find_warnings(*policy, options.ignored) : Warnings();
    tell_warnings(warnings.found, options.file);
    if (warnings.bounded)
        output().note("not every entry was compared with all in front of it: there are too many, or of too many kinds");
    summarise(*policy, warnings.found.size());
    return options.strict && !warnings.found.empty() ? EXIT_BAD_FILE : EXIT_DONE;
}

} // namespace

void add_check_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<CheckOptions>();
    CLI::App *command = app.add_subcommand("check", "Check a policy file, without a store: errors, and warnings about "
                                                    "what is valid and suspicious.");
    command->add_option("FILE", options->file, "policy, in YAML; - for standard input")->required();
    command->add_flag("--warnings,!--no-warnings", options->warnings, "look for what is suspicious; on when not given");
    command->add_option("--ignore", options->ignored, "a kind of warning that is not to be looked for")
        ->check(CLI::IsMember(kinds_of_warnings()))
        ->allow_extra_args(false);
    command->add_flag("--strict", options->strict, "end with 2 when there are warnings, too");
    command->add_flag("--json", options->json, "one JSON object a line, for scripts");
    command->callback([options, &exit_code] { exit_code = check(*options); });
}

} // namespace plx::tool
