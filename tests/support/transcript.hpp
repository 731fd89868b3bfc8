// Scenarios as text: what is done, line by line, and set in under each line what came of it. A scenario is a test.
//
//     a line before the first scenario: done before each of them
//     == name_of_a_scenario
//     # a remark
//     a line for perform()
//         what it gave, line by line
//         ~ a regular expression, for a line that is not the same every time
//
// In a line, <ab*1000> is "ab" a thousand times; in what came, a character more than 40 times is shortened so.
// PLX_ACCEPT=1 writes what came instead of comparing it, for a diff to be reviewed.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace plx {

class Transcript : public testing::Test {
  public:
    Transcript *of(std::string path, std::string name);

  protected:
    // Does what a line says, and tells what came of it.
    virtual std::string perform(const std::string &line) = 0;
    // For perform() to return: the rest of the scenario cannot be had here.
    static std::string skip(const char *why);

  private:
    struct Step {
        std::string line;
        std::vector<std::string> expected;
    };

    void TestBody() override;
    bool step(const Step &step, size_t number, std::vector<std::string> &written);

    std::string path_, name_;
};

// The scenarios of the folder's text files become tests, with a mark behind their names. False when there is none.
bool register_transcripts(const std::string &folder, const std::function<Transcript *()> &make,
                          const std::string &mark = "");

// Takes the first word off a line.
std::string take_word(std::string &line);
// A text with \n, \t, \0, \xHH and \\ as what they stand for.
std::string unescaped(const std::string &text);

} // namespace plx
