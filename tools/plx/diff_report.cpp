// See diff_report.hpp.
#include "diff_report.hpp"

#include "attribute_text.hpp"
#include "display.hpp"
#include "nodes/node_watch.hpp"
#include "output.hpp"
#include "records/host.hpp"
#include "records/node_report.hpp"

#include <algorithm>
#include <iostream>
#include <set>

namespace plx::tool {

namespace {

void object(const std::string &text)
{
    output().line("objection", {{"text", text}});
    if (!output().json())
        std::cout << "! " << text << '\n';
}

void object_to_ports(const Policy &policy, const std::map<NodeName, NodeReport> &reports)
{
    std::set<uint32_t> there, wanted;
    for (const auto &[name, report] : reports) {
        if (report.ports.empty()) // it has all
            return;
        there.insert(report.ports.begin(), report.ports.end());
    }
    for (const PolicyApply &apply : policy.applies)
        if (!there.contains(apply.port) && wanted.insert(apply.port).second)
            object("port " + std::to_string(apply.port) + ": no live node has it");
}

// What a node has of the application in entries, as far as its report tells.
size_t entries_there(const std::string &app, size_t applies, const NodeReport &report)
{
    const size_t records = report.programmed_of(app).value_or(Digest()).count;
    return records - std::min(records, applies);
}

void object_to_room(const Policy &policy, size_t applies, const NodeName &name, const NodeReport &report,
                    bool every_node)
{
    size_t entries = 0;
    for (const PolicyAcl &acl : policy.acls)
        entries += acl.entries.size();
    const size_t there = entries_there(policy.application, applies, report);
    const uint64_t left = report.room - std::min(report.room, report.entries);
    const std::string text = "node " + text_of(name) + ": room for " + std::to_string(left) + " more of " +
                             std::to_string(report.room) + " entries, " +
                             (entries < there ? std::to_string(there - entries) + " would go"
                                              : std::to_string(entries - there) + " would come");
    if (entries > there && entries - there > left)
        return object(text);
    if (!every_node)
        return;
    output().line(
        "room",
        {{"node", text_of(name)}, {"left", left}, {"room", report.room}, {"there", there}, {"wanted", entries}});
    if (!output().json())
        std::cout << "  " << text << '\n';
}

void object_to_attributes(const Policy &policy, const NodeName &name, const NodeReport &report)
{
    const std::set<uint32_t> refused(report.refused_attributes.begin(), report.refused_attributes.end());
    std::set<uint32_t> told;
    for (const PolicyAcl &acl : policy.acls)
        for (const PolicyEntry &entry : acl.entries)
            for (const Attribute &attribute : unpack(entry.attributes()).value_or(std::vector<Attribute>())) {
                const uint32_t number = static_cast<uint32_t>(attribute.cls) << 16U | attribute.id;
                if (!refused.contains(number) || !told.insert(number).second)
                    continue;
                bool known = false;
                object("node " + text_of(name) + " refuses " + attribute_name(attribute, form_of(attribute, known)) +
                       ", first in acl " + std::to_string(acl.id) + " entry " + std::to_string(entry.sn));
            }
}

} // namespace

int tell_changes(const std::string &application, const std::vector<ItemChange> &changes, size_t unchanged)
{
    std::map<char, size_t> counts;
    for (const ItemChange &change : changes)
        ++counts[change.kind];
    output().summary().update({{"application", application},
                               {"add", counts['+']},
                               {"change", counts['~']},
                               {"remove", counts['-']},
                               {"unchanged", unchanged}});
    if (!output().json())
        std::cout << application << ": " << counts['+'] << " to add, " << counts['~'] << " to change, " << counts['-']
                  << " to remove, " << unchanged << " unchanged\n";
    for (const ItemChange &change : changes) {
        output().line("change", {{"kind", std::string(1, change.kind)}, {"item", change.item}, {"how", change.how}});
        if (output().json())
            continue;
        const std::string how = change.how_text();
        std::cout << change.kind << ' ' << (how.empty() ? change.item : padded(change.item, item_width) + ' ' + how)
                  << '\n';
    }
    return changes.empty() ? EXIT_DONE : EXIT_DIFFERS;
}

int tell_objections(tq_context *context, uint32_t db, const Policy &policy, size_t applies, bool every_node)
{
    std::map<NodeName, NodeReport> reports;
    const int result = read_reports(context, db, reports);
    std::erase_if(reports,
                  [](const auto &each) { return each.second.time_ms + counted_out.count() < wall_clock_ms(); });
    object_to_ports(policy, reports);
    for (const auto &[name, report] : reports) {
        object_to_room(policy, applies, name, report, every_node);
        object_to_attributes(policy, name, report);
    }
    return result;
}

} // namespace plx::tool
