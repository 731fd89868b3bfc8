/* plx/types.h: result codes, limits, and the objects an application describes its policy with.
 *
 * How forwarding planes read them. Every ACL that is applied to a port, in the packet's direction, judges the packet:
 *
 *  - within an ACL the entry of the greatest `ace_pri` comes first, of equal ones that of the smallest `sn`; the
 *    default entry comes last, whatever its priority;
 *  - the first entry whose match fields all agree decides; one without a match field agrees with every packet;
 *  - a packet that no entry agrees with passes this ACL: without a default entry an ACL denies nothing else;
 *  - of several applies on one port and direction that of the greatest `priority` comes first; the order of equal ones
 *    is open. A permit ends its own ACL alone, a deny drops the packet.
 *
 * The library orders nothing: it stores these numbers, and the service nodes act on them.
 */
#ifndef PLX_TYPES_H
#define PLX_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A layout that applications may rely on. C99 has no assertion for it; C11 and C++ check. */
#if defined(__cplusplus)
#define FP_UDP_LAYOUT(condition) static_assert(condition, #condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define FP_UDP_LAYOUT(condition) _Static_assert(condition, #condition)
#else
#define FP_UDP_LAYOUT(condition) struct fp_udp_layout_unchecked
#endif

/* Marks a function whose result tells what nothing else does: whoever drops it is warned. From C++17 on a cast to void
 * drops it on purpose; in C, where GCC warns of the cast as well, assign it and say why it is of no use. */
#if defined(__cplusplus) && __cplusplus >= 201703L
#define FP_UDP_RESULT [[nodiscard]]
#elif defined(__GNUC__)
#define FP_UDP_RESULT __attribute__((warn_unused_result))
#else
#define FP_UDP_RESULT
#endif

/* Store failures are passed on with the store client's own non-zero code, which is never one of these. status.h has
 * texts. */
enum fp_udp_result {
    FP_UDP_OK = 0,
    /* Registration refused, or the store or the cache could not be set up. */
    FP_UDP_REFUSED = -1,
    /* An allocation failed. */
    FP_UDP_NO_MEMORY = -2,
    /* An argument is null, an out-pointer included, or out of range, or a name is too long. */
    FP_UDP_INVALID = -4,
    /* A status notification came without its record. */
    FP_UDP_NO_RECORD = -5,
    /* Not in the cache, or not in the store. */
    FP_UDP_NOT_FOUND = -7,
    /* The store could not be read. */
    FP_UDP_READ_FAILED = -11,
    /* Topic registration refused. */
    FP_UDP_TOPIC_REFUSED = -17
};

enum {
    /* Bytes of an application type field: at most 31 characters and the terminator. */
    FP_UDP_APP_TYPE_SIZE = 32,
    /* Bytes of application-private data in an ACL, ACE or apply. */
    FP_UDP_PRIV_SIZE = 32,
    /* Bytes of application-private data in an uplink or SVI router setting. */
    FP_UDP_PORT_PRIV_SIZE = 8,
    /* Application types that a process can register. */
    FP_UDP_APP_TYPE_MAX = 50
};

/* What names an ACL. The leading fields of fp_udp_acl and fp_udp_acl_info: either may be passed as a key. */
typedef struct fp_udp_acl_key {
    /* The owning application type. */
    char app_type[FP_UDP_APP_TYPE_SIZE];
    /* The ACL's number within the application type. */
    uint32_t acl_id;
} fp_udp_acl_key;

/* An ACL. It has no attributes and, until it has ACEs and an apply, no effect. */
typedef struct fp_udp_acl {
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    /* ACL class, 0 to 255: what kind of ACL it is, agreed between the application and its forwarding plane. The library
     * stores it and copies it into the ACL's applies; the simulated plane attaches no meaning to it. */
    uint8_t acl_cls;
    /* The application's: stored, and handed back unchanged in callbacks. */
    uint8_t priv[FP_UDP_PRIV_SIZE];
} fp_udp_acl;
FP_UDP_LAYOUT(offsetof(fp_udp_acl, acl_id) == offsetof(fp_udp_acl_key, acl_id));
FP_UDP_LAYOUT(offsetof(fp_udp_acl, priv) == 37);

/* ---- attributes ------------------------------------------------------------------------------------------------ */

enum {
    /* Bytes of a name field. */
    FP_UDP_ATTR_NAME_SIZE = 20,
    /* Bytes of the longest accepted name with its terminator. */
    FP_UDP_ATTR_NAME_MAX = 18,
    /* Bytes of the longest value. */
    FP_UDP_ATTR_VALUE_MAX = 240,
    /* Bytes of the type word and length before each packed value. */
    FP_UDP_ATTR_HEADER_SIZE = 8,
    /* Rows of the name tables. */
    FP_UDP_CTRL_ATTR_COUNT = 6,
    FP_UDP_FIELD_ATTR_COUNT = 181,
    FP_UDP_ACTION_ATTR_COUNT = 46
};

/* The class chooses the name table. The same name may stand in several: `vid` as a field is a VLAN to match, as an
 * action a VLAN to set. */
enum fp_udp_attr_class {
    /* How the entry is installed. */
    FP_UDP_ATTR_CTRL = 0,
    /* What it matches. */
    FP_UDP_ATTR_FIELD = 1,
    /* What it does. */
    FP_UDP_ATTR_ACTION = 2
};

/* One attribute on its way into a buffer; see the buffer's construct and push. */
typedef struct fp_udp_attr {
    /* Terminated; the bytes behind the terminator do not count. */
    char name[FP_UDP_ATTR_NAME_SIZE];
    /* enum fp_udp_attr_class */
    uint32_t cls;
    /* Bytes of `value` that count, 0 to 240. */
    int32_t len;
    uint8_t value[FP_UDP_ATTR_VALUE_MAX];
} fp_udp_attr;
FP_UDP_LAYOUT(offsetof(fp_udp_attr, cls) == 20 && offsetof(fp_udp_attr, len) == 24);
FP_UDP_LAYOUT(offsetof(fp_udp_attr, value) == 28 && sizeof(fp_udp_attr) == 268);

/* A row of a name table: the id that stands for the name in a packed attribute. */
typedef struct fp_udp_attr_entry {
    char name[FP_UDP_ATTR_NAME_SIZE];
    uint32_t id;
} fp_udp_attr_entry;
FP_UDP_LAYOUT(sizeof(fp_udp_attr_entry) == 24);

/* The names of the three classes, for look-up. plx-attributes(7) lists them with the form of each value. Of numbers
 * that name something else (`meter`, `mirror`, `mirror_id`, `counter`) the library knows nothing: that page tells whose
 * they are. The tables are writable for programs that were built against them so; do not write. */
extern fp_udp_attr_entry ctrl_attr[FP_UDP_CTRL_ATTR_COUNT];
extern fp_udp_attr_entry field_attr[FP_UDP_FIELD_ATTR_COUNT];
extern fp_udp_attr_entry action_attr[FP_UDP_ACTION_ATTR_COUNT];

/* The packed attributes of an ACE or apply, one heap block that every push may move.
 *
 * `data` begins right behind `len`. An attribute is a 32-bit type word (class in bits 0-7, id in bits 8-31), a 32-bit
 * value length, both in host byte order, and the value; attributes follow each other without padding, in push order.
 * Pushing a name twice stores it twice. There is no way to take one out again.
 *
 * Push with plx_push() or plx_push_all() of attribute.h, which tell what became of it. The two members here do not:
 *
 * construct: fills `attr`. A null argument, a length above 240 or a name of 18 characters or more is reported on the
 * diagnostic channel and leaves `attr` as it was: what a push then appends is what was in it before, or nothing.
 *
 * push: appends `attr` to the buffer that `tlv` points at. A length outside 0..240, a class above 2 or a name that its
 * class's table does not have is reported likewise and leaves the buffer as it was: THE ENTRY IS WIDER THAN IT WAS
 * MEANT, and no result says so. When memory is short the buffer is freed with all that was in it, and *tlv becomes
 * NULL; the next call through it crashes, and an entry that is set so matches everything. More than 65,535 bytes wrap
 * `len`. */
typedef struct fp_udp_ace_tlv fp_udp_ace_tlv;
struct fp_udp_ace_tlv {
    void (*construct)(fp_udp_attr *attr, const char *name, uint32_t cls, const uint8_t *value, int32_t len);
    void (*push)(fp_udp_ace_tlv **tlv, fp_udp_attr attr);
    /* Bytes of data. */
    uint16_t len;
    /* `len` bytes. */
    uint8_t data[1];
};
FP_UDP_LAYOUT(offsetof(fp_udp_ace_tlv, len) == 2 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_ace_tlv, data) == 2 * sizeof(void *) + 2);

/* ---- entries and bindings -------------------------------------------------------------------------------------- */

/* An ACE as the application builds it: alloc_ace, priv and ace_pri set directly, attributes pushed, free_ace. */
typedef struct fp_udp_ace {
    /* Sequence number: names the entry within its ACL. Among entries of equal priority the smaller comes first. */
    uint64_t sn;
    /* Non-zero: the ACL's default entry, which comes behind all others whatever its priority and decides what they
     * leave open. An ACL has one at most; the library does not check that. */
    uint8_t default_ace;
    /* The application's: stored, and handed back unchanged in callbacks. */
    uint8_t priv[FP_UDP_PRIV_SIZE];
    /* Priority: the greater comes first. */
    uint64_t ace_pri;
    /* Attributes, owned by the entry; NULL is an entry without attributes: it matches every packet and does nothing. */
    fp_udp_ace_tlv *tlv;
} fp_udp_ace;
FP_UDP_LAYOUT(offsetof(fp_udp_ace, priv) == 9 && offsetof(fp_udp_ace, ace_pri) == 48 &&
              offsetof(fp_udp_ace, tlv) == 56);

/* An apply's `direction`. The library stores any number; what a plane does not have it refuses. */
enum fp_udp_direction {
    /* Packets that come in by the port. */
    FP_UDP_DIRECTION_IN = 0,
    /* Packets that leave by it. */
    FP_UDP_DIRECTION_OUT = 1
};

/* What names an apply in the store, besides its ACL. The leading fields of fp_udp_apply.
 *
 * The cache's key is shorter: it leaves out `direction`, and `priority` too while priorities are skipped. One ACL in
 * both directions on one port therefore needs two priorities: with one, the second set_apply takes over the first's
 * cache entry, whose outcome is then never told, although both records stand in the store and both are programmed. */
typedef struct fp_udp_apply_key {
    /* The applying application type: whose bracket, callbacks and status it goes by. Often that of the ACL. */
    char apply_type[FP_UDP_APP_TYPE_SIZE];
    /* The physical port, in the switch's own numbering. */
    uint32_t phyid;
    /* Among the applies of one port and direction the greater comes first. */
    uint32_t priority;
    /* enum fp_udp_direction */
    uint32_t direction;
} fp_udp_apply_key;

/* An ACL bound to a port: alloc_apply, priv set directly, free_apply. */
typedef struct fp_udp_apply {
    char apply_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t phyid;
    uint32_t priority;
    uint32_t direction;
    /* The application's: stored, and handed back unchanged in callbacks. */
    uint8_t priv[FP_UDP_PRIV_SIZE];
    /* Attributes, owned by the apply; NULL is an apply without attributes. */
    fp_udp_ace_tlv *tlv;
} fp_udp_apply;
FP_UDP_LAYOUT(offsetof(fp_udp_apply, phyid) == 32 && offsetof(fp_udp_apply, direction) == 40);
FP_UDP_LAYOUT(offsetof(fp_udp_apply, priv) == sizeof(fp_udp_apply_key));

/* An uplink setting: port and type name it. What types there are is the forwarding plane's. */
typedef struct fp_udp_uplink {
    uint32_t phyid;
    uint32_t type;
    /* The application's. */
    uint8_t priv[FP_UDP_PORT_PRIV_SIZE];
} fp_udp_uplink;
FP_UDP_LAYOUT(sizeof(fp_udp_uplink) == 16);

/* ---- cached descriptors: what callbacks receive ---------------------------------------------------------------- */

/* Of an ACL. Of a change that another process made only the two leading fields are filled. */
typedef struct fp_udp_acl_info {
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    /* 0: an ACL's write is answered by the store alone. */
    int32_t stat;
    /* Identifier of the newest write: monotonic microseconds, as `req_uuid` in its record. */
    uint64_t uuid;
    uint8_t priv[FP_UDP_PRIV_SIZE];
} fp_udp_acl_info;
FP_UDP_LAYOUT(offsetof(fp_udp_acl_info, acl_id) == offsetof(fp_udp_acl_key, acl_id));
FP_UDP_LAYOUT(offsetof(fp_udp_acl_info, uuid) == 40 && offsetof(fp_udp_acl_info, priv) == 48);

/* Of an ACE. */
typedef struct fp_udp_ace_info {
    uint64_t sn;
    /* Default entry: as of the entry's first set. A later set changes the record, not this. */
    uint8_t def;
    /* First failure that a service node reported (status.h), 0 while none. */
    int32_t stat;
    /* Identifier of the newest write; answers to older ones do not count. */
    uint64_t uuid;
    uint8_t priv[FP_UDP_PRIV_SIZE];
    /* Service nodes that reported success; wraps at 256. */
    uint8_t req_count;
    /* 1: the outcome has been reported. */
    uint8_t is_req;
} fp_udp_ace_info;
FP_UDP_LAYOUT(offsetof(fp_udp_ace_info, uuid) == 16 && offsetof(fp_udp_ace_info, priv) == 24);

/* Of an apply. */
typedef struct fp_udp_apply_info {
    char apply_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t phyid;
    /* Priority as part of the key: 0 while priorities are skipped. */
    uint32_t pri;
    /* Direction of the set that made the cache entry; not part of its key. */
    uint32_t dir;
    /* As in fp_udp_ace_info. */
    int32_t stat;
    /* Priority as stored. */
    uint32_t value_pri;
    /* As in fp_udp_ace_info, and so are the other three. */
    uint64_t uuid;
    uint8_t priv[FP_UDP_PRIV_SIZE];
    uint8_t req_count;
    uint8_t is_req;
} fp_udp_apply_info;
FP_UDP_LAYOUT(offsetof(fp_udp_apply_info, phyid) == 32 && offsetof(fp_udp_apply_info, dir) == 40);
FP_UDP_LAYOUT(offsetof(fp_udp_apply_info, value_pri) == 48 && offsetof(fp_udp_apply_info, uuid) == 56);

/* Hit counters of one ACE, as a service node published them. The first pair counts packets before bytes, the second
 * bytes before packets: mind the order. */
typedef struct fp_udp_ace_counter {
    uint64_t counter_pkt;
    uint64_t counter_byte;
    /* When they were read; of this project's nodes the wall clock in milliseconds. */
    uint64_t timestamp;
    /* A second reading, which forwarding planes may fill; this project's nodes leave the three at 0. */
    uint64_t counter_byte1;
    uint64_t counter_pkt1;
    uint64_t timestamp_rt;
} fp_udp_ace_counter;

#ifdef __cplusplus
}
#endif

#endif
