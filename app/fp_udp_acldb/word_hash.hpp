// Bob Jenkins' 1996 word hash (lookup2) with initial value 0, unrolled for the two lengths that keys have.
//
// Bucket order is visible to those who traverse a table, so the values are fixed.
#pragma once

#include <cstdint>

namespace plx::acldb {

namespace detail {

inline constexpr uint32_t golden_ratio = 0x9E3779B9;

struct words {
    uint32_t a, b, c;
};

constexpr words mixed(words w)
{
    auto [a, b, c] = w;
    a = (a - b - c) ^ (c >> 13);
    b = (b - c - a) ^ (a << 8);
    c = (c - a - b) ^ (b >> 13);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 16);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 3);
    b = (b - c - a) ^ (a << 10);
    c = (c - a - b) ^ (b >> 15);
    return {a, b, c};
}

} // namespace detail

constexpr uint32_t word_hash(uint32_t word)
{
    using namespace detail;
    return mixed({golden_ratio + word, golden_ratio, sizeof word}).c;
}

constexpr uint32_t word_hash(uint32_t first, uint32_t second, uint32_t third)
{
    using namespace detail;
    words w = mixed({golden_ratio + first, golden_ratio + second, third});
    w.c += 3 * sizeof(uint32_t);
    return mixed(w).c;
}

static_assert(word_hash(0) == 0x8965BBE9 && word_hash(1) == 0xFA8BD2A8);
static_assert(word_hash(1, 1, 0) == 0x18550E7F && word_hash(1, 0, 1) == 0x0109CE5D);

} // namespace plx::acldb
