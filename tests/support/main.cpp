// Runs every case in a process of its own, since the library's state lives as long as the process: asked for a single
// case by its full name the program runs it; asked for more it starts itself once for each.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace {

// Full names of the cases that `filter` selects.
std::vector<std::string> selected(const std::string &program, const std::string &filter)
{
    std::vector<std::string> names;
    std::string suite;
    FILE *list = popen(("'" + program + "' --gtest_list_tests --gtest_filter='" + filter + "'").c_str(), "r");
    char line[512];
    while (list && fgets(line, sizeof line, list)) {
        std::string text(line, strcspn(line, " #\r\n"));
        if (text.empty())
            names.push_back(suite + std::string(line + 2, strcspn(line + 2, " #\r\n")));
        else if (text.back() == '.')
            suite = text;
    }
    if (list)
        pclose(list);
    return names;
}

bool passes(const std::string &program, const std::string &name)
{
    std::string filter = "--gtest_filter=" + name, brief = "--gtest_brief=1";
    char *arguments[] = {const_cast<char *>(program.c_str()), filter.data(), brief.data(), nullptr};
    pid_t child = 0;
    int status = -1;
    if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) != 0)
        return false;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::string filter = testing::GTEST_FLAG(filter);
    if (testing::GTEST_FLAG(list_tests) || filter.find_first_of("*?:-") == std::string::npos)
        return RUN_ALL_TESTS();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<std::string> names = selected(program, filter), failed;
    for (const std::string &name : names)
        if (!passes(program, name))
            failed.push_back(name);
    std::cout << names.size() - failed.size() << " of " << names.size() << " cases passed\n";
    for (const std::string &name : failed)
        std::cout << "FAILED " << name << "\n";
    return failed.empty() && !names.empty() ? 0 : 1;
}
