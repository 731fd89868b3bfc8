// What the random scripts and the transcripts are made of: lines of words.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

using script = std::vector<std::string>;

// The words of a line, in order.
struct reader {
    std::istringstream words;

    std::string word()
    {
        std::string text;
        words >> text;
        return text;
    }
    int64_t number() { return strtoll(word().c_str(), nullptr, 0); }
    uint32_t small() { return static_cast<uint32_t>(number()); }
    std::string rest()
    {
        std::string text;
        std::getline(words >> std::ws, text);
        return text;
    }
};

inline std::string text_of(const script &all)
{
    std::string text;
    for (const std::string &line : all)
        text += line + "\n";
    return text;
}

inline script read_lines(const std::string &path)
{
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    script all;
    for (std::string line; std::getline(file, line);)
        all.push_back(line);
    return all;
}
