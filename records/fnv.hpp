// FNV-1a: a number for some bytes, the same on every machine. It tells contents apart; whoever wants two of the same
// can make them.
#pragma once

#include <cstdint>
#include <span>

namespace plx {

constexpr uint64_t fnv_basis = 0xcbf29ce484222325U;

constexpr uint64_t fnv1a(std::span<const uint8_t> bytes, uint64_t hash = fnv_basis)
{
    for (const uint8_t byte : bytes)
        hash = (hash ^ byte) * 0x100000001b3U;
    return hash;
}

} // namespace plx
