// See plan.hpp.
#include "plan.hpp"

#include "attribute_text.hpp"
#include "output.hpp"
#include "records/attribute.hpp"

#include <fstream>
#include <plx/types.h>

namespace plx::tool {

namespace {

constexpr const char *schema = "plx.plan/1";

std::vector<uint8_t> bytes_of(const std::string &text)
{
    if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdef") != std::string::npos)
        throw std::runtime_error("bytes that are none");
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

std::string name_of(const Row &line, size_t longest)
{
    std::string name = line.at("name");
    if (name.size() > longest || name.find('\0') != std::string::npos)
        throw std::runtime_error("a name that is too long");
    return name;
}

void add_entry(Plan &plan, const Row &line)
{
    PolicyEntry entry;
    const std::vector<uint8_t> packed = bytes_of(line.at("packed"));
    const std::string name = name_of(line, FP_UDP_PRIV_SIZE);
    if (packed.size() > UINT16_MAX || !unpack(packed) || plan.policy.acls.empty())
        throw std::runtime_error("attributes that are none");
    entry.sn = std::stoull(line.at("sn").get<std::string>());
    entry.priority = std::stoull(line.at("priority").get<std::string>());
    entry.is_default = line.at("default");
    entry.name_size = static_cast<uint8_t>(name.size());
    entry.packed_size = static_cast<uint16_t>(packed.size());
    entry.bytes = plan.policy.pool.add({reinterpret_cast<const uint8_t *>(name.data()), name.size()}, packed);
    plan.policy.acls.back().entries.push_back(entry);
}

void add(Plan &plan, const Row &line)
{
    const std::string type = line.at("type");
    if (type == "change")
        plan.changes.push_back({line.at("kind").get<std::string>().at(0), line.at("item"), line.at("how")});
    if (type == "acl") {
        PolicyAcl &acl = plan.policy.acls.emplace_back();
        acl.id = line.at("id");
        acl.name = name_of(line, FP_UDP_PRIV_SIZE - 1);
        acl.cls = line.at("class");
    }
    if (type == "entry")
        add_entry(plan, line);
    if (type == "apply")
        plan.policy.applies.push_back({{}, line.at("acl"), line.at("port"), line.at("direction"), line.at("priority")});
}

// What the reader of a policy checks, too: an ACL is there once, and what is applied is there.
bool sound(const Policy &policy)
{
    std::map<uint32_t, int> acls;
    for (const PolicyAcl &acl : policy.acls)
        if (++acls[acl.id] > 1)
            return false;
    return std::all_of(policy.applies.begin(), policy.applies.end(),
                       [&](const PolicyApply &apply) { return acls.contains(apply.acl); });
}

} // namespace

bool write_plan(const std::string &path, const Policy &policy, const PolicyDiff &diff)
{
    std::ofstream out(path, std::ios::trunc);
    const auto print = [&out](const Row &line) {
        out << line.dump(-1, ' ', true, Row::error_handler_t::replace) << '\n';
    };
    print({{"type", "plan"},
           {"schema", schema},
           {"application", policy.application},
           {"state", std::to_string(diff.state())},
           {"unchanged", diff.unchanged()}});
    for (const ItemChange &change : diff.changes())
        print({{"type", "change"}, {"kind", std::string(1, change.kind)}, {"item", change.item}, {"how", change.how}});
    for (const PolicyAcl &acl : policy.acls) {
        print({{"type", "acl"}, {"id", acl.id}, {"class", acl.cls}, {"name", acl.name}});
        for (const PolicyEntry &entry : acl.entries)
            print({{"type", "entry"},
                   {"sn", std::to_string(entry.sn)},
                   {"name", entry.name()},
                   {"priority", std::to_string(entry.priority)},
                   {"default", entry.is_default},
                   {"packed", hex(entry.attributes())}});
    }
    for (const PolicyApply &apply : policy.applies)
        print({{"type", "apply"},
               {"acl", apply.acl},
               {"port", apply.port},
               {"direction", apply.direction},
               {"priority", apply.priority}});
    print({{"type", "end"}});
    return static_cast<bool>(out.flush());
}

static void take(Plan &plan, const Row &line, bool first)
{
    if (first && line.at("schema") != schema)
        throw std::runtime_error("another kind of file");
    if (first) {
        plan.policy.application = line.at("application");
        plan.state = std::stoull(line.at("state").get<std::string>());
        plan.unchanged = line.at("unchanged");
    }
    add(plan, line);
}

std::optional<Plan> read_plan(const std::string &path, std::string &error)
{
    std::ifstream in(path);
    return read_plan(in, error);
}

std::optional<Plan> read_plan(std::istream &in, std::string &error)
{
    Plan plan;
    std::string text, last;
    try {
        for (bool first = true; std::getline(in, text); first = false) {
            const Row line = Row::parse(text);
            last = line.at("type");
            take(plan, line, first);
        }
        const size_t name = plan.policy.application.size();
        if (last == "end" && name > 0 && name < FP_UDP_APP_TYPE_SIZE && sound(plan.policy))
            return plan;
        error = last.empty() ? "it cannot be read" : "it is cut short or does not add up";
    } catch (const std::exception &wrong) {
        error = wrong.what();
    }
    return std::nullopt;
}

} // namespace plx::tool
