// The system log, seen from outside a process that writes one line with or without a zlog library on its path.
#include "tq_zlog.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string run(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return "no pipe";
    std::string output;
    for (int c; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    return pclose(pipe) == 0 ? output : output + " (failed)";
}

std::string write_line(const std::string &library, const std::string &arguments, const std::string &environment = "")
{
    return run("env -u ZLOG_CONF_PATH LD_LIBRARY_PATH=" ZLOG_STAND_INS "/" + library + " " + environment + " " +
               ZLOG_WRITER " " + arguments);
}

TEST(zlog, a_line_goes_to_zlog_when_the_library_is_on_the_machine)
{
    EXPECT_EQ(write_line("zlog_complete", "policy 80 'a line'"),
              "init default\nzlog policy app/file.cpp function 42 80 format=%s: a line\n");
}

TEST(zlog, a_percent_sign_is_text)
{
    EXPECT_EQ(write_line("zlog_complete", "policy 20 '100%n %s'"),
              "init default\nzlog policy app/file.cpp function 42 20 format=%s: 100%n %s\n");
    EXPECT_EQ(write_line("zlog_incomplete", "policy 20 '100%n %s'"), "syslog 7 policy: function[42]: 100%n %s");
}

TEST(zlog, the_environment_names_the_configuration)
{
    EXPECT_EQ(write_line("zlog_complete", "policy 40 x", "ZLOG_CONF_PATH=/etc/other.conf"),
              "init /etc/other.conf\nzlog policy app/file.cpp function 42 40 format=%s: x\n");
}

TEST(zlog, a_zlog_that_cannot_be_used_leaves_the_line_to_syslog)
{
    EXPECT_EQ(write_line("zlog_incomplete", "policy 100 x"), "syslog 3 policy: function[42]: x");
    EXPECT_EQ(write_line("zlog_unconfigured", "policy 100 x"), "syslog 3 policy: function[42]: x");
}

TEST(zlog, levels_keep_their_meaning_in_syslog)
{
    const struct {
        int level, priority;
    } cases[] = {{0, 7}, {20, 7}, {40, 6}, {60, 5}, {80, 4}, {99, 4}, {100, 3}, {120, 2}, {200, 2}};
    for (const auto &[level, priority] : cases)
        EXPECT_EQ(write_line("zlog_incomplete", "policy " + std::to_string(level) + " x"),
                  "syslog " + std::to_string(priority) + " policy: function[42]: x");
}

TEST(zlog, a_line_of_any_length_arrives_whole)
{
    const std::string text(5000, 'y');
    EXPECT_EQ(write_line("zlog_complete", "policy 80 " + text),
              "init default\nzlog policy app/file.cpp function 42 80 format=%s: " + text + "\n");
}

TEST(zlog, syslog_gets_a_line_without_its_line_end)
{
    EXPECT_EQ(write_line("zlog_incomplete", "policy 80 'x\n\n'"), "syslog 4 policy: function[42]: x");
}

TEST(zlog, without_a_category_nothing_happens)
{
    EXPECT_EQ(tq_zlog_init(nullptr), nullptr);
    tqdf_zlog(nullptr, "f", 1, "f", 1, 1, TQ_ZLOG_ERROR, "%s", "x");
}

TEST(zlog, the_bounded_formatter_ends_its_text_and_tells_the_whole_length)
{
    char buffer[4];
    EXPECT_EQ(at_snprintf(buffer, sizeof buffer, "%d", 123456), 6);
    EXPECT_STREQ(buffer, "123");
}

} // namespace
