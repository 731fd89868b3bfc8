/* plx/attribute.h: attributes pushed with a result.
 *
 * The trap that this header is for: a buffer's own `push` returns nothing. A name that is misspelt, too long or of
 * another class, a value that is too long, memory that ran out are told on the diagnostic channel and nowhere else, and
 * the attribute is missing. An entry that lost its "ipv4_src" is an entry for all of IPv4; it is programmed, confirmed,
 * and denies everybody. The calls below make the same push and tell what became of it:
 *
 *     const plx_attribute attributes[] = {
 *         {FP_UDP_ATTR_FIELD, "ipv4_src", network, sizeof network},
 *         {FP_UDP_ATTR_ACTION, "fwd", &deny, sizeof deny},
 *     };
 *     const char *failed;
 *     int32_t result = plx_push_all(&ace->tlv, attributes, 2, &failed);
 *     if (result != FP_UDP_OK)
 *         fprintf(stderr, "%s: %s\n", failed, plx_result_text(result)); ... and free `ace`, do not set it
 *
 * They serve entries and applies alike, in C and in C++. They are inline: of the library they need the name tables, and
 * they push through the buffer, so that whoever looks there sees no difference.
 */
#ifndef PLX_ATTRIBUTE_H
#define PLX_ATTRIBUTE_H

#include <plx/types.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An attribute to push. `name` and `value` stay the caller's and are copied. plx-attributes(7) tells the form and the
 * length of each name's value; neither the library nor these calls check a value against it, the service nodes do. */
typedef struct plx_attribute {
    /* enum fp_udp_attr_class */
    uint32_t cls;
    /* As it stands in the class's table; at most 17 characters. */
    const char *name;
    /* Match fields and actions alike in network byte order, as plx-attributes(7) has them. */
    const void *value;
    /* Bytes of value, 0 to 240. With 0, `value` must not be null all the same. */
    size_t len;
} plx_attribute;

/* Whether the table of the class has the name: 1 or 0. For programs that take names from outside and want to refuse
 * them before they build anything. A null name and a class above 2 are unknown. */
static inline int plx_attribute_known(uint32_t cls, const char *name)
{
    const fp_udp_attr_entry *const tables[] = {ctrl_attr, field_attr, action_attr};
    static const size_t rows[] = {FP_UDP_CTRL_ATTR_COUNT, FP_UDP_FIELD_ATTR_COUNT, FP_UDP_ACTION_ATTR_COUNT};
    size_t row;
    if (name == NULL || cls > FP_UDP_ATTR_ACTION)
        return 0;
    for (row = 0; row < rows[cls]; ++row)
        if (strncmp(tables[cls][row].name, name, FP_UDP_ATTR_NAME_SIZE) == 0)
            return 1;
    return 0;
}

/* Pushes one attribute onto an entry's or an apply's buffer: `tlv` is the address of its `tlv` field.
 *
 *  0  the attribute is in the buffer, behind those that were there.
 * -4  it is not, and the buffer is as it was: a null argument, a class above 2, a name that its class's table does not
 *     have, more than 240 bytes of value, or more than 65,535 bytes in the buffer altogether.
 * -2  memory is short. The buffer is gone, with all that was in it: `*tlv` is NULL, and stays so at every further call,
 *     which returns -2 as well. An object without its buffer may be freed, but must not be set: the library would take
 *     it for an entry without attributes.
 *
 * On the diagnostic channel -4 may be silent: what can be seen to be refused is not pushed at all. A value of the wrong
 * length for its name is pushed: a service node answers it with FP_UDP_NODE_BAD_VALUE.
 *
 * The compiler warns whoever drops the result: an entry that lost a match field is programmed, and agrees with more. */
FP_UDP_RESULT static inline int32_t plx_push(fp_udp_ace_tlv **tlv, uint32_t cls, const char *name, const void *value,
                                             size_t len)
{
    fp_udp_attr attr;
    size_t grown;
    if (tlv == NULL || value == NULL || len > FP_UDP_ATTR_VALUE_MAX || !plx_attribute_known(cls, name))
        return FP_UDP_INVALID;
    if (*tlv == NULL) /* an earlier push found no memory */
        return FP_UDP_NO_MEMORY;
    grown = (*tlv)->len + FP_UDP_ATTR_HEADER_SIZE + len;
    /* The buffer's length has 16 bits, and the unchecked push lets it wrap. */
    if (grown > UINT16_MAX)
        return FP_UDP_INVALID;
    (*tlv)->construct(&attr, name, cls, (const uint8_t *)value, (int32_t)len);
    (*tlv)->push(tlv, attr);
    if (*tlv == NULL)
        return FP_UDP_NO_MEMORY;
    /* Whatever else made the push refuse it shows in the length. */
    return (*tlv)->len == grown ? FP_UDP_OK : FP_UDP_INVALID;
}

/* Pushes `count` attributes in their order and stops at the first that fails. The results are plx_push()'s; what stood
 * before the failing one in the list is in the buffer then: free the object, or it will be set with half of its fields.
 * `failed`, when it is not NULL, receives the failing attribute's name (the caller's own pointer; NULL where that is
 * null itself), and NULL on success. A null list of 0 attributes succeeds. */
FP_UDP_RESULT static inline int32_t plx_push_all(fp_udp_ace_tlv **tlv, const plx_attribute *attributes, size_t count,
                                                 const char **failed)
{
    int32_t result = FP_UDP_OK;
    size_t i;
    if (failed != NULL)
        *failed = NULL;
    if (attributes == NULL && count != 0)
        return FP_UDP_INVALID;
    for (i = 0; i < count && result == FP_UDP_OK; ++i) {
        result = plx_push(tlv, attributes[i].cls, attributes[i].name, attributes[i].value, attributes[i].len);
        if (result != FP_UDP_OK && failed != NULL)
            *failed = attributes[i].name;
    }
    return result;
}

#ifdef __cplusplus
}
#endif

#endif
