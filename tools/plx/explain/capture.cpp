// See capture.hpp.
#include "explain/capture.hpp"

#include <array>

namespace plx::tool {

namespace {

constexpr uint32_t microseconds = 0xa1b2c3d4, nanoseconds = 0xa1b23c4d, next_generation = 0x0a0d0d0a;
constexpr uint32_t ethernet = 1;
constexpr uint32_t longest_frame = 262144;

uint32_t word(const uint8_t *bytes, bool swapped)
{
    uint32_t value = 0;
    for (int at = 0; at < 4; ++at)
        value = value << 8U | bytes[swapped ? 3 - at : at];
    return value;
}

template <size_t Size> bool read(std::istream &in, std::array<uint8_t, Size> &bytes)
{
    in.read(reinterpret_cast<char *>(bytes.data()), Size);
    return in.gcount() == static_cast<std::streamsize>(Size);
}

bool is_magic(uint32_t value)
{
    return value == microseconds || value == nanoseconds;
}

std::string check_header(std::istream &in, bool &swapped)
{
    std::array<uint8_t, 24> header{};
    if (!read(in, header))
        return "is no capture";
    if (word(header.data(), false) == next_generation)
        return "is a pcapng capture; this reads pcap: editcap -F pcap makes one of it";
    swapped = is_magic(word(header.data(), true));
    if (!swapped && !is_magic(word(header.data(), false)))
        return "is no capture";
    return (word(header.data() + 20, swapped) & 0x0fffffffU) == ethernet ? "" : "is no capture of Ethernet";
}

} // namespace

std::vector<uint8_t> read_frame(std::istream &in, uint64_t number, std::string &error)
{
    bool swapped = false;
    error = check_header(in, swapped);
    for (uint64_t at = 1; error.empty(); ++at) {
        std::array<uint8_t, 16> header{};
        if (!read(in, header)) {
            error = "has only " + std::to_string(at - 1) + " frames";
            break;
        }
        const uint32_t size = word(header.data() + 8, swapped);
        std::vector<uint8_t> frame(std::min(size, longest_frame));
        in.read(reinterpret_cast<char *>(frame.data()), static_cast<std::streamsize>(frame.size()));
        if (size > longest_frame || in.gcount() != static_cast<std::streamsize>(size))
            error = "frame " + std::to_string(at) + " is damaged";
        else if (at == number)
            return frame;
    }
    return {};
}

} // namespace plx::tool
