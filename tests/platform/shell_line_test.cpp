// The text side of `plx shell`: quoting, the help that a module gives, and completion.
#include "shell_line.hpp"

#include <gtest/gtest.h>

namespace {

using namespace plx::tool;

TEST(shell_line, words_become_a_line_that_the_module_splits_alike)
{
    const struct {
        std::vector<std::string> words;
        const char *line;
    } cases[] = {
        {{"dump", "app_type=all", "acl_id=0"}, "dump app_type=all acl_id=0"},
        {{"dump", "two words", ""}, R"(dump "two words" "")"},
        {{"dump", "name=two words"}, R"(dump name="two words")"},
        {{"dump", R"(say "hi" \)"}, R"(dump "say \"hi\" \\")"},
        {{"dump", "two words=x"}, R"(dump "two words=x")"},
        {{"dump", R"(a\b)"}, R"(dump a\b)"},
        {{"dump app_type=all acl_id=0"}, "dump app_type=all acl_id=0"},
    };
    for (const auto &[words, line] : cases)
        EXPECT_EQ(join_words(words), line);
}

struct completion {
    const char *line, *insert;
    std::vector<std::string> candidates;
};

TEST(shell_line, a_begun_line_completes_to_commands_then_to_arguments_not_given)
{
    const auto commands = parse_help("debug_off\tclose debug\ndebug_on\topen debug\n"
                                     "dump app_type=%s acl_id=%d\tapp_type=%s, acl_id=%d, $n\n");
    const completion cases[] = {
        {"", "", {"debug_off", "debug_on", "dump", "help"}},
        {"de", "bug_o", {"debug_off", "debug_on"}},
        {"  du", "mp ", {"dump"}},
        {"dump", " ", {"dump"}},
        {"dump ", "a", {"acl_id=", "app_type="}},
        {"dump ap", "p_type=", {"app_type="}},
        {"dump app_type=all ", "acl_id=", {"acl_id="}},
        {"dump app_type=all acl_id=1 ", "", {}},
        {"dump app_type=a", "", {}},
        {"help du", "mp ", {"dump"}},
        {"nothing ", "", {}},
        {"x", "", {}},
    };
    for (const auto &[line, insert, candidates] : cases) {
        const Completion found = complete(commands, line);
        EXPECT_EQ(found.insert, insert) << '"' << line << '"';
        EXPECT_EQ(found.candidates, candidates) << '"' << line << '"';
    }
}

TEST(shell_line, a_help_that_is_none_lists_help_alone)
{
    for (const char *help : {"", "\n\n", "\t\n \t"}) {
        const auto commands = parse_help(help);
        ASSERT_EQ(commands.size(), 1u);
        EXPECT_EQ(commands[0].name, "help");
    }
}

} // namespace
