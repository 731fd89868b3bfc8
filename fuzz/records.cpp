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

// Any callback that is told of an ACL, whatever else it is told.
template <class... Told> int32_t told(void *, const fp_udp_acl_info *acl, Told...)
{
    look_at(acl);
    return call_back();
}

fp_udp_acl_handler handler()
{
    fp_udp_acl_handler h{};
    h.set_acl_ok_cb = [](void *, const fp_udp_acl *, const uint8_t *) { return call_back(); };
    h.set_acl_fail_cb = [](void *, const fp_udp_acl *, int32_t, const uint8_t *) { return call_back(); };
    h.ace_reply_ok_cb = told;
    h.ace_fail_cb = told;
    h.apply_reply_ok_cb = told;
    h.apply_fail_cb = told;
    h.ace_counter_cb = told;
    h.acl_change_cb = told;
    h.ace_change_cb = told;
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

// An ACL, its key or its description.
template <class Acl> Acl named(const char *type, uint32_t id)
{
    Acl acl{};
    put(acl.app_type, type);
    acl.acl_id = id;
    return acl;
}

template <class Acl> Acl any()
{
    const char *type = any_name();
    return named<Acl>(type, any_id());
}

// An apply or its key.
template <class Apply> Apply any_apply()
{
    Apply apply{};
    put(apply.apply_type, any_name());
    apply.phyid = any_id();
    apply.priority = any_id();
    return apply;
}

// ---- what the application does

void set_an_acl()
{
    const auto acl = any<fp_udp_acl>();
    mgr->set_acl(&fuzz::context, &acl);
}

void set_an_ace()
{
    const auto key = any<fp_udp_acl_key>();
    fp_udp_ace *ace = mgr->alloc_ace(any_id(), script->number());
    mgr->set_ace(&fuzz::context, &key, ace);
    mgr->free_ace(ace);
}

void set_an_apply()
{
    const auto acl = any<fp_udp_acl_info>();
    const auto key = any_apply<fp_udp_apply_key>();
    fp_udp_apply *apply = mgr->alloc_apply(&key);
    mgr->set_apply(&fuzz::context, &acl, any_id(), apply);
    mgr->free_apply(apply);
}

void delete_something()
{
    const auto key = any<fp_udp_acl_key>();
    if (script->chance()) {
        mgr->del_acl(&fuzz::context, &key);
        return;
    }
    if (script->chance()) {
        mgr->delete_ace(&fuzz::context, &key, any_id());
        return;
    }
    const auto acl = any<fp_udp_acl_info>();
    const auto apply = any_apply<fp_udp_apply>();
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

    const ProtobufCMessage *message()
    {
        record.index = script->below(16) == 0 ? nullptr : &key;
        return &record.base;
    }
};

template <class Record> using ace_keyed = made<Record, SPolicy__AceKey>;

SPolicy__AceKey any_ace_key()
{
    SPolicy__AceKey key = S_POLICY__ACE_KEY__INIT;
    key.t_app_type = const_cast<char *>(any_name());
    key.acl_id = any_id();
    key.sn = any_id();
    return key;
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

// Answers the write that is being waited for, now and then another.
template <class Answer> void answer(const char *table, Answer &to, const uint64_t *awaited)
{
    to.record.rep_uuid = awaited != nullptr && script->below(8) != 0 ? *awaited : script->number<uint64_t>();
    to.record.p_status = script->chance() ? 0 : script->number<int8_t>();
    const ProtobufCMessage *message = to.message();
    deliver(table, event_or(TQ_MOM_EVENT_STATUS), message);
}

void answer_an_ace()
{
    ace_keyed<SPolicy__AcePsta> to{any_ace_key(), S_POLICY__ACE_PSTA__INIT};
    const auto acl = named<fp_udp_acl_info>(to.key.t_app_type, to.key.acl_id);
    fp_udp_ace_info ace{};
    ace.sn = to.key.sn;
    fp_udp_ace_node *node = nullptr;
    fp_udp_acldb_get_ace(&acl, &ace, &node);
    answer("ace_psta", to, node == nullptr ? nullptr : &node->ace.uuid);
}

void answer_an_apply()
{
    made<SPolicy__ApplyPsta, SPolicy__ApplyKey> to{S_POLICY__APPLY_KEY__INIT, S_POLICY__APPLY_PSTA__INIT};
    to.key.t_apply_type = const_cast<char *>(any_name());
    to.key.app_type = const_cast<char *>(any_name());
    to.key.acl_id = any_id();
    to.key.phyid = any_id();
    to.key.priority = any_id();
    const auto acl = named<fp_udp_acl_info>(to.key.app_type, to.key.acl_id);
    fp_udp_apply_info apply{};
    put(apply.apply_type, to.key.t_apply_type);
    apply.phyid = to.key.phyid;
    apply.pri = to.key.priority;
    fp_udp_apply_node *node = nullptr;
    fp_udp_acldb_get_apply(&acl, &apply, &node);
    answer("apply_psta", to, node == nullptr ? nullptr : &node->apply.uuid);
}

void count()
{
    ace_keyed<SPolicy__AceCounter> counter{any_ace_key(), S_POLICY__ACE_COUNTER__INIT};
    counter.record.counter_pkt = script->number<uint64_t>();
    const ProtobufCMessage *message = counter.message();
    deliver("ace_counter", event_or(TQ_MOM_EVENT_PUBLISHED), message);
}

void beat()
{
    made<SPolicy__ServiceNode, SPolicy__ServiceNodeIndex> node{S_POLICY__SERVICE_NODE_INDEX__INIT,
                                                               S_POLICY__SERVICE_NODE__INIT};
    node.key.dev = any_id();
    const ProtobufCMessage *message = node.message();
    deliver("service_node", event_or(TQ_MOM_EVENT_PUBLISHED), message);
}

void change_an_acl()
{
    made<SPolicy__Acl, SPolicy__AclKey> acl{S_POLICY__ACL_KEY__INIT, S_POLICY__ACL__INIT};
    acl.key.t_app_type = const_cast<char *>(any_name());
    acl.key.acl_id = any_id();
    const ProtobufCMessage *message = acl.message();
    deliver("acl", script->chance() ? TQ_MOM_EVENT_SET : event_or(TQ_MOM_EVENT_DELETED), message);
}

void change_an_ace()
{
    ace_keyed<SPolicy__Ace> ace{any_ace_key(), S_POLICY__ACE__INIT};
    ace.record.default_ace = script->chance();
    const ProtobufCMessage *message = ace.message();
    deliver("ace", script->chance() ? TQ_MOM_EVENT_SET : event_or(TQ_MOM_EVENT_DELETED), message);
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
