// Files that nobody wrote as a policy, and a process that may open few files: they end in errors, not in a crash or in
// all of the memory.
#include "policy.hpp"
#include "support/process.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace plx::tool {
namespace {

using testing::HasSubstr;

std::vector<std::string> errors_of(const std::string &text)
{
    Errors errors;
    std::istringstream in(text);
    read_policy(in, "", errors);
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

std::string times(size_t count, const std::string &text)
{
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

std::string multiplying()
{
    std::string text = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
    for (int level = 1; level < 12; ++level) {
        const std::string name = "a" + std::to_string(level);
        text += name + ": &" + name + " [" + times(10, "*a" + std::to_string(level - 1) + ", ") + "]\n";
    }
    return text;
}

std::string anchored(size_t levels, const std::string &items)
{
    std::string text = "application: a\nacls: ";
    for (size_t level = 0; level < levels; ++level)
        text += "&a" + std::to_string(level) + " [";
    return text + items + std::string(levels, ']') + '\n';
}

// Every file is refused within half a gigabyte, and with little said of it.
TEST(HostileFile, costs_what_its_bytes_do)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer's own memory is above the bound";
#endif
    const struct {
        const char *what;
        std::string text;
        const char *error;
    } files[] = {
        {"aliases that multiply", multiplying(), "the file's aliases copy more than 32 times what stands in it"},
        {"anchors in anchors", anchored(60, times(200'000, "x,")), "an ACL must be a map"},
        {"aliases that add depth", anchored(40, "x") + "b: &b [" + times(30, "[") + "*a0" + times(31, "]") + "\n",
         "nested too deeply"},
        {"a long text again and again", "t: &t " + std::string(1'000'000, 'x') + "\nl: [" + times(10'000, "*t,") + "]",
         "the file's aliases copy more than 32 times what stands in it"},
        {"ports of an apply again and again",
         "application: a\nacls: []\napplies:\n- &p {acl: 1, port: 0-4095, direction: in}\n" + times(100'000, "- *p\n"),
         "more than 100000 applies"},
        {"hyphens",
         "application: a\nacls: [{id: 1, class: 1, entries: [{sn: 1, match: {dst_range: \"" +
             std::string(300'000, '-') + "\"}}]}]\n",
         "is not a range of ports"},
        {"repeated keys", "application: a\nacls: []\n" + times(100'000, "acls: []\n"), ": and 99980 more\n"},
        {"unknown keys", "application: a\nacls: []\n" + times(100'000, "aclz: 1\n"), ": and 99980 more\n"}};
    const TemporaryDirectory directory;
    for (const auto &[what, text, error] : files) {
        SCOPED_TRACE(what);
        const std::string file = directory.write("policy.yaml", text);
        const Result result = run_program("/bin/sh", {"-c", "ulimit -v 524288 && exec " PLX_PROGRAM " apply " + file});
        EXPECT_EQ(2, result.exit_code);
        EXPECT_THAT(result.err, HasSubstr(error));
        EXPECT_LT(result.err.size(), 8192U);
    }
}

TEST(HostileFile, that_is_no_file_is_refused)
{
    const TemporaryDirectory directory;
    for (const std::string &path : {directory.path(), directory.path() + "/missing"}) {
        Errors errors;
        EXPECT_FALSE(read_policy(path, errors)) << path;
    }
}

TEST(Process, that_may_open_few_files_ends_with_an_error_text_and_an_exit_code)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer opens files of its own";
#endif
    const TemporaryDirectory directory;
    const std::string policy = directory.write("policy.yaml", "application: a\nacls: []\n");
    for (const std::string &command :
         {"apply --store mem: " + policy, std::string("show acl --store mem:"), std::string("node --store nonsense")})
        for (unsigned limit = 5; limit <= 12; ++limit) {
            SCOPED_TRACE(command + " with " + std::to_string(limit));
            const std::string line = "ulimit -n " + std::to_string(limit) + "; exec " PLX_PROGRAM " " + command;
            const Result result = run_program("/bin/sh", {"-c", line});
            EXPECT_GE(result.exit_code, 0);
            EXPECT_NE(result.exit_code == 0, !result.err.empty()) << result.err;
            if (limit <= 8) {
                EXPECT_EQ(5, result.exit_code);
                EXPECT_THAT(result.err, HasSubstr("Too many open files"));
            }
        }
}

} // namespace
} // namespace plx::tool
