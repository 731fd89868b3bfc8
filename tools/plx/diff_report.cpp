// See diff_report.hpp.
#include "diff_report.hpp"

#include "attribute_text.hpp"
#include "display.hpp"
#include "output.hpp"
#include "records/host.hpp"
#include "records/node_report.hpp"

#include <algorithm>
#include <iostream>
#include <set>

namespace plx::tool {

namespace {

constexpr size_t item_width = 32;
constexpr uint64_t dead_after_ms = 20'000; // as applications count

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

size_t entries_on(const std::map<std::string, NodeApplication> &applications, const std::string &app)
{
    const auto found = applications.find(app);
    return found == applications.end() ? 0 : found->second.programmed.count;
}

void object_to_room(const Policy &policy, const NodeName &name, const NodeReport &report)
{
    uint64_t entries = 0;
    for (const PolicyAcl &acl : policy.acls)
        entries += acl.entries.size();
    // what the application has there now includes its applies: the answer may be too good by as many
    const uint64_t others =
        report.entries - std::min<uint64_t>(report.entries, entries_on(report.applications, policy.application));
    if (others + entries > report.room)
        object("node " + text_of(name) + ": room for " + std::to_string(report.room) + " entries, " +
               std::to_string(others + entries) + " would be there");
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
        std::string how;
        for (const std::string &each : change.how)
            how += (how.empty() ? "" : ", ") + each;
        std::cout << change.kind << ' ' << (how.empty() ? change.item : padded(change.item, item_width) + ' ' + how)
                  << '\n';
    }
    return changes.empty() ? EXIT_DONE : EXIT_DIFFERS;
}

int tell_objections(tq_context *context, uint32_t db, const Policy &policy)
{
    std::map<NodeName, NodeReport> reports;
    const int result = read_reports(context, db, reports);
    std::erase_if(reports, [](const auto &each) { return each.second.time_ms + dead_after_ms < wall_clock_ms(); });
    object_to_ports(policy, reports);
    for (const auto &[name, report] : reports) {
        object_to_room(policy, name, report);
        object_to_attributes(policy, name, report);
    }
    return result;
}

} // namespace plx::tool
