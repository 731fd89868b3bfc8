// One frame out of a capture file, as tcpdump(8) writes it: classic pcap, of Ethernet. The file is hostile.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace plx::tool {

// The frame of that number, counted from 1. `error` says why there is none; it is empty otherwise.
std::vector<uint8_t> read_frame(std::istream &in, uint64_t number, std::string &error);

} // namespace plx::tool
