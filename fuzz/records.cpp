// What the store and the forwarding plane may send to an application: status replies, counters, heartbeats, changes and
// scans, as whole records, as records with parts missing, and as whatever bytes unpack into. Between them the
// application sets, deletes, expires and waits, also from inside its callbacks.
#include "library.hpp"

namespace {

fuzz::input *script = nullptr; // of this run; callbacks take their part from it too
fp_udp_mgr *mgr = nullptr;
int depth = 0;

void step();

int32_t call_back()
{
    constexpr int deepest = 3;
    if (depth == deepest || script->done())
        return 0;
    depth++;
    if (script->below(4) == 0)
        step();
    depth--;
    return 0;
}

void look_at(const fp_udp_acl_info *acl)
{
    fuzz::require(strnlen(acl->app_type, sizeof acl->app_type) < sizeof acl->app_type, "a told type is terminated");
}

fp_udp_acl_handler handler()
{
    fp_udp_acl_handler h{};
    h.set_acl_ok_cb = [](void *, const fp_udp_acl *, const uint8_t *) { return call_back(); };
    h.set_acl_fail_cb = [](void *, const fp_udp_acl *, int32_t, const uint8_t *) { return call_back(); };
    h.ace_reply_ok_cb = [](void *, const fp_udp_acl_info *acl, uint64_t, const uint8_t *) {
        look_at(acl);
        return call_back();
    };
    h.ace_fail_cb = [](void *, const fp_udp_acl_info *acl, uint64_t, int32_t, const uint8_t *) {
        look_at(acl);
        return call_back();
    };
    h.apply_reply_ok_cb = [](void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *, const uint8_t *) {
        look_at(acl);
        return call_back();
    };
    h.apply_fail_cb = [](void *, const fp_udp_acl_info *acl, const fp_udp_apply_info *, int32_t, const uint8_t *) {
        look_at(acl);
        return call_back();
    };
    h.ace_counter_cb = [](void *, const fp_udp_acl_info *acl, uint64_t, const fp_udp_ace_counter *) {
        look_at(acl);
        return call_back();
    };
    h.acl_change_cb = [](void *, const fp_udp_acl_info *acl, int32_t) {
        look_at(acl);
        return call_back();
    };
    h.ace_change_cb = [](void *, const fp_udp_acl_info *acl, uint64_t, int32_t) {
        look_at(acl);
        return call_back();
    };
    return h;
}

// ---- what things are called

const char *any_name()
{
    static const std::string longest(31, 'n'), too_long(32, 'n'), endless(1500, 'n');
    const char *names[] = {"security_app", "my_app", "security_app",  "my_app",         "other_app",    "", "%s%n%s",
                           nullptr,        "sp ace", longest.c_str(), too_long.c_str(), endless.c_str()};
    return script->pick(names);
}

uint32_t any_id()
{
    const uint32_t ids[] = {0, 1, 2, UINT32_MAX};
    return script->pick(ids);
}

// A field without its terminator, where the name is too long for it.
void put(char (&field)[FP_UDP_APP_TYPE_SIZE], const char *name)
{
    strncpy(field, name == nullptr ? "" : name, sizeof field);
}

fp_udp_acl_key any_acl_key()
{
    fp_udp_acl_key key{};
    put(key.app_type, any_name());
    key.acl_id = any_id();
    return key;
}

fp_udp_acl_info any_acl()
{
    fp_udp_acl_info acl{};
    put(acl.app_type, any_name());
    acl.acl_id = any_id();
    return acl;
}

fp_udp_apply_info any_apply()
{
    fp_udp_apply_info apply{};
    put(apply.apply_type, any_name());
    apply.phyid = any_id();
    apply.pri = apply.value_pri = any_id();
    return apply;
}

// ---- what the application does

void set_an_acl()
{
    fp_udp_acl acl{};
    put(acl.app_type, any_name());
    acl.acl_id = any_id();
    mgr->set_acl(&fuzz::context, &acl);
}

void set_an_ace()
{
    const fp_udp_acl_key key = any_acl_key();
    fp_udp_ace *ace = mgr->alloc_ace(any_id(), script->number());
    mgr->set_ace(&fuzz::context, &key, ace);
    mgr->free_ace(ace);
}

void set_an_apply()
{
    const fp_udp_acl_info acl = any_acl();
    const fp_udp_apply_info info = any_apply();
    fp_udp_apply_key key{};
    memcpy(key.apply_type, info.apply_type, sizeof key.apply_type);
    key.phyid = info.phyid;
    key.priority = info.pri;
    fp_udp_apply *apply = mgr->alloc_apply(&key);
    mgr->set_apply(&fuzz::context, &acl, any_id(), apply);
    mgr->free_apply(apply);
}

void delete_something()
{
    const fp_udp_acl_key key = any_acl_key();
    if (script->chance()) {
        mgr->del_acl(&fuzz::context, &key);
        return;
    }
    if (script->chance()) {
        mgr->delete_ace(&fuzz::context, &key, any_id());
        return;
    }
    const fp_udp_acl_info acl = any_acl();
    const fp_udp_apply_info info = any_apply();
    fp_udp_apply apply{};
    memcpy(apply.apply_type, info.apply_type, sizeof apply.apply_type);
    apply.phyid = info.phyid;
    apply.priority = info.pri;
    mgr->del_apply(&fuzz::context, &acl, &apply);
}

void let_time_pass()
{
    const uint32_t seconds[] = {1, 10, 21, 200};
    fake::clock.advance(uint64_t{script->pick(seconds)} * 1'000'000);
}

void turn_a_switch()
{
    fp_udp_debug_sw = script->number() & ~uint32_t{FP_UDP_DEBUG_OP_LOG}; // files are another target's
    g_policy_plx_zlog_level = script->below(6);
}

void break_the_store()
{
    const char *calls[] = {"hmset", "set", "get", "del", "scan"};
    fake::store.script[script->pick(calls)] = {script->number<int8_t>()};
}

// ---- what the store sends

// A record as the generated types see it; the key may be missing.
template <class Record, class Key> struct made {
    Key key;
    Record record;
    const ProtobufCMessage *message() const { return &record.base; }
};

template <class Record> using ace_keyed = made<Record, SPolicy__AceKey>;
using apply_answer = made<SPolicy__ApplyPsta, SPolicy__ApplyKey>;

template <class Made> void give_key(Made &made)
{
    made.record.index = script->below(16) == 0 ? nullptr : &made.key;
}

void fill(SPolicy__AceKey &key)
{
    key = S_POLICY__ACE_KEY__INIT;
    key.t_app_type = const_cast<char *>(any_name());
    key.acl_id = any_id();
    key.sn = any_id();
}

void fill(SPolicy__ApplyKey &key)
{
    key = S_POLICY__APPLY_KEY__INIT;
    key.t_apply_type = const_cast<char *>(any_name());
    key.app_type = const_cast<char *>(any_name());
    key.acl_id = any_id();
    key.phyid = any_id();
    key.priority = any_id();
}

// The identifier of the write that is being waited for, now and then another.
template <class Node> uint64_t answered_write(const Node *node, uint64_t newest)
{
    return node != nullptr && script->below(8) != 0 ? newest : script->number<uint64_t>();
}

int32_t any_event()
{
    const int32_t events[] = {1, 3, 4, 24, 29, 0, -1};
    return script->pick(events);
}

// `usual` most of the time.
int32_t event_or(int32_t usual)
{
    return script->below(8) == 0 ? any_event() : usual;
}

void deliver(const char *table, int32_t event, const ProtobufCMessage *record)
{
    const uint32_t oddity = script->number();
    fake::store.deliver(table, event, (oddity & 7) == 7 ? nullptr : record, (oddity & 0x38) == 0x38 ? 7 : 0,
                        (oddity & 0xc0) == 0xc0 ? 1 : 0);
}

void answer_an_ace()
{
    ace_keyed<SPolicy__AcePsta> answer{{}, S_POLICY__ACE_PSTA__INIT};
    fill(answer.key);
    fp_udp_acl_info acl{};
    put(acl.app_type, answer.key.t_app_type);
    acl.acl_id = answer.key.acl_id;
    fp_udp_ace_info ace{};
    ace.sn = answer.key.sn;
    fp_udp_ace_node *node = nullptr;
    fp_udp_acldb_get_ace(&acl, &ace, &node);
    answer.record.rep_uuid = answered_write(node, node == nullptr ? 0 : node->ace.uuid);
    answer.record.p_status = script->chance() ? 0 : script->number<int8_t>();
    give_key(answer);
    deliver("ace_psta", event_or(TQ_MOM_EVENT_STATUS), answer.message());
}

void answer_an_apply()
{
    apply_answer answer{{}, S_POLICY__APPLY_PSTA__INIT};
    fill(answer.key);
    fp_udp_acl_info acl{};
    put(acl.app_type, answer.key.app_type);
    acl.acl_id = answer.key.acl_id;
    fp_udp_apply_info apply{};
    put(apply.apply_type, answer.key.t_apply_type);
    apply.phyid = answer.key.phyid;
    apply.pri = answer.key.priority;
    fp_udp_apply_node *node = nullptr;
    fp_udp_acldb_get_apply(&acl, &apply, &node);
    answer.record.rep_uuid = answered_write(node, node == nullptr ? 0 : node->apply.uuid);
    answer.record.p_status = script->chance() ? 0 : script->number<int8_t>();
    give_key(answer);
    deliver("apply_psta", event_or(TQ_MOM_EVENT_STATUS), answer.message());
}

void count()
{
    ace_keyed<SPolicy__AceCounter> counter{{}, S_POLICY__ACE_COUNTER__INIT};
    fill(counter.key);
    counter.record.counter_pkt = script->number<uint64_t>();
    give_key(counter);
    deliver("ace_counter", event_or(TQ_MOM_EVENT_PUBLISHED), counter.message());
}

void beat()
{
    made<SPolicy__ServiceNode, SPolicy__ServiceNodeIndex> node{S_POLICY__SERVICE_NODE_INDEX__INIT,
                                                               S_POLICY__SERVICE_NODE__INIT};
    node.key.dev = any_id();
    give_key(node);
    deliver("service_node", event_or(TQ_MOM_EVENT_PUBLISHED), node.message());
}

void change_an_acl()
{
    made<SPolicy__Acl, SPolicy__AclKey> acl{S_POLICY__ACL_KEY__INIT, S_POLICY__ACL__INIT};
    acl.key.t_app_type = const_cast<char *>(any_name());
    acl.key.acl_id = any_id();
    give_key(acl);
    deliver("acl", script->chance() ? TQ_MOM_EVENT_SET : event_or(TQ_MOM_EVENT_DELETED), acl.message());
}

void change_an_ace()
{
    ace_keyed<SPolicy__Ace> ace{{}, S_POLICY__ACE__INIT};
    fill(ace.key);
    ace.record.default_ace = script->chance();
    give_key(ace);
    deliver("ace", script->chance() ? TQ_MOM_EVENT_SET : event_or(TQ_MOM_EVENT_DELETED), ace.message());
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

void step()
{
    void (*const steps[])() = {set_an_acl,     set_an_ace,    set_an_apply,   delete_something,
                               let_time_pass,  turn_a_switch, answer_an_ace,  answer_an_apply,
                               count,          beat,          change_an_acl,  change_an_ace,
                               send_any_bytes, resynchronise, break_the_store};
    script->pick(steps)();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int longest = 200;
    static const fp_udp_acl_handler callbacks = handler();
    fuzz::input in(data, size);
    script = &in;
    mgr = &fuzz::fresh_library(callbacks);
    for (int steps = 0; steps < longest && !in.done(); steps++) {
        step();
        fuzz::require_consistency();
    }
    fuzz::input nothing(nullptr, 0);
    script = &nothing;
    fuzz::fresh_library(callbacks);
    return 0;
}
