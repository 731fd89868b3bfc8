// The options of `plx node --plane nftables`: what the numbers of a policy stand for on this machine.
#pragma once

#include "plane/packet/compile.hpp"
#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace plx::tool {

struct NftablesFlags {
    std::vector<std::string> ports; // PORT=INTERFACE
    std::string ports_file;
    std::string netns;
    std::vector<std::string> ignore; // names of attributes
    std::string double_tagged = "drop";
    std::vector<std::string> meters;  // ID=RATE
    std::vector<std::string> mirrors; // ID=INTERFACE
    std::optional<uint16_t> sample;
    std::vector<std::string> udf; // N=BASE+OFFSET

    bool any() const;
};

void add_options(CLI::App &command, NftablesFlags &flags);

// What the options say. `error` tells what is wrong with them when there is no result.
std::optional<plane::packet::Config> config_of(const NftablesFlags &flags, std::string &error);

// The ports alone: the options', and those of the file as it is now.
std::optional<std::map<uint32_t, std::string>> ports_of(const NftablesFlags &flags, std::string &error);

} // namespace plx::tool
