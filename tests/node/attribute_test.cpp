// The forms of the attributes against the library's name tables and the document, and walking packed buffers.
#include "records/attribute.hpp"

#include "world.hpp"
#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <sstream>

namespace plx::plane {
namespace {

struct NameTable {
    fp_udp_attr_class cls;
    std::span<const fp_udp_attr_entry> rows;
    std::string heading; // of its table in the document
};

std::vector<NameTable> name_tables()
{
    return {{FP_UDP_ATTR_CTRL, ctrl_attr, "ctrl_attr"},
            {FP_UDP_ATTR_FIELD, field_attr, "field_attr"},
            {FP_UDP_ATTR_ACTION, action_attr, "action_attr"}};
}

std::string text_of(const Form &form)
{
    static const std::map<ValueKind, const char *> names{
        {ValueKind::number, "number "}, {ValueKind::flag, "flag"},   {ValueKind::mac, "mac"},
        {ValueKind::ipv4, "ipv4"},      {ValueKind::ipv6, "ipv6"},   {ValueKind::ipv6_upper, "ipv6-upper"},
        {ValueKind::range, "range"},    {ValueKind::ports, "ports"}, {ValueKind::octets, "octets "}};
    const std::string name = names.at(form.kind);
    return name.back() != ' ' ? name : name + std::to_string(form.kind == ValueKind::number ? form.bits : form.bytes());
}

std::vector<std::string> document_lines()
{
    std::ifstream document(ATTRIBUTES_DOCUMENT);
    std::vector<std::string> lines;
    for (std::string line; std::getline(document, line);)
        lines.push_back(line);
    return lines;
}

// The rows of the table under the heading that names `table`, each up to its last column, which is prose.
std::vector<std::string> document_rows(const std::string &table)
{
    std::vector<std::string> rows;
    bool inside = false;
    for (const std::string &line : document_lines()) {
        if (line.starts_with("## "))
            inside = line.find("`" + table + "`") != std::string::npos;
        if (inside && line.starts_with("| `"))
            rows.push_back(line.substr(0, line.rfind('|', line.size() - 2)));
    }
    return rows;
}

TEST(AttributeForms, are_the_rows_of_the_three_name_tables_as_the_document_says)
{
    size_t total = 0;
    for (const NameTable &table : name_tables()) {
        std::vector<std::string> expected;
        for (const fp_udp_attr_entry &row : table.rows) {
            const Form *form = find_form(table.cls, row.name);
            ASSERT_NE(nullptr, form) << row.name;
            EXPECT_EQ(row.id, attribute_id(*form)) << row.name;
            std::ostringstream line;
            line << "| `" << row.name << "` | " << row.id << " | " << text_of(*form) << " | " << form->bytes() << " | "
                 << (form->mask ? "yes" : "no") << " | " << name_of(form->names) << " ";
            expected.push_back(line.str());
        }
        EXPECT_THAT(document_rows(table.heading), testing::ElementsAreArray(expected));
        total += table.rows.size();
    }
    EXPECT_EQ(total, forms().size());
}

TEST(AttributeForms, use_words_that_the_document_lists)
{
    const std::vector<std::string> lines = document_lines();
    for (int set = static_cast<int>(NameSet::protocol); set <= static_cast<int>(NameSet::color); ++set) {
        std::ostringstream row;
        row << "| " << name_of(static_cast<NameSet>(set)) << " | ";
        const char *separator = "";
        for (const NamedValue &named : named_values(static_cast<NameSet>(set))) {
            row << separator << "`" << named.name << "` "
                << (set == static_cast<int>(NameSet::ethertype) ? std::hex : std::dec) << std::showbase << named.value;
            separator = ", ";
        }
        row << " |";
        EXPECT_THAT(lines, testing::Contains(row.str()));
    }
}

TEST(AttributeForms, hold_every_word_in_their_bits)
{
    for (const Form &form : forms()) {
        for (const NamedValue &named : named_values(form.names))
            EXPECT_LT(named.value, 1ULL << (form.kind == ValueKind::range ? 16 : form.bits)) << form.name << named.name;
    }
}

TEST(Unpack, gives_each_attribute_in_order)
{
    auto bytes = packed(0x1101, {10, 0, 0, 1});
    const auto verdict = packed(0x0202, {1});
    bytes.insert(bytes.end(), verdict.begin(), verdict.end());
    const auto attributes = unpack(bytes);
    ASSERT_TRUE(attributes.has_value());
    ASSERT_EQ(2U, attributes->size());
    EXPECT_EQ(FP_UDP_ATTR_FIELD, static_cast<int>(attributes->at(0).cls));
    EXPECT_EQ(17U, attributes->at(0).id);
    EXPECT_EQ(4U, attributes->at(0).value.size());
    EXPECT_EQ(2U, attributes->at(1).id);
    EXPECT_EQ(1, attributes->at(1).value[0]);
}

TEST(Unpack, refuses_lengths_that_do_not_add_up)
{
    auto bytes = packed(0x1101, {10, 0, 0, 1});
    for (size_t size = 1; size < bytes.size(); ++size)
        EXPECT_FALSE(unpack(std::span(bytes).first(size)).has_value()) << size;
    std::fill_n(bytes.begin() + 4, 4, uint8_t{0xff}); // a length of 2^32 - 1
    EXPECT_FALSE(unpack(bytes).has_value());
    EXPECT_TRUE(unpack({}).has_value());
}

TEST(FormOf, tells_names_that_share_an_id_apart_by_length)
{
    const std::vector<uint8_t> two_bytes{0, 1};
    bool known = false;
    EXPECT_EQ("act_em_class", form_of({FP_UDP_ATTR_FIELD, 46, two_bytes}, known)->name);
    EXPECT_EQ("l2_sa_hit", form_of({FP_UDP_ATTR_FIELD, 46, std::span(two_bytes).first(1)}, known)->name);
}

TEST(FormOf, takes_a_mask_where_the_form_has_one)
{
    const std::vector<uint8_t> bytes(32);
    bool known = false;
    EXPECT_NE(nullptr, form_of({FP_UDP_ATTR_FIELD, 17, std::span(bytes).first(8)}, known));
    EXPECT_EQ(nullptr, form_of({FP_UDP_ATTR_FIELD, 17, std::span(bytes).first(12)}, known));
    EXPECT_TRUE(known);
    EXPECT_EQ(nullptr, form_of({FP_UDP_ATTR_ACTION, 2, std::span(bytes).first(2)}, known));
    EXPECT_TRUE(known);
    EXPECT_EQ(nullptr, form_of({FP_UDP_ATTR_FIELD, 89, std::span(bytes).first(1)}, known));
    EXPECT_FALSE(known);
}

} // namespace
} // namespace plx::plane
