/* plx/digest.h: sums over records by which two parties find out whether they have the same: the store, a service node,
 * an application's cache.
 *
 * A record adds two numbers to a sum, made of its key and of what stands under it, modulo 2^64. The order does not
 * matter, and every machine makes the same number of the same record. The sums show mistakes and losses, not
 * forgeries.
 *
 * A key's number begins with that of its table (PLX_DIGEST_ACE, PLX_DIGEST_APPLY) and goes through its fields in order:
 *   ace:   app_type, acl_id, sn
 *   apply: apply_type, acl_id, the ACL's app_type, phyid, priority, direction
 *
 * Two sums, because one is the same too easily: of a part of the records, or where a record stands twice. Take both for
 * each record, starting from 0, and compare both.
 *
 * All of it is arithmetic: nothing here fails, allocates, or keeps what it is given.
 */
#ifndef PLX_DIGEST_H
#define PLX_DIGEST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a key's number begins with: the table that the key is of. */
enum { PLX_DIGEST_ACE = 0, PLX_DIGEST_APPLY = 1 };

/* Another number for each number: every bit of it has a say in every bit of the result, so that neighbours, such as
 * entries that are numbered in turn, are far apart in the sums.
 */
static inline uint64_t plx_digest_stir(uint64_t number)
{
    number = (number ^ number >> 30U) * UINT64_C(0xbf58476d1ce4e5b9);
    number = (number ^ number >> 27U) * UINT64_C(0x94d049bb133111eb);
    return number ^ number >> 31U;
}

/* A key's number with one field more: `hash` is the number so far, `number` the field. The order of
 * fields matters.
 */
static inline uint64_t plx_digest_number(uint64_t hash, uint64_t number)
{
    return plx_digest_stir((hash ^ number) + UINT64_C(0x9e3779b97f4a7c15));
}

/* The same of a field that is a text of `length` bytes, which may hold zeros and need not end in one: eight bytes at a
 * time, the first in the lowest bits on every machine, and the length, so that texts that begin alike differ. An empty
 * text counts as a field too.
 */
static inline uint64_t plx_digest_text(uint64_t hash, const char *text, size_t length)
{
    uint64_t word = 0;
    size_t at;
    for (at = 0; at < length; ++at) {
        word |= (uint64_t)(unsigned char)text[at] << 8U * (at % 8);
        if (at % 8 == 7) {
            hash = plx_digest_number(hash, word);
            word = 0;
        }
    }
    return plx_digest_number(plx_digest_number(hash, word), length);
}

/* What a record adds to the first sum: `key` is its key's number, `content` one for what stands under the key, such as
 * the identifier of the last write.
 */
static inline uint64_t plx_digest_low(uint64_t key, uint64_t content)
{
    return plx_digest_number(key, content);
}

/* What it adds to the second. Two contents that were exchanged between two keys change both sums: neither is a function
 * of the other.
 */
static inline uint64_t plx_digest_high(uint64_t key, uint64_t content)
{
    return plx_digest_number(plx_digest_stir(content << 32U | content >> 32U), key);
}

#ifdef __cplusplus
}
#endif

#endif
