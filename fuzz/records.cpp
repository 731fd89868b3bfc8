// What the store and the forwarding plane may send to an application: whatever bytes unpack into as a record of any
// table, delivered as any event or found by a scan, to a cache that holds something. What an application does meanwhile
// is the random scripts' of tests/library.
#include "library.hpp"

namespace {

fuzz::input *script = nullptr; // of this run

// Any callback that is told of an ACL, whatever else it is told.
template <class... Told> int32_t told(void *, const fp_udp_acl_info *acl, Told...)
{
    fuzz::require(strnlen(acl->app_type, sizeof acl->app_type) < sizeof acl->app_type, "a told type is terminated");
    return 0;
}

fp_udp_acl_handler handler()
{
    fp_udp_acl_handler h{};
    h.ace_reply_ok_cb = told;
    h.ace_fail_cb = told;
    h.apply_reply_ok_cb = told;
    h.apply_fail_cb = told;
    h.ace_counter_cb = told;
    h.acl_change_cb = told;
    h.ace_change_cb = told;
    return h;
}

void fill_cache(const fp_udp_mgr &mgr)
{
    const fp_udp_acl acl = {"security_app", 1, 0, {}};
    mgr.set_acl(&fuzz::context, &acl);
    const fp_udp_acl_key key = {"security_app", 1};
    fp_udp_ace *ace = mgr.alloc_ace(1, 0);
    mgr.set_ace(&fuzz::context, &key, ace);
    mgr.free_ace(ace);
    const fp_udp_acl_info info = {"security_app", 1, 0, 0, {}};
    const fp_udp_apply_key port = {"my_app", 1, 1, 0};
    fp_udp_apply *apply = mgr.alloc_apply(&port);
    mgr.set_apply(&fuzz::context, &info, 0, apply);
    mgr.free_apply(apply);
}

int32_t any_event()
{
    const int32_t events[] = {1, 3, 4, 24, 29, 0, -1};
    return script->pick(events);
}

void deliver(const char *table, int32_t event, const ProtobufCMessage *record)
{
    const uint32_t oddity = script->number();
    fake::store.deliver(table, event, (oddity & 7) == 7 ? nullptr : record, (oddity & 0x38) == 0x38 ? 7 : 0,
                        (oddity & 0xc0) == 0xc0 ? 1 : 0);
}

struct table {
    const char *name;
    const ProtobufCMessageDescriptor *descriptor;
};

table any_table()
{
    const table tables[] = {{"ace_psta", &s_policy__ace_psta__descriptor},
                            {"apply_psta", &s_policy__apply_psta__descriptor},
                            {"ace_counter", &s_policy__ace_counter__descriptor},
                            {"service_node", &s_policy__service_node__descriptor},
                            {"acl", &s_policy__acl__descriptor},
                            {"ace", &s_policy__ace__descriptor}};
    return script->pick(tables);
}

ProtobufCMessage *unpack(const table &of)
{
    const std::string bytes = script->text();
    return protobuf_c_message_unpack(of.descriptor, nullptr, bytes.size(),
                                     reinterpret_cast<const uint8_t *>(bytes.data()));
}

void send_any_bytes()
{
    const table to = any_table();
    ProtobufCMessage *record = unpack(to);
    deliver(to.name, any_event(), record);
    protobuf_c_message_free_unpacked(record, nullptr);
}

// Changes were lost: the handler scans the table again, and finds this. A scan never delivers another loss.
void resynchronise()
{
    const bool aces = script->chance();
    const table from = aces ? table{"ace", &s_policy__ace__descriptor} : table{"acl", &s_policy__acl__descriptor};
    ProtobufCMessage *record = unpack(from);
    const int32_t result = script->below(8) == 0 ? 7 : 0;
    const int32_t event = script->below(8) == 0 ? TQ_MOM_EVENT_DELETED : TQ_MOM_EVENT_SET;
    fake::store.scan_entries.push_back({from.name, {event, record, result, 0}});
    fake::store.deliver(from.name, TQ_MOM_EVENT_RESYNC, nullptr);
    fake::store.scan_entries.clear();
    protobuf_c_message_free_unpacked(record, nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int longest = 200;
    static const fp_udp_acl_handler callbacks = handler();
    fuzz::input in(data, size);
    script = &in;
    fill_cache(fuzz::fresh_library(callbacks));
    for (int steps = 0; steps < longest && !in.done(); steps++) {
        in.chance() ? send_any_bytes() : resynchronise();
        if (in.below(8) == 0)
            fake::clock.advance_seconds(in.number());
        fuzz::require_consistency();
    }
    fuzz::fresh_library(callbacks);
    return 0;
}
