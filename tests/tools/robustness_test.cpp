// Files that nobody wrote as a policy: they end in errors, not in a crash or in all of the memory.
#include "policy.hpp"
#include "process.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace plx::tool {
namespace {

using testing::HasSubstr;

std::vector<std::string> errors_of(const std::string &text)
{
    Errors errors;
    Part root;
    if (parse_document(text, root, errors))
        read_policy(root, errors);
    return errors.lines("f");
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
