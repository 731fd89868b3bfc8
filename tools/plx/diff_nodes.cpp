// What service nodes have otherwise than a policy: see diff_report.hpp.
#include "diff_report.hpp"
#include "display.hpp"
#include "nodes/node_watch.hpp"
#include "nodes/planes.hpp"
#include "output.hpp"
#include "record_options.hpp"

#include <algorithm>
#include <iostream>

namespace plx::tool {

namespace {

constexpr milliseconds longest_call{500}, longest_answer{5000};

class NodesDiff {
  public:
    NodesDiff(tq_context *context, uint32_t db, const Policy &policy)
        : app_(policy.application), wanted_(Holdings::of(policy)), watch_(context, db),
          planes_(context, db, app_, "file", longest_answer)
    {
    }
    int run();

  private:
    bool same(const NodeWatch::Node &node) const;
    void ask(const NodeName &name, const NodeWatch::Node &node);
    void silent(const NodeName &name, const std::string &error);
    void tell(const NodeName &name, size_t has, const Differences &found);

    std::string app_;
    Holdings wanted_;
    NodeWatch watch_;
    Planes planes_;
    int asked_ = 0; // the store's result
    bool silent_ = false, differs_ = false;
};

int NodesDiff::run()
{
    int result = watch_.start();
    result = result != 0 ? result : watch_.look(longest_call);
    if (result != 0)
        return tell_store_error("store", result);
    std::set<NodeName> others;
    for (const auto &[name, node] : watch_.all())
        if (node.recorded && watch_.state(node) == "alive" && !same(node))
            others.insert(name);
    asked_ = others.empty() ? 0 : planes_.ask(others);
    if (asked_ != 0 && asked_ != TQ_MOM_DENIED)
        return tell_store_error("the nodes cannot be asked", asked_);
    for (const auto &[name, node] : watch_.all()) {
        if (!node.recorded)
            continue;
        if (watch_.state(node) != "alive")
            silent(name, "it shows no life");
        else if (same(node))
            tell(name, wanted_.all().size(), {});
        else
            ask(name, node);
    }
    if (watch_.recorded() == 0)
        output().note("no service node has a record in the store");
    return silent_ ? EXIT_NO_ANSWER : differs_ ? EXIT_DIFFERS : EXIT_DONE;
}

// As it reports.
bool NodesDiff::same(const NodeWatch::Node &node) const
{
    return node.report && node.report->backlog == 0 && node.report->programmed_of(app_) == sum(wanted_.parts());
}

void NodesDiff::silent(const NodeName &name, const std::string &error)
{
    silent_ = true;
    output().error(EXIT_NO_ANSWER, "node " + text_of(name) + ": " + error);
}

// Who may not ask is told what the report says.
void NodesDiff::ask(const NodeName &name, const NodeWatch::Node &node)
{
    std::string error;
    Differences found;
    const auto plane = asked_ == 0 ? planes_.has(name, error) : std::nullopt;
    if (plane)
        asked_ = planes_.compare(name, wanted_, found, error);
    if (plane && asked_ == 0 && error.empty())
        return tell(name, plane->count, found);
    const auto reported = node.report ? node.report->programmed_of(app_) : std::nullopt;
    if (asked_ == 0 || !reported)
        return silent(name, error.empty() ? tq_mom_strerror(asked_) : error);
    found.unnamed = 1;
    tell(name, reported->count, found);
}

void NodesDiff::tell(const NodeName &name, size_t has, const Differences &found)
{
    const bool differs = !found.named.empty() || found.unnamed != 0;
    differs_ = differs_ || differs;
    output().line("node", {{"node", text_of(name)},
                           {"equal", !differs},
                           {"has", has},
                           {"wanted", wanted_.all().size()},
                           {"unnamed", found.unnamed}});
    if (!output().json())
        std::cout << app_ << " on node " << text_of(name) << (differs ? ": differs, " : ": no difference, ") << has
                  << " of " << wanted_.all().size() << " records\n";
    for (const Difference &one : found.named) {
        output().line(
            "change",
            {{"node", text_of(name)}, {"kind", std::string(1, one.kind)}, {"item", one.name}, {"how", {one.what}}});
        if (!output().json())
            std::cout << one.kind << ' ' << padded(one.name, item_width) << ' ' << one.what << '\n';
    }
    if (found.unnamed != 0 && !output().json())
        std::cout << (found.named.empty() ? "  what differs, this user may not ask\n" : "  and more\n");
}

} // namespace

int tell_nodes_changes(tq_context *context, uint32_t db, const Policy &policy)
{
    return NodesDiff(context, db, policy).run();
}

} // namespace plx::tool
