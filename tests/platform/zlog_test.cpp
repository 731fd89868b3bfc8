// The system log, seen from outside a process that writes one line with or without a zlog library on its path.
#include "tq_zlog.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

// What becomes of a line of the category "policy" in a process that sees this library.
std::string write_line(const std::string &library, const std::string &arguments, const std::string &environment = "")
{
    const std::string command = "env -u ZLOG_CONF_PATH LD_LIBRARY_PATH=" ZLOG_STAND_INS "/" + library + " " +
                                environment + " " + ZLOG_WRITER " policy " + arguments;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return "no pipe";
    std::string output;
    for (int c; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    return pclose(pipe) == 0 ? output : output + " (failed)";
}

TEST(zlog, a_line_goes_as_it_is_to_zlog_when_that_can_be_used_or_else_to_syslog)
{
    const std::string zlog = "zlog policy app/file.cpp function 42 ", syslog = " policy: function[42]: ", y(5000, 'y');
    const struct {
        const char *library;
        std::string arguments, output;
        const char *environment = "";
    } cases[] = {{"zlog_complete", "80 'a line'", "init default\n" + zlog + "80 format=%s: a line\n"},
                 {"zlog_complete", "20 '100%n %s'", "init default\n" + zlog + "20 format=%s: 100%n %s\n"},
                 {"zlog_complete", "80 " + y, "init default\n" + zlog + "80 format=%s: " + y + '\n'},
                 {"zlog_complete", R"x(20 "$(printf 'a\nb\033c\302\233d\303\251')")x",
                  "init default\n" + zlog + "20 format=%s: a?b?c\302?d\303\251\n"},
                 {"zlog_complete", "40 x", "init /other\n" + zlog + "40 format=%s: x\n", "ZLOG_CONF_PATH=/other"},
                 {"zlog_complete", "80 'x\n\n'", "init default\n" + zlog + "80 format=%s: x\n"},
                 {"zlog_ruleless", "20 x",
                  "init default\nsyslog 4 policy: zlog has no rule for this category: its lines go to the system log"
                  "syslog 7" +
                      syslog + 'x'},
                 {"zlog_unconfigured", "100 x", "syslog 3" + syslog + 'x'},
                 {"zlog_incomplete", "20 '100%n %s'", "syslog 7" + syslog + "100%n %s"},
                 {"zlog_incomplete", "80 'x\n\n'", "syslog 4" + syslog + 'x'}};
    for (const auto &[library, arguments, output, environment] : cases)
        EXPECT_EQ(write_line(library, arguments, environment), output) << library;
}

TEST(zlog, levels_keep_their_meaning_in_syslog)
{
    const struct {
        int level, priority;
    } cases[] = {{0, 7}, {20, 7}, {40, 6}, {60, 5}, {80, 4}, {99, 4}, {100, 3}, {120, 2}, {200, 2}};
    for (const auto &[level, priority] : cases)
        EXPECT_EQ(write_line("zlog_incomplete", std::to_string(level) + " x"),
                  "syslog " + std::to_string(priority) + " policy: function[42]: x");
}

TEST(zlog, a_message_that_repeats_is_held_back_and_counted)
{
    const std::string line = "zlog policy app/file.cpp function 42 100 format=%s: ";
    const auto times = [&](int count, const std::string &text) {
        std::string lines;
        for (int i = 0; i < count; ++i)
            lines += line + text + '\n';
        return lines;
    };
    EXPECT_EQ(write_line("zlog_complete", "100 x 20"), "init default\n" + times(20, "x") + times(1, "of another text") +
                                                           times(1, "later") + times(20, "x") + "held back 0");
    EXPECT_EQ(write_line("zlog_complete", "100 x 25"),
              "init default\n" + times(20, "x") + times(1, "of another text") + times(1, "5 more of these: x") +
                  times(1, "later") + times(20, "x") + "held back 10" + times(1, "5 more of these: x"));
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
