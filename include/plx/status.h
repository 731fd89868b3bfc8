/* plx/status.h: what the numbers mean that an application is told, and texts for people.
 *
 * A fail callback's `status` or `result` comes from one of three sides, and the number tells which:
 *
 *     -1 to -17     the library: enum fp_udp_result          plx_result_text()
 *     101 and more  a service node: enum fp_udp_node_status  plx_node_status_text()
 *     others        the store client: its own codes          of the reference client tq_mom_strerror()
 *
 * The library's and the store client's come from inside the operation, which then changed nothing in the store or left
 * that open; a service node's from the event loop. The texts are inline, in English, never NULL, and not to be freed;
 * any number may be asked for. A callback that prints whatever it gets:
 *
 *     printf("failed: %s (%d)\n", status > 100 ? plx_node_status_text(status) : plx_result_text(status), status);
 */
#ifndef PLX_STATUS_H
#define PLX_STATUS_H

#include <plx/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a service node answers a request with: the `p_status` of its status record, which ace_fail_cb and apply_fail_cb
 * receive unchanged. A forwarding plane may have codes of its own beyond these. */
enum fp_udp_node_status {
    /* Programmed. No fail callback gets it. */
    FP_UDP_NODE_OK = 0,
    /* The table has no room for one more entry. Delete others, then set this one again: a node does not try by itself.
     */
    FP_UDP_NODE_TABLE_FULL = 101,
    /* An attribute that this plane does not know, or cannot act on. Another node may. */
    FP_UDP_NODE_UNSUPPORTED = 102,
    /* The packed attributes do not add up to the buffer's length: somebody wrote into the buffer's bytes. */
    FP_UDP_NODE_MALFORMED = 103,
    /* An attribute's value has not the size of its form; plx-attributes(7) tells each one's. */
    FP_UDP_NODE_BAD_VALUE = 104,
    /* The plane is configured to refuse this entry. */
    FP_UDP_NODE_REFUSED = 105,
    /* A number in the key or the record is beyond what the plane has: a direction, a kind of binding. */
    FP_UDP_NODE_OUT_OF_RANGE = 106,
    /* What the entry asks for excludes itself: no packet is ARP and has an IPv4 source, none is dropped and sent on. */
    FP_UDP_NODE_CONTRADICTION = 107,
    /* The node lacks the right to program its plane, or somebody else owns the table. */
    FP_UDP_NODE_NOT_PERMITTED = 108,
    /* The plane failed in a way of its own, which the node's log tells. */
    FP_UDP_NODE_PLANE_ERROR = 109,
    /* The port, or the one named in an action, is the node's, but its interface is not there. */
    FP_UDP_NODE_NO_INTERFACE = 110
};

/* A service node may name itself in a field of this number in its status records, a string beside the described fields:
 * its confirmations of one write then count once, however often it gives them. */
enum { FP_UDP_NODE_NAME_FIELD = 20 };

/* What a node status is called: "table full" for 101. "unknown status" for a number that is none of enum
 * fp_udp_node_status. `plx show` and `plx apply` print these texts. */
static inline const char *plx_node_status_text(int32_t status)
{
    /* From FP_UDP_NODE_TABLE_FULL on, in the order of the enumeration. */
    static const char *const texts[] = {"table full",
                                        "unsupported attribute",
                                        "malformed attributes",
                                        "attribute value of wrong size",
                                        "refused by configuration",
                                        "number out of range",
                                        "contradiction in the entry",
                                        "not permitted",
                                        "error of the plane",
                                        "no interface"};
    if (status == FP_UDP_NODE_OK)
        return "ok";
    if (status < FP_UDP_NODE_TABLE_FULL || status > FP_UDP_NODE_NO_INTERFACE)
        return "unknown status";
    return texts[status - FP_UDP_NODE_TABLE_FULL];
}

/* What a result of the library is called: "invalid argument" for -4. "unknown result" for a number that is none of enum
 * fp_udp_result, a store client's code among them: ask the store client for those. */
static inline const char *plx_result_text(int32_t result)
{
    /* By the negative of the code; NULL where there is none. */
    /* clang-format off */
    static const char *const texts[] = {
        "ok", "refused", "out of memory", NULL, "invalid argument", "no record", NULL, "not found", NULL, NULL, NULL,
        "the store could not be read", NULL, NULL, NULL, NULL, NULL, "topic refused"};
    /* clang-format on */
    if (result > 0 || result < FP_UDP_TOPIC_REFUSED || texts[-result] == NULL)
        return "unknown result";
    return texts[-result];
}

#ifdef __cplusplus
}
#endif

#endif
