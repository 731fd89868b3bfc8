// Files that nobody wrote as a policy: they end in errors, not in a crash or in all of the memory.
#include "policy.hpp"
#include "process.hpp"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>

namespace plx::tool {
namespace {

using testing::HasSubstr;
using testing::Not;

std::vector<std::string> errors_of(const std::string &text)
{
    Errors errors;
    Part root;
    if (parse_document(text, root, errors))
        read_policy(root, errors);
    return errors.lines("f");
}

std::string example()
{
    std::ifstream file(EXAMPLES "/edge.yaml");
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

TEST(HostileFile, that_nests_without_end_is_refused)
{
    for (const char *open : {"[", "{a: ", "- ", "? ", "&a [", "!!x ["}) {
        std::string text = "application: a\nacls: ";
        for (int depth = 0; depth < 100'000; ++depth)
            text += open;
        EXPECT_FALSE(errors_of(text).empty()) << open;
    }
}

TEST(HostileFile, whose_aliases_multiply_is_refused)
{
    std::string text = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
    for (int level = 1; level < 12; ++level) {
        const std::string below = "*a" + std::to_string(level - 1);
        text += "a" + std::to_string(level) + ": &a" + std::to_string(level) + " [";
        for (int copy = 0; copy < 10; ++copy)
            text += below + (copy == 9 ? "]\n" : ", ");
    }
    const auto errors = errors_of(text);
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(errors.front(), HasSubstr("more than 2000000 parts"));
}

TEST(HostileFile, whose_alias_holds_itself_is_refused)
{
    const auto errors = errors_of("application: a\nacls: &all [*all]\n");
    EXPECT_THAT(errors, testing::ElementsAre(HasSubstr("an alias to a part that holds it")));
}

TEST(HostileFile, with_damage_anywhere_ends_in_errors_or_in_a_policy)
{
    const std::string whole = example();
    ASSERT_GT(whole.size(), 1000U);
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random); };
    int damaged = 0;
    for (int round = 0; round < 300; ++round) {
        std::string text = whole.substr(0, below(whole.size()) + 1);
        for (size_t count = below(6); count > 0; --count)
            text[below(text.size())] = static_cast<char>(below(256));
        damaged += errors_of(text).empty() ? 0 : 1;
    }
    EXPECT_GT(damaged, 200) << "a cut policy is nearly never one";
}

TEST(HostileFile, of_any_bytes_is_refused)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        std::string text(std::uniform_int_distribution<size_t>(1, 2000)(random), '\0');
        for (char &byte : text)
            byte = static_cast<char>(random());
        EXPECT_FALSE(errors_of(text).empty()) << "round " << round;
    }
}

TEST(HostileFile, does_not_reach_the_terminal_unescaped)
{
    const auto errors = errors_of("application: a\nacls: []\n\"\\e]0;owned\\a\": 1\n");
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(errors.front(), Not(HasSubstr("\x1b")));
}

TEST(HostileFile, that_is_larger_than_a_policy_may_be_is_not_read_whole)
{
    const TemporaryDirectory directory;
    const std::string file = directory.write("large", std::string((32U << 20U) + 1, ' '));
    Errors errors;
    std::string content;
    EXPECT_FALSE(read_file(file, content, errors));
    EXPECT_THAT(errors.lines(file), testing::ElementsAre(HasSubstr("larger than 32 MiB")));
}

TEST(HostileFile, that_is_no_file_is_refused)
{
    const TemporaryDirectory directory;
    for (const std::string &path : {directory.path(), directory.path() + "/missing"}) {
        Errors errors;
        std::string content;
        EXPECT_FALSE(read_file(path, content, errors)) << path;
    }
}

} // namespace
} // namespace plx::tool
