// Rows of records that others wrote: whole where they are short, cut where they are long.
#include "display.hpp"
#include "rows.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <plx/s_policy.pb-c.h>

namespace plx::tool {
namespace {

using testing::HasSubstr;

// Attributes of one name, "vid", of 2 bytes each.
std::string vids(size_t count)
{
    std::string packed;
    for (size_t i = 0; i < count; ++i)
        packed.append("\x01\xff\xff\0\x02\0\0\0\0\x07", 10);
    return packed;
}

TEST(Row, of_a_long_record_is_cut_and_says_so_unless_it_is_asked_for_whole)
{
    std::string app(100'000, 'n'), packed = vids(100'000), bytes(1000, 'b');
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    key.t_app_type = app.data();
    ace.index = &key;
    ace.value = {packed.size(), reinterpret_cast<uint8_t *>(packed.data())};
    ace.priv = {bytes.size(), reinterpret_cast<uint8_t *>(bytes.data())};

    const Row cut = row_of(&ace.base, false);
    EXPECT_EQ((Row{{"t_app_type", 99'744}, {"attributes", 995'910}, {"priv", 744}, {"name", 744}}), Row(cut["cut"]));
    EXPECT_LT(cut.dump().size(), 16'384U);
    const std::string line = line_of(cut);
    EXPECT_THAT(line, HasSubstr("n ... 99744 bytes more "));
    EXPECT_THAT(line, HasSubstr(" ... 995910 bytes more"));
    EXPECT_LT(line.size(), 16'384U);

    const Row whole = row_of(&ace.base, true);
    EXPECT_FALSE(whole.contains("cut"));
    EXPECT_EQ(app, whole["t_app_type"]);
    ASSERT_EQ(100'000U, whole["attributes"]["match"].size());
    EXPECT_THAT(whole.dump(), HasSubstr("#100000\":"));
}

TEST(Display, shows_what_the_locale_prints_and_knows_how_wide_it_is)
{
    ASSERT_NE(nullptr, setlocale(LC_CTYPE, "C.UTF-8"));
    EXPECT_EQ("\u00e9\u6f22", printable("\u00e9\u6f22"));
    EXPECT_EQ("\u6f22  |", padded("\u6f22", 4) + '|');
    EXPECT_EQ("a\\xe2\\x80\\xae\\x1b[2J\\xff\\x00", printable(std::string_view("a\u202e\x1b[2J\xff\0", 10)));
    setlocale(LC_CTYPE, "C");
    EXPECT_EQ("\\xc3\\xa9", printable("\u00e9"));
}

TEST(Row, of_a_short_record_is_whole)
{
    std::string packed = vids(2);
    SPolicy__Ace ace = S_POLICY__ACE__INIT;
    ace.value = {packed.size(), reinterpret_cast<uint8_t *>(packed.data())};
    const Row row = row_of(&ace.base, false);
    EXPECT_FALSE(row.contains("cut"));
    EXPECT_EQ(2U, row["attributes"]["match"].size());
}

} // namespace
} // namespace plx::tool
