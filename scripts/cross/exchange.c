/* One end of an exchange through the policy store; scripts/cross/exchange builds it for two architectures.
 *
 *   exchange write URL   writes policy through the library: extremes of every number, every private byte, attributes
 *                        of every class and length
 *   exchange read URL    prints what the store holds, as records and as the library reads entries back
 *   exchange hear URL    prints each change of an ACE from now on, to the deletion that a writer ends with
 *
 * A record is a line: its table, its request's identifier, and its bytes without that, which differ from run to run.
 */
#include <inttypes.h>
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>

enum { DATABASE = 8, WAIT_MS = 60000 };

/* As long as a name may be, with what could be taken for syntax in a key. */
static const char app_type[FP_UDP_APP_TYPE_SIZE] = "app:*?[%]\\/{}\"' \t~\x7f\xc3\xa4 31 bytes.";
static const uint64_t numbers[] = {0, 1, INT32_MAX, UINT32_MAX, (uint64_t)UINT32_MAX + 1, INT64_MAX, UINT64_MAX};
enum { NUMBERS = sizeof numbers / sizeof numbers[0] };
#define LAST_SN UINT64_C(0x8000000000000001)

static void check(int ok, const char *what)
{
    if (ok)
        return;
    fprintf(stderr, "exchange: %s failed\n", what);
    exit(1);
}

static void print_bytes(const uint8_t *bytes, size_t size)
{
    for (size_t i = 0; i < size; i++)
        printf("%02x", bytes[i]);
    putchar('\n');
}

/* ---- writing ---------------------------------------------------------------------------------------------------- */

static void fill(uint8_t *bytes, size_t size, size_t first)
{
    for (size_t i = 0; i < size; i++)
        bytes[i] = (uint8_t)(first + i * 37);
}

static void push(fp_udp_ace_tlv **tlv, const char *name, uint32_t cls, int32_t size)
{
    uint8_t value[FP_UDP_ATTR_VALUE_MAX];
    fp_udp_attr attr;
    memset(&attr, 0, sizeof attr);
    fill(value, (size_t)size, (size_t)size);
    (*tlv)->construct(&attr, name, cls, value, size);
    (*tlv)->push(tlv, attr);
    check(*tlv != NULL, name);
}

static void push_all(fp_udp_ace_tlv **tlv, size_t variant)
{
    push(tlv, ctrl_attr[variant % FP_UDP_CTRL_ATTR_COUNT].name, FP_UDP_ATTR_CTRL, 1);
    push(tlv, field_attr[variant % FP_UDP_FIELD_ATTR_COUNT].name, FP_UDP_ATTR_FIELD, 0);
    push(tlv, field_attr[(variant + 7) % FP_UDP_FIELD_ATTR_COUNT].name, FP_UDP_ATTR_FIELD, (int32_t)variant + 3);
    push(tlv, "fwd", FP_UDP_ATTR_ACTION, 1);
    push(tlv, action_attr[variant % FP_UDP_ACTION_ATTR_COUNT].name, FP_UDP_ATTR_ACTION, FP_UDP_ATTR_VALUE_MAX);
}

static void write_ace(const fp_udp_mgr *mgr, tq_context *context, const fp_udp_acl_key *acl, uint64_t sn,
                      size_t variant)
{
    fp_udp_ace *ace = mgr->alloc_ace(sn, (uint8_t)(variant % 2));
    check(ace != NULL, "alloc_ace");
    fill(ace->priv, sizeof ace->priv, variant);
    ace->ace_pri = numbers[NUMBERS - 1 - variant % NUMBERS];
    if (variant != 0)
        push_all(&ace->tlv, variant);
    check(mgr->set_ace(context, acl, ace) == 0, "set_ace");
    mgr->free_ace(ace);
}

static void write_apply(const fp_udp_mgr *mgr, tq_context *context, const fp_udp_acl_key *acl, uint32_t phyid,
                        size_t variant)
{
    fp_udp_acl_info info;
    memset(&info, 0, sizeof info);
    memcpy(info.app_type, acl->app_type, sizeof info.app_type);
    info.acl_id = acl->acl_id;
    fp_udp_apply_key key;
    memcpy(key.apply_type, app_type, sizeof key.apply_type);
    key.phyid = phyid;
    key.priority = (uint32_t)numbers[variant % NUMBERS];
    key.direction = (uint32_t)(variant % 2);
    fp_udp_apply *apply = mgr->alloc_apply(&key);
    check(apply != NULL, "alloc_apply");
    fill(apply->priv, sizeof apply->priv, variant);
    push_all(&apply->tlv, variant);
    check(mgr->set_apply(context, &info, 0, apply) == 0, "set_apply");
    mgr->free_apply(apply);
}

static void write_policy(const fp_udp_mgr *mgr, tq_context *context)
{
    fp_udp_acl_key key;
    memcpy(key.app_type, app_type, sizeof key.app_type);
    for (size_t i = 0; i < NUMBERS; i++) {
        fp_udp_acl acl;
        memcpy(acl.app_type, app_type, sizeof acl.app_type);
        acl.acl_id = key.acl_id = (uint32_t)numbers[i];
        acl.acl_cls = (uint8_t)(255 - i);
        fill(acl.priv, sizeof acl.priv, i);
        check(mgr->set_acl(context, &acl) == 0, "set_acl");
        write_ace(mgr, context, &key, numbers[i], i);
        write_apply(mgr, context, &key, (uint32_t)numbers[i], i);
        check(mgr->set_port_disable(context, (uint32_t)numbers[i]) == 0, "set_port_disable");
        fp_udp_uplink uplink = {(uint32_t)numbers[i], (uint32_t)numbers[NUMBERS - 1 - i], {0}};
        fill(uplink.priv, sizeof uplink.priv, i);
        mgr->uplink_enable(context, &uplink, 1);
        check(mgr->set_port_bindinfo(context, app_type, (uint32_t)i % 7, (uint32_t)numbers[i], 1 + (uint32_t)i % 3,
                                     (uint32_t)numbers[i]) == 0,
              "set_port_bindinfo");
    }
    uint8_t priv[FP_UDP_PORT_PRIV_SIZE];
    fill(priv, sizeof priv, 0xF0);
    check(mgr->svi_router_enable(context, priv, 1) == 0, "svi_router_enable");
    check(mgr->enable_app_commit(context, app_type, 60) == 0, "enable_app_commit");
    write_ace(mgr, context, &key, LAST_SN, 1);
    check(mgr->delete_ace(context, &key, LAST_SN) == 0, "delete_ace");
}

/* ---- reading ---------------------------------------------------------------------------------------------------- */

/* Takes the request's identifier out of a record and returns it; 0 for a record without one. */
static uint64_t take_uuid(ProtobufCMessage *record)
{
    const ProtobufCFieldDescriptor *field =
        protobuf_c_message_descriptor_get_field_by_name(record->descriptor, "req_uuid");
    uint64_t uuid = 0;
    if (field != NULL) {
        memcpy(&uuid, (char *)record + field->offset, sizeof uuid);
        memset((char *)record + field->offset, 0, sizeof uuid);
    }
    return uuid;
}

static int32_t print_record(void *handle, const tq_mom_notification *told, void *arg)
{
    (void)handle, (void)arg;
    check(told->record != NULL && told->result == 0, "reading a record");
    uint8_t bytes[8192];
    check(protobuf_c_message_get_packed_size(told->record) <= sizeof bytes, "a record of usual size");
    const size_t size = protobuf_c_message_pack(told->record, bytes);
    ProtobufCMessage *record = protobuf_c_message_unpack(told->record->descriptor, NULL, size, bytes);
    check(record != NULL, "unpacking a record");
    const uint64_t uuid = take_uuid(record);
    printf("%" PRId32 " %s uuid=%" PRIu64 " ", told->event, record->descriptor->short_name, uuid);
    print_bytes(bytes, protobuf_c_message_pack(record, bytes));
    protobuf_c_message_free_unpacked(record, NULL);
    return 0;
}

static void print_table(tq_context *context, const ProtobufCMessageDescriptor *table)
{
    ProtobufCMessage *any = malloc(table->sizeof_message);
    check(any != NULL, "malloc");
    protobuf_c_message_init(table, any);
    check(tq_mom_scan_sync(context, DATABASE, any, 0, print_record, NULL) == 0, table->name);
    free(any);
}

static void print_entries(const fp_udp_mgr *mgr, tq_context *context)
{
    fp_udp_acl_key key;
    memcpy(key.app_type, app_type, sizeof key.app_type);
    for (size_t i = 0; i < NUMBERS; i++) {
        key.acl_id = (uint32_t)numbers[i];
        fp_udp_ace *ace = mgr->get_ace(context, &key, numbers[i]);
        check(ace != NULL && ace->tlv != NULL, "get_ace");
        printf("entry sn=%" PRIu64 " default=%u ", ace->sn, (unsigned)ace->default_ace);
        print_bytes(ace->tlv->data, ace->tlv->len);
        mgr->free_ace(ace);
    }
}

static void read_policy(const fp_udp_mgr *mgr, tq_context *context)
{
    const ProtobufCMessageDescriptor *tables[] = {
        &s_policy__acl__descriptor,        &s_policy__ace__descriptor,           &s_policy__apply__descriptor,
        &s_policy__port_off__descriptor,   &s_policy__port_bindinfo__descriptor, &s_policy__uplink__descriptor,
        &s_policy__svi_router__descriptor, &s_policy__app_commit__descriptor};
    for (size_t i = 0; i < sizeof tables / sizeof tables[0]; i++)
        print_table(context, tables[i]);
    print_entries(mgr, context);
}

/* ---- hearing ---------------------------------------------------------------------------------------------------- */

static int32_t on_change(void *handle, const tq_mom_notification *told, void *ended)
{
    print_record(handle, told, NULL);
    if (told->event == TQ_MOM_EVENT_DELETED) {
        const SPolicy__Ace *ace = (const SPolicy__Ace *)told->record;
        check(ace->index != NULL && ace->index->sn == LAST_SN, "hearing of the deleted entry");
        *(int *)ended = 1;
    }
    return 0;
}

static void hear_changes(tq_context *context)
{
    SPolicy__Ace any = S_POLICY__ACE__INIT;
    int ended = 0;
    check(tq_mom_subscribe(context, DATABASE, &any.base, 0, on_change, &ended) == 0, "subscribing");
    puts("ready");
    for (int wait = 0; !ended && wait < WAIT_MS; wait += 100)
        tq_loop_run_once(context->master, 100);
    check(ended, "hearing of the last change");
}

int main(int argc, char **argv)
{
    check(argc == 3, "naming what to do and the store");
    setvbuf(stdout, NULL, _IOLBF, 0);
    tq_context *context = tq_context_new(argv[2]);
    check(context != NULL, "connecting");
    fp_udp_acl_handler handler;
    memset(&handler, 0, sizeof handler);
    check(fp_udp_register_acl_handler(context, DATABASE, &handler) == 0, "registering");
    const fp_udp_mgr *mgr = fp_udp_get_mgr();
    if (strcmp(argv[1], "write") == 0)
        write_policy(mgr, context);
    else if (strcmp(argv[1], "read") == 0)
        read_policy(mgr, context);
    else
        hear_changes(context);
    tq_context_free(context);
    return 0;
}
