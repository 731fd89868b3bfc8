// Sums over records by which two parties find out whether they have the same: the entries that a node has programmed,
// and those that the store asks for.
//
// The order does not matter, an entry is added or taken away in a few nanoseconds, and every machine makes the same
// number of the same record. They tell mistakes and losses apart from nothing, not forgeries.
#pragma once

#include "records/record.hpp"
#include <array>
#include <cstdint>
#include <string>

namespace plx {

// A number for a key, as good as different for different ones.
uint64_t digest_of(const Key &key);

struct Digest {
    uint64_t count = 0;
    uint64_t lo = 0, hi = 0;

    // `key` is a key's digest, `fingerprint` that of its Requested. Only what was added may be taken away.
    void add(uint64_t key, uint64_t fingerprint);
    void remove(uint64_t key, uint64_t fingerprint);
    bool operator==(const Digest &) const = default;
};

// Sums over parts of the keys, so that a difference is looked for in a part alone: by the first byte of their digests.
using PartDigests = std::array<Digest, 256>;
constexpr size_t part_of(uint64_t key)
{
    return key >> 56U;
}

// What a person calls the thing under a key: "acl 10 sn 150", "acl 10 on port 49 in".
std::string described(const Key &key);

} // namespace plx
