// What a line becomes for a command: descriptions, words, and arguments by name and by place.
#include "command.hpp"

#include <gtest/gtest.h>

namespace {

using namespace ssat;

command make_command(const char *description)
{
    return {"cmd", description, parse_description(description).value(), nullptr};
}

// The arguments a line gives, as one text; or the error.
std::string parsed(const command &command, const std::string &line)
{
    std::vector<word> words;
    if (std::string error = split_line(line, words); !error.empty())
        return error;
    std::vector<ssat_value> values;
    if (std::string error = bind_arguments(command, words, values); !error.empty())
        return error;
    std::string text;
    for (size_t i = 0; i < values.size(); ++i) {
        const conversion kind = command.arguments[i].kind;
        text += i ? "," : "";
        text += kind == conversion::text     ? values[i].s
                : kind == conversion::number ? std::to_string(values[i].d)
                                             : std::to_string(values[i].x);
    }
    return text;
}

TEST(ssat_description, tells_the_arguments)
{
    const struct {
        const char *description, *usage;
    } cases[] = {
        {"app_type=%s, acl_id=%d, $n", "cmd app_type=%s acl_id=%d"},
        {"dbg_flags=%x, $n", "cmd dbg_flags=%x"},
        {"level=%d", "cmd level=%d"},
        {"$n", "cmd"},
        {"", "cmd"},
        {"open debug", "cmd"},
        {"$n, hidden=%d", "cmd"},
        {"set the level, level = %d , $n", "cmd level=%d"},
        {"%s,%d", "cmd arg1=%s arg2=%d"},
        {"a=%d,,b=%d", "cmd a=%d b=%d"},
    };
    for (const auto &[description, expected] : cases)
        EXPECT_EQ(usage(make_command(description)), expected) << description;
}

TEST(ssat_description, what_the_shell_does_not_know_is_refused)
{
    for (const char *description : {"a=%q", "a=%", "a=%dd", "a=%d b=%d", "a=%d, a=%s", "a b=%d", "100%"})
        EXPECT_FALSE(parse_description(description)) << description;
}

TEST(ssat_line, gives_arguments_by_name_and_by_place)
{
    const command dump = make_command("app=%s, id=%d, mask=%x, $n");
    const struct {
        const char *line, *values;
    } cases[] = {
        {"all 0 ff", "all,0,255"},
        {"mask=0xFF id=-7 app=all", "all,-7,255"},
        {"id=7 all 0X10", "all,7,16"},
        {"  all\t 2147483647   FFFFFFFF ", "all,2147483647,4294967295"},
        {"all -2147483648 0", "all,-2147483648,0"},
        {"app= 1 1", ",1,1"},
        {R"("" 1 1)", ",1,1"},
        {R"("two words" 1 1)", "two words,1,1"},
        {R"(app="two words" 1 1)", "two words,1,1"},
        {R"("a=b" 1 1)", "a=b,1,1"},
        {R"(app=a=b 1 1)", "a=b,1,1"},
        {R"("say \"hi\" \\" 1 1)", R"(say "hi" \,1,1)"},
        {R"(back\slash 1 1)", R"(back\slash,1,1)"},
    };
    for (const auto &[line, values] : cases)
        EXPECT_EQ(parsed(dump, line), values) << line;
}

TEST(ssat_line, that_does_not_fit_says_why)
{
    const command dump = make_command("app=%s, id=%d, mask=%x, $n");
    const struct {
        const char *line, *error;
    } cases[] = {
        {"", "'app' is missing"},
        {"all 1", "'mask' is missing"},
        {"all mask=1", "'id' is missing"},
        {"all 1 1 1", "one argument too many: '1'"},
        {"all 1 1 id=2", "'id' is given twice"},
        {"all x=1", "no argument is named 'x'"},
        {"all =1", "no argument is named ''"},
        {"all 2147483648 1", "id: '2147483648' is not a decimal number from -2147483648 to 2147483647"},
        {"all 0x1 1", "id: '0x1' is not a decimal number from -2147483648 to 2147483647"},
        {"all id= 1", "id: '' is not a decimal number from -2147483648 to 2147483647"},
        {"all 1 100000000", "mask: '100000000' is not a hexadecimal number of at most 32 bits"},
        {"all 1 -1", "mask: '-1' is not a hexadecimal number of at most 32 bits"},
        {"all 1 0x", "mask: '0x' is not a hexadecimal number of at most 32 bits"},
        {"\"all 1 1", "a quote is not closed"},
        {"all\a 1 1", "the line has control characters in it"},
    };
    for (const auto &[line, error] : cases)
        EXPECT_EQ(parsed(dump, line), error) << line;
    EXPECT_EQ(parsed(dump, std::string("all 1 1\0", 8)), "the line has control characters in it");
}

TEST(ssat_line, a_command_without_arguments_takes_none)
{
    EXPECT_EQ(parsed(make_command("open debug"), ""), "");
    EXPECT_EQ(parsed(make_command("open debug"), "now"), "one argument too many: 'now'");
}

} // namespace
