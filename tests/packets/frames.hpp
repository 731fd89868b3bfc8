// Frames as text, from the outside in: "eth(src=02:00:00:00:00:01) tag(vid=5) ip4(src=10.0.0.1) tcp(dport=22)".
//
// A layer has a default for everything; the type and protocol fields name the layer that follows, and lengths and the
// IPv4 checksum are right, where the text does not say otherwise. raw(0a0b) is these bytes, cut(N) in the end N bytes
// fewer.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace plx::test {

std::vector<uint8_t> unhex(const std::string &text);
std::vector<uint8_t> address_of(const std::string &text); // MAC, IPv4 or IPv6; empty: none

// Throws std::invalid_argument.
std::vector<uint8_t> frame_of(const std::string &text);

// The text of some frame: tags, fragments, extension headers, tunnels, frames that are too short.
std::string any_frame(std::mt19937 &random);

// Values that frames and entries are likely to share.
uint64_t any_number(std::mt19937 &random, unsigned bits);
const char *any_ipv4(std::mt19937 &random);
const char *any_ipv6(std::mt19937 &random);
const char *any_mac(std::mt19937 &random);

} // namespace plx::test
