// Runs a fuzz target over kept inputs, without the fuzzer: every file of the folders that are named, one after another.
// An input that breaks the target ends the program, with the input's name as the last that it printed.
#include "input.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

namespace {

std::string content_of(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

int main(int argc, char **argv)
{
    std::set<std::filesystem::path> inputs;
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
            inputs.insert(entry.path());
    for (const auto &path : inputs) {
        fprintf(stderr, "%s\n", path.c_str());
        const std::string content = content_of(path);
        // A block of exactly the input's size: a sanitizer sees a read beyond it.
        const std::vector<uint8_t> exact(content.begin(), content.end());
        LLVMFuzzerTestOneInput(exact.data(), exact.size());
    }
    fprintf(stderr, "%zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
