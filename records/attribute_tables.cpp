// attribute_tables: copies docs/attributes.md from standard input to standard output, its tables made anew from the
// forms of the attributes. scripts/check/attributes.sh calls it.
#include "records/attribute.hpp"

#include <array>
#include <iostream>
#include <string>

namespace {

std::string form_name(const plx::Form &form)
{
    switch (form.kind) {
    case plx::ValueKind::number:
        return "number " + std::to_string(form.bits);
    case plx::ValueKind::flag:
        return "flag";
    case plx::ValueKind::mac:
        return "mac";
    case plx::ValueKind::ipv4:
        return "ipv4";
    case plx::ValueKind::ipv6:
        return "ipv6";
    case plx::ValueKind::ipv6_upper:
        return "ipv6-upper";
    case plx::ValueKind::range:
        return "range";
    case plx::ValueKind::ports:
        return "ports";
    case plx::ValueKind::octets:
        return "octets " + std::to_string(form.bytes());
    }
    return "";
}

template <fp_udp_attr_class Class> void print_forms()
{
    for (const plx::Form &form : plx::forms()) {
        if (form.cls == Class)
            std::cout << "| `" << form.name << "` | " << plx::attribute_id(form) << " | " << form_name(form) << " | "
                      << form.bytes() << " | " << (form.mask ? "yes" : "no") << " | " << plx::name_of(form.names)
                      << " | " << form.meaning << " |\n";
    }
}

void print_words(plx::NameSet set)
{
    std::cout << "| " << plx::name_of(set) << " | " << (set == plx::NameSet::ethertype ? std::hex : std::dec)
              << std::showbase;
    const char *separator = "";
    for (const auto &[name, value] : plx::named_values(set)) {
        std::cout << separator << '`' << name << "` " << value;
        separator = ", ";
    }
    std::cout << " |\n" << std::dec;
}

void print_all_words()
{
    for (auto set = static_cast<int>(plx::NameSet::protocol); set <= static_cast<int>(plx::NameSet::color); ++set)
        print_words(static_cast<plx::NameSet>(set));
}

struct Table {
    std::string_view heading; // of the section that it stands in, or a part
    void (*print)();
};
constexpr std::array<Table, 4> tables{{{"`field_attr`", print_forms<FP_UDP_ATTR_FIELD>},
                                       {"`action_attr`", print_forms<FP_UDP_ATTR_ACTION>},
                                       {"`ctrl_attr`", print_forms<FP_UDP_ATTR_CTRL>},
                                       {"Words", print_all_words}}};

const Table *find_table(std::string_view heading)
{
    for (const Table &table : tables)
        if (heading.starts_with("## ") && heading.find(table.heading) != heading.npos)
            return &table;
    return nullptr;
}

} // namespace

int main()
{
    const Table *table = nullptr; // of this section
    size_t made = 0;
    bool old_rows = false;
    for (std::string line; std::getline(std::cin, line);) {
        if (line.starts_with("## "))
            table = find_table(line);
        old_rows = old_rows && line.starts_with('|');
        if (old_rows)
            continue;
        std::cout << line << '\n';
        if (table == nullptr || !line.starts_with("|---"))
            continue;
        table->print();
        old_rows = true;
        ++made;
    }
    if (made == tables.size())
        return 0;
    std::cerr << "attribute_tables: " << made << " of " << tables.size() << " tables have their place\n";
    return 1;
}
