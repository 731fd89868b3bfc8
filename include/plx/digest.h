/* plx/digest.h: sums over records by which two parties find out whether they have the same: the store, a service node,
 * an application's cache.
 *
 * A record adds two numbers to a sum, made of its key and of what stands under it, modulo 2^64. The order does not
 * matter, and every machine makes the same number of the same record. The sums tell mistakes and losses apart from
 * nothing, not forgeries.
 *
 * A key's number begins with that of its table (PLX_DIGEST_ACE, PLX_DIGEST_APPLY) and goes through its fields in order:
 *   ace:   app_type, acl_id, sn
 *   apply: apply_type, acl_id, the ACL's app_type, phyid, priority, direction
 */
#ifndef PLX_DIGEST_H
#define PLX_DIGEST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { PLX_DIGEST_ACE = 0, PLX_DIGEST_APPLY = 1 };

/* Every bit of the number has a say in every bit of the result. */
static inline uint64_t plx_digest_stir(uint64_t number)
{
    number = (number ^ number >> 30U) * UINT64_C(0xbf58476d1ce4e5b9);
    number = (number ^ number >> 27U) * UINT64_C(0x94d049bb133111eb);
    return number ^ number >> 31U;
}

/* A key's number with one field more. */
static inline uint64_t plx_digest_number(uint64_t hash, uint64_t number)
{
    return plx_digest_stir((hash ^ number) + UINT64_C(0x9e3779b97f4a7c15));
}

/* The same of a text: eight bytes at a time, the first in the lowest bits, and the length. */
static inline uint64_t plx_digest_text(uint64_t hash, const char *text, size_t length)
{
    uint64_t word = 0;
    unsigned bits = 0;
    size_t at;
    for (at = 0; at < length; ++at) {
        word |= (uint64_t)(unsigned char)text[at] << bits;
        bits += 8;
        if (bits == 64) {
            hash = plx_digest_number(hash, word);
            word = bits = 0;
        }
    }
    return plx_digest_number(plx_digest_number(hash, word), length);
}

/* What a record adds to the two sums: `key` is its key's number, `content` one for what stands under the key. */
static inline uint64_t plx_digest_low(uint64_t key, uint64_t content)
{
    return plx_digest_number(key, content);
}
static inline uint64_t plx_digest_high(uint64_t key, uint64_t content)
{
    return plx_digest_number(plx_digest_stir(content << 32U | content >> 32U), key);
}

#ifdef __cplusplus
}
#endif

#endif
