// `plx diff`: what a policy file would change in the store, and a plan of it.
#include "commands.hpp"
#include "diff_report.hpp"
#include "output.hpp"
#include "plan.hpp"
#include "record_options.hpp"

#include <cerrno>
#include <cstring>
#include <memory>

namespace plx::tool {

namespace {

struct DiffOptions : StoreOptions {
    std::string file, plan, show, against = "store";
};

int show_plan(const std::string &path)
{
    std::string error;
    const auto plan = read_plan(path, error);
    if (!plan)
        return output().error(EXIT_BAD_FILE, "this is not a plan: " + error, {.file = path});
    return tell_changes(plan->policy.application, plan->changes, plan->unchanged);
}

int run_diff(const DiffOptions &options)
{
    if (!options.show.empty())
        return show_plan(options.show);
    Errors errors;
    const auto policy = read_policy(options.file, errors);
    tell(errors, options.file);
    if (!policy || !errors.empty())
        return EXIT_BAD_FILE;
    int exit_code = EXIT_DONE;
    const Context context = open_store(options, exit_code);
    if (context == nullptr)
        return exit_code;
    if (options.against == "nodes")
        return tell_nodes_changes(context.get(), options.db, *policy);
    PolicyDiff diff(*policy);
    if (const int result = diff.compare(context.get(), options.db); result != 0)
        return tell_store_error("store", result);
    exit_code = tell_changes(policy->application, diff.changes(), diff.unchanged());
    if (const int result = tell_objections(context.get(), options.db, *policy, diff.applies(), false); result != 0)
        return tell_store_error("store", result);
    if (!options.plan.empty() && !write_plan(options.plan, *policy, diff))
        return output().error(EXIT_NO_OUTPUT, std::string("the plan cannot be written: ") + std::strerror(errno),
                              {.file = options.plan});
    return exit_code;
}

} // namespace

void add_diff_command(CLI::App &app, int &exit_code)
{
    const auto options = std::make_shared<DiffOptions>();
    CLI::App *command =
        app.add_subcommand("diff", "Show what a policy file would change in the store, or on the nodes.");
    auto *file = command->add_option("FILE", options->file, "policy, in YAML; - for standard input");
    options->add_to(*command);
    auto *plan = command->add_option("-o,--output", options->plan, "write a plan of it, for plx apply --plan");
    auto *show =
        command->add_option("--show", options->show, "show a plan, however old it is")->excludes(file)->excludes(plan);
    command
        ->add_option("--against", options->against, "with what to compare: what the store asks for, or what nodes have")
        ->check(CLI::IsMember({"store", "nodes"}))
        ->excludes(show)
        ->excludes(plan)
        ->capture_default_str();
    command->footer("+ is to be added, ~ changed, - removed; ! is what a service node would not take.\n"
                    "Exit code 0: no difference; 6: differences, and nothing else is wrong; 4: with --against nodes, "
                    "a node did not answer.");
    command->callback([options, &exit_code] {
        if (options->file.empty() && options->show.empty())
            throw CLI::RequiredError("FILE");
        output().begin("diff", options->json);
        exit_code = run_diff(*options);
    });
}

} // namespace plx::tool
