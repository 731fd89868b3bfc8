// See node_records.hpp.
#include "nodes/node_records.hpp"

#include "display.hpp"
#include "nodes/node_rows.hpp"
#include "records/status.hpp"
#include "rows.hpp"
#include <iostream>
#include <memory>
#include <plx/s_policy.pb-c.h>

namespace plx::tool {

namespace {

constexpr milliseconds longest_call{500};

struct ForgetOptions : StoreOptions {
    std::string node;
    bool force = false;
};

void print_refusals(const NodeName &name, const NodeReport &report, const std::string *app)
{
    size_t told = 0;
    for (const NodeEntry &refusal : report.refusals) {
        if (app != nullptr && refusal.app != *app)
            continue;
        if (told++ == 0)
            std::cout << "refused by " << text_of(name) << ":\n";
        std::cout << "  " << printable(refusal.app) << ' ' << printable(refusal.name) << ": "
                  << status_text(refusal.status) << " (" << refusal.status << ')'
                  << (refusal.text.empty() ? "" : ": " + printable(refusal.text)) << '\n';
    }
    if (app == nullptr && report.refused > told)
        std::cout << "  and " << report.refused - told << " more\n";
}

int remove(tq_context *context, uint32_t db, const NodeName &name)
{
    for (const auto *table : {&s_policy__service_node__descriptor, &plx_node__node_report__descriptor}) {
        Record record(*table);
        record.set_key_number(0, name.dev);
        record.set_key_number(1, name.slot);
        record.set_key_number(2, name.id);
        if (const int result = tq_mom_del_sync(context, db, record.message()); result != 0)
            return tell_store_error(table_name(*table), result);
    }
    return EXIT_DONE;
}

// The exit code. The context is to outlive the watch.
int look_for_nodes(const StoreOptions &options, Context &context, std::optional<NodeWatch> &nodes)
{
    int exit_code = EXIT_DONE;
    context = open_store(options, exit_code);
    if (context == nullptr)
        return exit_code;
    int result = nodes.emplace(context.get(), options.db).start();
    result = result != 0 ? result : nodes->look(longest_call);
    return result == 0 ? EXIT_DONE : tell_store_error("store", result);
}

int forget(const ForgetOptions &options)
{
    const auto name = node_name(options.node);
    if (!name)
        return output().error(EXIT_USAGE, "'" + options.node + "' is not a node: DEV/SLOT/ID");
    Context context;
    std::optional<NodeWatch> nodes;
    if (const int code = look_for_nodes(options, context, nodes); code != EXIT_DONE)
        return code;
    const auto found = nodes->all().find(*name);
    if (found == nodes->all().end())
        return output().error(EXIT_SOME_FAILED, "the store has no node " + text_of(*name));
    if (nodes->state(found->second) != "silent" && !options.force)
        return output().error(EXIT_SOME_FAILED, "node " + text_of(*name) + " is " +
                                                    std::string(nodes->state(found->second)) +
                                                    ": with --force it is forgotten all the same");
    return remove(context.get(), options.db, *name);
}

} // namespace

int show_nodes(const RecordOptions &options)
{
    Context context;
    std::optional<NodeWatch> nodes;
    if (const int code = look_for_nodes(options, context, nodes); code != EXIT_DONE)
        return code;
    const std::string *app = options.by_app ? &options.app : nullptr;
    std::vector<Row> rows;
    for (const auto &[name, node] : nodes->all()) {
        if (options.by_acl || options.by_sn ||
            (app != nullptr && (!node.report || !node.report->applications.contains(*app))))
            continue;
        rows.push_back(row_of(name, node, nodes->state(node), app));
        output().line("node", json_of(name, node, nodes->state(node)));
    }
    if (options.json || rows.empty())
        return EXIT_DONE;
    print_table(rows);
    for (const auto &[name, node] : nodes->all())
        if (node.report)
            print_refusals(name, *node.report, app);
    return EXIT_DONE;
}

void add_forget_command(CLI::App &node, int &exit_code)
{
    const auto options = std::make_shared<ForgetOptions>();
    CLI::App *command =
        node.add_subcommand("forget", "Take the records of a node that is gone for good out of the store.");
    command->add_option("NODE", options->node, "DEV/SLOT/ID")->required();
    options->add_to(*command);
    command->add_flag("--force", options->force, "also of a node that lives");
    command->callback([options, &exit_code] {
        output().begin("node", options->json);
        exit_code = forget(*options);
    });
}

} // namespace plx::tool
