/* plx/types.h: result codes, limits, and the objects an application describes its policy with. */
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

/* Store failures are passed on with the store client's own non-zero code, which is never one of these. */
enum fp_udp_result {
    FP_UDP_OK = 0,
    FP_UDP_REFUSED = -1,       /* registration refused, store connection or cache set-up failed */
    FP_UDP_NO_MEMORY = -2,     /* an allocation failed */
    FP_UDP_INVALID = -4,       /* an argument is null, out of range, or a name too long */
    FP_UDP_NO_RECORD = -5,     /* a status notification came without its record */
    FP_UDP_NOT_FOUND = -7,     /* not in the cache, or not in the store */
    FP_UDP_READ_FAILED = -11,  /* the store could not be read */
    FP_UDP_TOPIC_REFUSED = -17 /* topic registration refused */
};

enum {
    FP_UDP_APP_TYPE_SIZE = 32, /* bytes of an application type field: at most 31 characters and the terminator */
    FP_UDP_PRIV_SIZE = 32,     /* bytes of application-private data in an ACL, ACE or apply */
    FP_UDP_PORT_PRIV_SIZE = 8, /* bytes of application-private data in an uplink or SVI router setting */
    FP_UDP_APP_TYPE_MAX = 50   /* application types that a process can register */
};

/* What names an ACL. The leading fields of fp_udp_acl and fp_udp_acl_info: either may be passed as a key. */
typedef struct fp_udp_acl_key {
    char app_type[FP_UDP_APP_TYPE_SIZE]; /* the owning application type */
    uint32_t acl_id;                     /* number within the application type */
} fp_udp_acl_key;

typedef struct fp_udp_acl {
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    uint8_t acl_cls;                /* ACL class */
    uint8_t priv[FP_UDP_PRIV_SIZE]; /* the application's, stored and handed back unchanged */
} fp_udp_acl;
FP_UDP_LAYOUT(offsetof(fp_udp_acl, acl_id) == offsetof(fp_udp_acl_key, acl_id));
FP_UDP_LAYOUT(offsetof(fp_udp_acl, priv) == 37);

/* ---- attributes ------------------------------------------------------------------------------------------------ */

enum {
    FP_UDP_ATTR_NAME_SIZE = 20,  /* bytes of a name field */
    FP_UDP_ATTR_NAME_MAX = 18,   /* bytes of the longest accepted name with its terminator */
    FP_UDP_ATTR_VALUE_MAX = 240, /* bytes of the longest value */
    FP_UDP_ATTR_HEADER_SIZE = 8, /* type word and length before each packed value */
    FP_UDP_CTRL_ATTR_COUNT = 6,
    FP_UDP_FIELD_ATTR_COUNT = 181,
    FP_UDP_ACTION_ATTR_COUNT = 46
};

/* The class chooses the name table; the same name may stand in several. */
enum fp_udp_attr_class {
    FP_UDP_ATTR_CTRL = 0,  /* how the entry is installed */
    FP_UDP_ATTR_FIELD = 1, /* what it matches */
    FP_UDP_ATTR_ACTION = 2 /* what it does */
};

/* One attribute on its way into a buffer; see the buffer's construct and push. */
typedef struct fp_udp_attr {
    char name[FP_UDP_ATTR_NAME_SIZE];
    uint32_t cls; /* enum fp_udp_attr_class */
    int32_t len;  /* bytes of value that count, 0 to 240 */
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

extern fp_udp_attr_entry ctrl_attr[FP_UDP_CTRL_ATTR_COUNT];
extern fp_udp_attr_entry field_attr[FP_UDP_FIELD_ATTR_COUNT];
extern fp_udp_attr_entry action_attr[FP_UDP_ACTION_ATTR_COUNT];

/* The packed attributes of an ACE or apply, one heap block that every push may move.
 *
 * `data` begins right behind `len`. An attribute is a 32-bit type word (class in bits 0-7, id in bits 8-31), a 32-bit
 * value length, both in host byte order, and the value; attributes follow each other without padding, in push order.
 * Pushing a name twice stores it twice.
 *
 *     fp_udp_attr attr;
 *     ace->tlv->construct(&attr, "fwd", FP_UDP_ATTR_ACTION, &permit, 1);
 *     ace->tlv->push(&ace->tlv, attr);
 *
 * construct: fills `attr`. A null argument, a length above 240 or a name of 18 characters or more is reported and
 * leaves `attr` as it was. push: appends `attr` to the buffer that `tlv` points at. A length outside 0..240, an unknown
 * class or name is reported and leaves the buffer as it was. When memory is short the buffer is freed and *tlv becomes
 * NULL. */
typedef struct fp_udp_ace_tlv fp_udp_ace_tlv;
struct fp_udp_ace_tlv {
    void (*construct)(fp_udp_attr *attr, const char *name, uint32_t cls, const uint8_t *value, int32_t len);
    void (*push)(fp_udp_ace_tlv **tlv, fp_udp_attr attr);
    uint16_t len;    /* bytes of data */
    uint8_t data[1]; /* `len` bytes */
};
FP_UDP_LAYOUT(offsetof(fp_udp_ace_tlv, len) == 2 * sizeof(void *));
FP_UDP_LAYOUT(offsetof(fp_udp_ace_tlv, data) == 2 * sizeof(void *) + 2);

/* ---- entries and bindings -------------------------------------------------------------------------------------- */

/* An ACE as the application builds it: alloc_ace, priv and ace_pri set directly, attributes pushed, free_ace. */
typedef struct fp_udp_ace {
    uint64_t sn;                    /* sequence number: names the entry within its ACL */
    uint8_t default_ace;            /* non-zero: the ACL's default entry */
    uint8_t priv[FP_UDP_PRIV_SIZE]; /* the application's */
    uint64_t ace_pri;               /* priority */
    fp_udp_ace_tlv *tlv;            /* attributes, owned by the entry; NULL is an entry without attributes */
} fp_udp_ace;
FP_UDP_LAYOUT(offsetof(fp_udp_ace, priv) == 9 && offsetof(fp_udp_ace, ace_pri) == 48 &&
              offsetof(fp_udp_ace, tlv) == 56);

/* What names an apply, besides its ACL. The leading fields of fp_udp_apply. */
typedef struct fp_udp_apply_key {
    char apply_type[FP_UDP_APP_TYPE_SIZE]; /* the applying application type */
    uint32_t phyid;                        /* physical port */
    uint32_t priority;
    uint32_t direction;
} fp_udp_apply_key;

/* An ACL bound to a port: alloc_apply, priv set directly, free_apply. */
typedef struct fp_udp_apply {
    char apply_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t phyid;
    uint32_t priority;
    uint32_t direction;
    uint8_t priv[FP_UDP_PRIV_SIZE]; /* the application's */
    fp_udp_ace_tlv *tlv;            /* attributes, owned by the apply; NULL is an apply without attributes */
} fp_udp_apply;
FP_UDP_LAYOUT(offsetof(fp_udp_apply, phyid) == 32 && offsetof(fp_udp_apply, direction) == 40);
FP_UDP_LAYOUT(offsetof(fp_udp_apply, priv) == sizeof(fp_udp_apply_key));

/* An uplink setting. */
typedef struct fp_udp_uplink {
    uint32_t phyid;
    uint32_t type;
    uint8_t priv[FP_UDP_PORT_PRIV_SIZE];
} fp_udp_uplink;
FP_UDP_LAYOUT(sizeof(fp_udp_uplink) == 16);

/* ---- cached descriptors: what callbacks receive ---------------------------------------------------------------- */

typedef struct fp_udp_acl_info {
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    int32_t stat;
    uint64_t uuid; /* identifier of the newest write */
    uint8_t priv[FP_UDP_PRIV_SIZE];
} fp_udp_acl_info;
FP_UDP_LAYOUT(offsetof(fp_udp_acl_info, acl_id) == offsetof(fp_udp_acl_key, acl_id));
FP_UDP_LAYOUT(offsetof(fp_udp_acl_info, uuid) == 40 && offsetof(fp_udp_acl_info, priv) == 48);

typedef struct fp_udp_ace_info {
    uint64_t sn;
    uint8_t def;   /* default entry: as of the entry's first set */
    int32_t stat;  /* first failure that a service node reported, 0 while none */
    uint64_t uuid; /* identifier of the newest write */
    uint8_t priv[FP_UDP_PRIV_SIZE];
    uint8_t req_count; /* service nodes that reported success; wraps at 256 */
    uint8_t is_req;    /* the outcome has been reported */
} fp_udp_ace_info;
FP_UDP_LAYOUT(offsetof(fp_udp_ace_info, uuid) == 16 && offsetof(fp_udp_ace_info, priv) == 24);

typedef struct fp_udp_apply_info {
    char apply_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t phyid;
    uint32_t pri; /* priority as part of the key: 0 while priorities are skipped */
    uint32_t dir; /* not part of the cache's key */
    int32_t stat;
    uint32_t value_pri; /* priority as stored */
    uint64_t uuid;
    uint8_t priv[FP_UDP_PRIV_SIZE];
    uint8_t req_count;
    uint8_t is_req;
} fp_udp_apply_info;
FP_UDP_LAYOUT(offsetof(fp_udp_apply_info, phyid) == 32 && offsetof(fp_udp_apply_info, dir) == 40);
FP_UDP_LAYOUT(offsetof(fp_udp_apply_info, value_pri) == 48 && offsetof(fp_udp_apply_info, uuid) == 56);

/* Hit counters of one ACE. The first pair counts packets before bytes, the second bytes before packets. */
typedef struct fp_udp_ace_counter {
    uint64_t counter_pkt;
    uint64_t counter_byte;
    uint64_t timestamp;
    uint64_t counter_byte1;
    uint64_t counter_pkt1;
    uint64_t timestamp_rt;
} fp_udp_ace_counter;

#ifdef __cplusplus
}
#endif

#endif
