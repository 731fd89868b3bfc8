// Packed attributes; the forms themselves are in attribute_forms.cpp.
#include "records/attribute.hpp"

#include <algorithm>
#include <cstring>
#include <map>

namespace plx {

namespace {

std::span<const fp_udp_attr_entry> name_table(uint32_t cls)
{
    switch (cls) {
    case FP_UDP_ATTR_CTRL:
        return ctrl_attr;
    case FP_UDP_ATTR_FIELD:
        return field_attr;
    case FP_UDP_ATTR_ACTION:
        return action_attr;
    default:
        return {};
    }
}

using Word = std::pair<uint32_t, uint32_t>; // class and id

const std::multimap<Word, const Form *> &forms_by_word()
{
    static const std::multimap<Word, const Form *> by_word = [] {
        std::multimap<Word, const Form *> map;
        for (const Form &form : forms())
            map.emplace(Word(form.cls, attribute_id(form)), &form);
        return map;
    }();
    return by_word;
}

uint32_t id_in_table(const Form &form)
{
    const auto table = name_table(form.cls);
    const auto row = std::find_if(table.begin(), table.end(), [&form](const fp_udp_attr_entry &entry) {
        return form.name == std::string_view(entry.name, strnlen(entry.name, sizeof entry.name));
    });
    return row == table.end() ? 0 : row->id;
}

} // namespace

uint32_t Form::bytes() const
{
    if (kind != ValueKind::number)
        return bits <= 8 ? 1U : kind == ValueKind::ports ? 32U : bits / 8U;
    return bits <= 8 ? 1U : bits <= 16 ? 2U : bits <= 32 ? 4U : 8U;
}

const Form *find_form(fp_udp_attr_class cls, std::string_view name)
{
    static const std::map<std::pair<uint32_t, std::string_view>, const Form *> by_name = [] {
        std::map<std::pair<uint32_t, std::string_view>, const Form *> map;
        for (const Form &form : forms())
            map.emplace(std::pair(form.cls, form.name), &form);
        return map;
    }();
    const auto found = by_name.find({cls, name});
    return found == by_name.end() ? nullptr : found->second;
}

uint32_t attribute_id(const Form &form)
{
    static const std::vector<uint32_t> ids = [] {
        std::vector<uint32_t> all;
        for (const Form &each : forms())
            all.push_back(id_in_table(each));
        return all;
    }();
    return ids[static_cast<size_t>(&form - forms().data())];
}

std::optional<std::vector<Attribute>> unpack(std::span<const uint8_t> packed)
{
    std::vector<Attribute> attributes;
    while (!packed.empty()) {
        if (packed.size() < FP_UDP_ATTR_HEADER_SIZE)
            return std::nullopt;
        uint32_t header[2]; // type word, length: in host byte order
        std::memcpy(header, packed.data(), sizeof header);
        packed = packed.subspan(FP_UDP_ATTR_HEADER_SIZE);
        if (header[1] > packed.size())
            return std::nullopt;
        attributes.push_back({header[0] & 0xffU, header[0] >> 8U, packed.first(header[1])});
        packed = packed.subspan(header[1]);
    }
    return attributes;
}

const Form *form_of(const Attribute &attribute, bool &known)
{
    const auto [first, last] = forms_by_word().equal_range({attribute.cls, attribute.id});
    known = first != last;
    const auto fits = std::find_if(first, last, [&attribute](const auto &entry) {
        const Form &form = *entry.second;
        const size_t size = attribute.value.size();
        return size == form.bytes() || (form.mask && size == 2 * size_t{form.bytes()});
    });
    return fits == last ? nullptr : fits->second;
}

} // namespace plx
