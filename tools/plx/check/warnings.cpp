// See warnings.hpp.
#include "check/warnings.hpp"

#include "check/deciders.hpp"
#include "explain/entries.hpp"
#include <algorithm>
#include <set>

namespace plx::tool {

using namespace plane::packet;

namespace {

// In the order of their names.
enum class WarningKind : uint8_t {
    contradiction,
    refused,
    no_verdict,
    no_match,
    shadowed,
    default_shadowed,
    one_range
};

bool has(const PolicyEntry &entry, fp_udp_attr_class cls, std::initializer_list<std::string_view> names)
{
    const auto attributes = unpack(entry.attributes());
    return std::any_of(attributes->begin(), attributes->end(), [&](const Attribute &attribute) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        return form != nullptr && form->cls == cls &&
               (names.size() == 0 || std::find(names.begin(), names.end(), form->name) != names.end());
    });
}

std::string line_of(const PolicyEntry &entry)
{
    return entry_label(entry.sn, entry.name()) + " (line " + std::to_string(entry.at.line) + ')';
}

// The ports that entries have which are alike in all else.
struct Alike {
    std::string_view range; // the attribute that takes several
    std::vector<std::pair<uint16_t, const PolicyEntry *>> ports{};
};

class Finder {
  public:
    Finder(const Policy &policy, const std::vector<std::string> &ignored) : policy_(policy), ignored_(ignored) {}

    Warnings find()
    {
        for (const PolicyAcl &acl : policy_.acls)
            for (const PolicyEntry &entry : acl.entries)
                numbers_.mention(entry.attributes());
        for (const PolicyAcl &acl : policy_.acls)
            look_at(acl);
        return std::move(warnings_);
    }

  private:
    void look_at(const PolicyAcl &acl)
    {
        std::vector<const PolicyEntry *> order;
        for (const PolicyEntry &entry : acl.entries)
            order.push_back(&entry);
        std::sort(order.begin(), order.end(),
                  [](const PolicyEntry *one, const PolicyEntry *other) { return asked_before(*one, *other); });
        const bool has_default = !order.empty() && order.back()->is_default;
        Deciders deciders;
        alike_.clear();
        for (const PolicyEntry *entry : order)
            look_at(*entry, has_default, deciders);
        find_ranges();
        warnings_.bounded = warnings_.bounded || deciders.bounded();
    }

    void look_at(const PolicyEntry &entry, bool has_default, Deciders &deciders)
    {
        const CompiledEntry whole = compile_entry(entry.attributes(), numbers_.config());
        const Compiled &compiled = whole.compiled;
        if (compiled.status == Status::contradiction)
            warn(entry, WarningKind::contradiction, "no frame can match: " + compiled.text);
        else if (compiled.status == Status::out_of_range)
            warn(entry, WarningKind::refused, "nodes refuse it: " + compiled.text);
        if (!has(entry, FP_UDP_ATTR_ACTION, {"fwd", "redirect", "trap_id"}))
            warn(entry, WarningKind::no_verdict, "no verdict, so it permits; 'fwd: permit' says that it is meant");
        if (!entry.is_default && !has(entry, FP_UDP_ATTR_FIELD, {}))
            warn(entry, WarningKind::no_match, "matches every frame; 'default: true' says that it is meant");
        note_ports(entry);
        if (compiled.status != Status::ok || compiled.rules.empty() || (compiled.unless_default && has_default))
            return;
        if (!find_cover(entry, compiled, deciders) && whole.left_out.empty())
            keep(entry, compiled, deciders);
    }

    // Whether other entries leave it nothing.
    bool find_cover(const PolicyEntry &entry, const Compiled &compiled, const Deciders &deciders)
    {
        const Decider *first = nullptr;
        for (const Rule &rule : compiled.rules) {
            const Decider *decider = deciders.covering(Knowledge(rule.tests));
            if (decider == nullptr)
                return false;
            first = first == nullptr ? decider : first;
        }
        warn(entry, entry.is_default ? WarningKind::default_shadowed : WarningKind::shadowed,
             std::string(entry.is_default ? "the default entry is " : "") + "never asked: " + line_of(*first->entry) +
                 " comes first and takes all that it matches (" + std::string(verdict_word(first->verdict)) + ')');
        return true;
    }

    static void keep(const PolicyEntry &entry, const Compiled &compiled, Deciders &deciders)
    {
        for (const Rule &rule : compiled.rules) {
            if (decides(rule))
                deciders.add(rule, entry);
        }
    }

    // One of each kind at a place: there may be many entries.
    void warn(const PolicyEntry &entry, WarningKind kind, const std::string &text)
    {
        const std::string &name = kinds_of_warnings()[static_cast<size_t>(kind)];
        if (std::find(ignored_.begin(), ignored_.end(), name) == ignored_.end() && told_.emplace(entry.at, kind).second)
            warnings_.found.add(entry.at, entry_label(entry.sn, entry.name()) + ": " + text);
    }

    void note_ports(const PolicyEntry &entry)
    {
        const auto attributes = unpack(entry.attributes());
        for (const Attribute &attribute : *attributes) {
            bool known = false;
            const Form *form = form_of(attribute, known);
            const bool destination = form != nullptr && form->name == "dst_l4port";
            if (form == nullptr || form->cls != FP_UDP_ATTR_FIELD || attribute.value.size() != 2 ||
                (!destination && form->name != "src_l4port"))
                continue;
            const std::span<const uint8_t> all = entry.attributes();
            std::string others = std::to_string(entry.priority) + (destination ? "d" : "s");
            others.append(all.data(), attribute.value.data());
            others.append(attribute.value.data() + 2, all.data() + all.size());
            Alike &alike =
                alike_.try_emplace(std::move(others), Alike{destination ? "dst_range" : "src_range"}).first->second;
            alike.ports.emplace_back(attribute.value[0] << 8U | attribute.value[1], &entry);
        }
    }

    void find_ranges()
    {
        for (auto &[others, alike] : alike_) {
            auto &ports = alike.ports;
            std::sort(ports.begin(), ports.end(),
                      [](const auto &one, const auto &other) { return one.first < other.first; });
            for (size_t first = 0, next = 0; first < ports.size(); first = next) {
                for (next = first + 1; next < ports.size() && ports[next].first == ports[next - 1].first + 1;)
                    ++next;
                if (next - first >= 3)
                    tell_range(alike.range, std::span(ports).subspan(first, next - first));
            }
        }
    }

    void tell_range(std::string_view range, std::span<const std::pair<uint16_t, const PolicyEntry *>> ports)
    {
        const PolicyEntry *entry = ports.front().second;
        for (const auto &[port, other] : ports)
            entry = other->at < entry->at ? other : entry;
        const std::string text =
            std::string(range) + ": " + std::to_string(ports.front().first) + '-' + std::to_string(ports.back().first);
        warn(*entry, WarningKind::one_range,
             "one of " + std::to_string(ports.size()) + " that differ in the port alone; '" + text +
                 "' says it in one");
    }

    const Policy &policy_;
    const std::vector<std::string> &ignored_; // kinds
    Numbers numbers_;
    Warnings warnings_;
    std::set<std::pair<Position, WarningKind>> told_;
    std::unordered_map<std::string, Alike> alike_;
};

} // namespace

const std::vector<std::string> &kinds_of_warnings()
{
    static const std::vector<std::string> names = {"contradiction", "refused",          "no-verdict", "no-match",
                                                   "shadowed",      "default-shadowed", "one-range"};
    return names;
}

Warnings find_warnings(const Policy &policy, const std::vector<std::string> &ignored)
{
    return Finder(policy, ignored).find();
}

} // namespace plx::tool
