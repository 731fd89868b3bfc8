// See entries.hpp.
#include "explain/entries.hpp"

#include "document.hpp"

namespace plx::tool {

using namespace plane::packet;

namespace {

uint32_t number_of(const Attribute &attribute)
{
    uint32_t number = 0;
    for (const uint8_t byte : attribute.value.first(std::min<size_t>(attribute.value.size(), sizeof number)))
        number = number << 8U | byte;
    return number;
}

} // namespace

std::string interface_of(uint32_t port)
{
    return 'p' + std::to_string(port);
}

Numbers::Numbers()
{
    config_.sample_group = 1;
    config_.double_tagged = true;
}

void Numbers::mention(std::span<const uint8_t> packed)
{
    const auto attributes = unpack(packed);
    for (const Attribute &attribute : attributes.value_or(std::vector<Attribute>())) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        if (form == nullptr || form->cls == FP_UDP_ATTR_CTRL)
            continue;
        const uint32_t number = number_of(attribute);
        if (form->name == "input_port" || form->name == "dst_port" || form->name == "redirect" ||
            form->name == "mirror")
            mention_port(number);
        else if (form->name == "meter")
            config_.meters.try_emplace(number, Rate{.per_second = 1});
        else if (form->name == "mirror_id")
            config_.mirrors.try_emplace(number, interface_of(number));
    }
}

CompiledEntry compile_entry(std::span<const uint8_t> packed, const Config &config)
{
    CompiledEntry entry;
    Requested requested;
    requested.value.assign(packed.begin(), packed.end());
    bool all = true;
    Config without = config;
    const auto attributes = unpack(packed);
    for (const Attribute &attribute : attributes.value_or(std::vector<Attribute>())) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        if (form == nullptr || supports(*form, config))
            continue;
        all = false;
        without.ignored.insert(form);
        if (form->cls == FP_UDP_ATTR_FIELD)
            entry.left_out.push_back(form);
    }
    entry.compiled = compile(requested, all ? config : without);
    return entry;
}

bool decides(const Rule &rule)
{
    return rule.verdict != Verdict::next && rule.over_meter.empty() && rule.one_in == 0;
}

std::string_view verdict_word(Verdict verdict)
{
    switch (verdict) {
    case Verdict::next:
        return "nothing";
    case Verdict::accept:
        return "permit";
    case Verdict::drop:
        return "deny";
    case Verdict::redirect:
        return "redirect";
    }
    return "";
}

std::string entry_label(uint64_t sn, std::string_view name)
{
    return "sn " + std::to_string(sn) + (name.empty() ? "" : ' ' + quoted(name));
}

} // namespace plx::tool
