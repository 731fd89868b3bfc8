// The entry that the benchmarks set: a five-tuple with its verdict, as most lists in use have them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <plx/libplx.h>

namespace bench {

inline constexpr size_t entry_bytes = 72; // of its packed attributes

struct value {
    uint8_t attribute_class;
    const char *name;
    uint8_t bytes[8]; // a number and its mask
    int32_t length;
};

inline constexpr value five_tuple[] = {
    {FP_UDP_ATTR_FIELD, "ipv4_src", {10, 1, 0, 0, 255, 255, 0, 0}, 8},
    {FP_UDP_ATTR_FIELD, "ipv4_dst", {192, 0, 2, 0, 255, 255, 255, 0}, 8},
    {FP_UDP_ATTR_FIELD, "ipv4_proto", {6}, 1},
    {FP_UDP_ATTR_FIELD, "src_l4port", {0x80, 0, 0x80, 0}, 4},
    {FP_UDP_ATTR_FIELD, "dst_l4port", {0x01, 0xbb}, 2},
    {FP_UDP_ATTR_ACTION, "fwd", {0}, 1},
};

// An ACE with these attributes; ends the program where it did not take them whole, for nothing would be measured then.
inline fp_udp_ace *new_entry(const fp_udp_mgr &mgr)
{
    fp_udp_ace *ace = mgr.alloc_ace(0, 0);
    for (const value &v : five_tuple) {
        if (ace == nullptr || ace->tlv == nullptr)
            break;
        fp_udp_attr attr;
        ace->tlv->construct(&attr, v.name, v.attribute_class, v.bytes, v.length);
        ace->tlv->push(&ace->tlv, attr);
    }
    if (ace == nullptr || ace->tlv == nullptr || ace->tlv->len != entry_bytes) {
        std::fputs("bench: an entry without its attributes\n", stderr);
        std::exit(1);
    }
    return ace;
}

} // namespace bench
