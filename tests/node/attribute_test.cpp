// The forms of the attributes against the library's name tables, and walking packed buffers.
#include "records/attribute.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace plx {
namespace {

TEST(AttributeForms, are_the_rows_of_the_three_name_tables)
{
    const std::pair<fp_udp_attr_class, std::span<const fp_udp_attr_entry>> tables[] = {
        {FP_UDP_ATTR_CTRL, ctrl_attr}, {FP_UDP_ATTR_FIELD, field_attr}, {FP_UDP_ATTR_ACTION, action_attr}};
    size_t total = 0;
    for (const auto &[cls, rows] : tables) {
        for (const fp_udp_attr_entry &row : rows) {
            const Form *form = find_form(cls, row.name);
            ASSERT_NE(nullptr, form) << row.name;
            EXPECT_EQ(row.id, attribute_id(*form)) << row.name;
        }
        total += rows.size();
    }
    EXPECT_EQ(total, forms().size());
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
    const uint8_t bytes[] = {0x01, 0x11, 0, 0, 4, 0, 0, 0, 10, 0, 0, 1, 0x02, 0x02, 0, 0, 1, 0, 0, 0, 1};
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
    std::vector<uint8_t> bytes{0x01, 0x11, 0, 0, 4, 0, 0, 0, 10, 0, 0, 1};
    for (size_t size = 1; size < bytes.size(); ++size)
        EXPECT_FALSE(unpack(std::span(bytes).first(size)).has_value()) << size;
    std::fill_n(bytes.begin() + 4, 4, uint8_t{0xff}); // a length of 2^32 - 1
    EXPECT_FALSE(unpack(bytes).has_value());
    EXPECT_TRUE(unpack({}).has_value());
}

TEST(FormOf, goes_by_class_id_and_length)
{
    const struct {
        uint32_t cls, id;
        size_t size;
        bool known;
        const char *name; // none: no form fits
    } cases[] = {
        {FP_UDP_ATTR_FIELD, 46, 2, true, "act_em_class"}, // two names share the id
        {FP_UDP_ATTR_FIELD, 46, 1, true, "l2_sa_hit"},    {FP_UDP_ATTR_FIELD, 17, 8, true, "ipv4_src"}, // with its mask
        {FP_UDP_ATTR_FIELD, 17, 12, true, nullptr},       {FP_UDP_ATTR_ACTION, 2, 2, true, nullptr},    // takes no mask
        {FP_UDP_ATTR_FIELD, 89, 1, false, nullptr}};
    const std::vector<uint8_t> bytes(32);
    for (const auto &expected : cases) {
        bool known = !expected.known;
        const Form *form = form_of({expected.cls, expected.id, std::span(bytes).first(expected.size)}, known);
        EXPECT_EQ(expected.name == nullptr ? "" : expected.name, form == nullptr ? "" : form->name) << expected.id;
        EXPECT_EQ(expected.known, known) << expected.id;
    }
}

} // namespace
} // namespace plx
