// See entry.hpp.
#include "packets/entry.hpp"

#include "packets/frames.hpp"
#include "tools/plx/attribute_text.hpp"
#include "tools/plx/attribute_value.hpp"
#include <sstream>
#include <stdexcept>

namespace plx::test {

void push(Requested &entry, const Form &form, std::span<const uint8_t> value)
{
    const uint32_t header[2] = {attribute_id(form) << 8U | form.cls, static_cast<uint32_t>(value.size())};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    entry.value.insert(entry.value.end(), bytes, bytes + sizeof header);
    entry.value.insert(entry.value.end(), value.begin(), value.end());
}

Requested entry_of(const std::string &line)
{
    Requested entry;
    std::istringstream in(line);
    fp_udp_attr_class cls = FP_UDP_ATTR_FIELD;
    for (std::string word; in >> word;) {
        if (word == "->") {
            cls = FP_UDP_ATTR_ACTION;
            continue;
        }
        const bool control = word[0] == '!';
        const size_t equals = word.find('=');
        const std::string name = word.substr(control ? 1 : 0, equals - (control ? 1 : 0));
        const Form *form = find_form(control ? FP_UDP_ATTR_CTRL : cls, name);
        if (form == nullptr || equals == std::string::npos)
            throw std::invalid_argument("no attribute " + word);
        const std::string text = word.substr(equals + 1);
        const tool::Encoding value =
            text[0] == '#' ? tool::Encoding{unhex(text.substr(1)), ""} : tool::encode(*form, text);
        if (!value.error.empty())
            throw std::invalid_argument(name + ": " + value.error);
        push(entry, *form, value.bytes);
    }
    return entry;
}

std::string text_of(const Requested &entry)
{
    std::string fields, actions;
    const auto attributes = unpack(entry.value);
    for (const Attribute &attribute : *attributes) {
        bool known = false;
        const Form *form = form_of(attribute, known);
        (attribute.cls == FP_UDP_ATTR_FIELD ? fields : actions) +=
            tool::attribute_name(attribute, form) + '=' + tool::format_value(form, attribute.value) + ' ';
    }
    return fields + "-> " + actions;
}

plane::packet::Config configuration()
{
    using plane::packet::Load;
    plane::packet::Config config;
    config.ports = {{1, "t1"}, {2, "e0"}, {3, "m0"}};
    config.meters = {{1, {.per_second = 1, .bytes = false, .burst = 1}}};
    config.mirrors = {{7, "m0"}};
    config.sample_group = 9;
    config.udf.fill(plane::packet::Source{Load::link, 4, 30});
    config.udf[1] = {Load::network, 4, 4};
    config.udf[2] = {Load::transport, 4, 4};
    config.double_tagged = true;
    return config;
}

} // namespace plx::test
