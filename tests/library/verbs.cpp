// See verbs.h. One function a verb, in the table at the end.
#include "verbs.h"

#include <csignal>
#include <cstring>
#include <plx/attribute.h>
#include <regex>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using fake::format;
using fake::hex;
using ull = unsigned long long;

std::string repeated(const std::string &text)
{
    static const std::regex times("(.)\\*([0-9]+);?");
    std::string result = text;
    if (text.find('*') == std::string::npos)
        return text;
    for (std::smatch found; std::regex_search(result, found, times);)
        result = found.prefix().str() + std::string(std::stoul(found[2]), found[1].str()[0]) + found.suffix().str();
    return result;
}

const char *or_null(const std::string &text)
{
    return text == "null" ? nullptr : text.c_str();
}

static lines split(const std::string &text, char at)
{
    lines parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, at);)
        parts.push_back(part);
    if (!text.empty() && text.back() == at)
        parts.emplace_back();
    return parts;
}

static std::vector<uint8_t> bytes_of(const std::string &digits)
{
    std::vector<uint8_t> bytes(digits.size() / 2);
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<uint8_t>(strtoul(digits.substr(2 * i, 2).c_str(), nullptr, 16));
    return bytes;
}

// Text of a file, as one line.
static std::string unescaped(std::string text)
{
    for (const auto &[mark, character] : {std::pair{"\\n", "\n"}, {"\\t", "\t"}})
        for (size_t at; (at = text.find(mark)) != std::string::npos;)
            text.replace(at, 2, character);
    return repeated(text);
}

// A line with a brace as the lines that it stands for.
script expanded(const std::string &line)
{
    const size_t open = line.find('{'), close = line.find('}');
    if (open == std::string::npos || close == std::string::npos)
        return {line};
    const std::string inside = line.substr(open + 1, close - open - 1);
    script choices, all;
    if (const size_t dots = inside.find(".."); dots != std::string::npos)
        for (long n = std::stol(inside); n <= std::stol(inside.substr(dots + 2)); n++)
            choices.push_back(std::to_string(n));
    else
        for (std::istringstream list(inside); list;)
            if (std::string choice; std::getline(list, choice, inside.find('|') == inside.npos ? ',' : '|'))
                choices.push_back(choice);
    for (const std::string &choice : choices)
        for (const std::string &one : expanded(line.substr(0, open) + choice + line.substr(close + 1)))
            all.push_back(one);
    return all;
}

arguments::arguments(const std::string &line) : raw(line)
{
    reader in{std::istringstream(line)};
    for (std::string word; !(word = in.word()).empty();) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos)
            words.push_back(repeated(word));
        else
            options[word.substr(0, equals)] = repeated(word.substr(equals + 1));
    }
}

thing arguments::next_thing()
{
    const std::string word = next();
    const size_t open = word.find('[');
    if (open == std::string::npos)
        return {word, {}};
    return {word.substr(0, open), split(word.substr(open + 1, word.size() - open - 2), ',')};
}

session::session()
    : entry(nullptr, nullptr), root("/var/tmp/" + process), tmp("/tmp", root), etc("/etc/plx_dbg", root + "/etc"),
      proc(format("/proc/%d/status", getpid()), root + "/status") // not below /tmp
{
    std::filesystem::create_directories(root + "/zlog/udp_fp_log");
    std::filesystem::create_directories(root + "/etc");
    std::ofstream(root + "/status") << "Name:\t" + process + "\n";
    snprintf(lib_plx_debug_path, sizeof lib_plx_debug_path, "%s/switch", root.c_str());
    app.on_event = [this](const std::string &) {
        if (then.empty())
            return;
        const std::string line = then.front();
        then.erase(then.begin());
        for (const std::string &part : split(line, ';'))
            app.events.push_back("then " + part + " " + perform(part));
    };
}

session::~session()
{
    std::filesystem::remove_all(root);
}

namespace {

// ---- the operation table

fp_udp_acl_handler handler(const std::string &names)
{
    fp_udp_acl_handler all = application::handler(), chosen{};
    if (names == "none")
        return chosen;
    if (names == "all" || names == "null" || names.empty())
        return all;
    const std::map<std::string, std::function<void(fp_udp_acl_handler &, const fp_udp_acl_handler &)>> fields = {
        {"ace_reply_ok", [](auto &to, auto &from) { to.ace_reply_ok_cb = from.ace_reply_ok_cb; }},
        {"ace_fail", [](auto &to, auto &from) { to.ace_fail_cb = from.ace_fail_cb; }},
        {"apply_fail", [](auto &to, auto &from) { to.apply_fail_cb = from.apply_fail_cb; }},
        {"ace_counter", [](auto &to, auto &from) { to.ace_counter_cb = from.ace_counter_cb; }},
        {"acl_change", [](auto &to, auto &from) { to.acl_change_cb = from.acl_change_cb; }},
        {"ace_change", [](auto &to, auto &from) { to.ace_change_cb = from.ace_change_cb; }},
    };
    const bool without = names[0] == '-'; // all but these
    for (const std::string &name : split(without ? names.substr(1) : names, ','))
        without ? fields.at(name)(all, fp_udp_acl_handler{}) : fields.at(name)(chosen, all);
    return without ? all : chosen;
}

void push(fp_udp_ace_tlv *&tlv, const std::string &attributes) // "vid:1:0102;fwd:2:00"
{
    const fake::failing_allocation::pause pause;
    for (const std::string &one : split(attributes, ';')) {
        const lines parts = split(one, ':');
        const std::vector<uint8_t> value = bytes_of(parts.at(2));
        fp_udp_attr attr{};
        tlv->construct(&attr, parts[0].c_str(), static_cast<uint32_t>(std::stoul(parts[1])), value.data(),
                       static_cast<int32_t>(value.size()));
        tlv->push(&tlv, attr);
    }
}

template <class Made> void furnish(Made &made, const arguments &a)
{
    push(made->tlv, a.option("attr"));
    if (a.option("buffer") == "none")
        free(std::exchange(made->tlv, nullptr));
}

// Sets the thing, or deletes it.
using operation = int32_t (*)(session &, const thing &, const arguments &, bool on);

int32_t of_acl(session &s, const thing &t, const arguments &a, bool on)
{
    const fp_udp_acl acl = make_acl(t.text(0), t.number(1), a.as<uint8_t>("cls"), a.as<uint8_t>("priv"));
    const fp_udp_acl_key key = make_key(t.text(0), t.number(1));
    return on ? s.mgr->set_acl(&context, t.lacks(0) ? nullptr : &acl)
              : s.mgr->del_acl(&context, t.lacks(0) ? nullptr : &key);
}

int32_t of_ace(session &s, const thing &t, const arguments &a, bool on)
{
    const fp_udp_acl_key name = make_key(t.text(0), t.number(1)), *key = t.lacks(0) ? nullptr : &name;
    if (!on)
        return s.mgr->delete_ace(&context, key, t.large(2));
    owned_ace ace = make_ace(s.mgr, t.large(2), a.as<uint8_t>("priv"), a.as<uint64_t>("pri"), a.as<uint8_t>("default"));
    furnish(ace, a);
    return s.mgr->set_ace(&context, key, t.lacks(2) ? nullptr : ace.get());
}

int32_t of_apply(session &s, const thing &t, const arguments &a, bool on)
{
    const fp_udp_acl_info owner = make_info(t.text(2), t.number(1)), *acl = t.lacks(2) ? nullptr : &owner;
    owned_apply made = make_apply(s.mgr, t.text(0), t.number(3), t.number(4), t.number(5), a.as<uint8_t>("priv"));
    furnish(made, a);
    fp_udp_apply *apply = t.lacks(0) ? nullptr : made.get();
    return on ? s.mgr->set_apply(&context, acl, a.as<uint32_t>("cls"), apply) : s.mgr->del_apply(&context, acl, apply);
}

int32_t of_port(session &s, const thing &t, const arguments &, bool on)
{
    return (on ? s.mgr->set_port_disable : s.mgr->del_port_disable)(&context, t.number(0));
}

int32_t of_svi(session &s, const thing &, const arguments &a, bool on)
{
    uint8_t priv[FP_UDP_PORT_PRIV_SIZE];
    put_priv(priv, sizeof priv, a.as<uint8_t>("priv"));
    return s.mgr->svi_router_enable(&context, a.has("priv") ? priv : nullptr, on);
}

int32_t of_uplink(session &s, const thing &t, const arguments &a, bool on)
{
    fp_udp_uplink uplink{t.number(0), t.number(1), {}};
    put_priv(uplink.priv, sizeof uplink.priv, a.as<uint8_t>("priv"));
    s.mgr->uplink_enable(&context, t.lacks(0) ? nullptr : &uplink, on);
    return 0;
}

int32_t of_binding(session &s, const thing &t, const arguments &, bool on)
{
    return (on ? s.mgr->set_port_bindinfo : s.mgr->del_port_bindinfo)(&context, or_null(t.key[0]), t.number(1),
                                                                      t.number(2), t.number(3), t.number(4));
}

int32_t of_commit(session &s, const thing &t, const arguments &a, bool on)
{
    const char *type = or_null(t.key[0]);
    return !on           ? s.mgr->disable_app_commit(&context, type)
           : t.number(1) ? s.mgr->publish_app_commit(&context, type)
                         : s.mgr->enable_app_commit(&context, type, a.as<uint32_t>("seconds"));
}

const std::map<std::string, operation> operations = {
    {"acl", of_acl},        {"ace", of_ace},       {"apply", of_apply},           {"port_off", of_port},
    {"svi_router", of_svi}, {"uplink", of_uplink}, {"port_bindinfo", of_binding}, {"app_commit", of_commit},
};

int32_t bracket(session &s, arguments &a, bool begins)
{
    const std::string table = a.next(), type = a.next();
    const char *name = or_null(type);
    const fp_udp_mgr &m = *s.mgr;
    if (table == "uplink")
        return begins ? m.expire_uplink(&context) : m.del_expire_uplink(&context);
    if (table == "svi_router")
        return begins ? m.expire_svi_router_enable(&context) : m.del_expire_svi_router_enable(&context);
    if (table == "acl")
        return begins ? m.expire_acl(&context, name) : m.del_expire_acl(&context, name);
    if (table == "ace")
        return begins ? m.expire_ace(&context, name) : m.del_expire_ace(&context, name);
    return begins ? m.expire_apply(&context, name) : m.del_expire_apply(&context, name);
}

std::string iterate(session &s, arguments &a)
{
    const thing t = a.next_thing();
    const fp_udp_acl_key key = make_key(t.text(0), t.number(1));
    auto *sns = reinterpret_cast<uint64_t *>(1);
    uint32_t count = 99;
    uint64_t *result = s.mgr->iterator_ace(&context, t.lacks(0) ? nullptr : &key, &sns, &count);
    EXPECT_EQ(result, sns);
    std::string text = result ? "listed" : "nothing";
    for (uint32_t i = 0; i < count; i++)
        text += format(" %llu", ull(sns[i]));
    free(result);
    return text;
}

std::string class_of(session &s, arguments &a)
{
    uint8_t cls = 77; // which a failure leaves
    const int32_t id = static_cast<int32_t>(a.number());
    const int32_t result = s.mgr->get_acl_cls(&context, id, a.option("to") == "null" ? nullptr : &cls);
    return format("%d class %d", result, cls);
}

// ---- attributes, on the entry that is held

std::string described(const owned_ace &ace)
{
    if (!ace)
        return "nothing";
    std::string text =
        format("entry %llu default=%d pri=%llu priv=", ull(ace->sn), ace->default_ace, ull(ace->ace_pri)) +
        hex(ace->priv, sizeof ace->priv);
    return text + (ace->tlv ? format(" len=%d ", ace->tlv->len) + hex(ace->tlv->data, ace->tlv->len) : " no buffer");
}

std::string make_entry(session &s, arguments &a)
{
    s.entry = owned_ace(s.mgr->alloc_ace(static_cast<uint64_t>(a.number()), a.as<uint8_t>("default")), s.mgr->free_ace);
    if (s.entry && a.has("priv"))
        put_priv(s.entry->priv, sizeof s.entry->priv, a.as<uint8_t>("priv"));
    if (s.entry)
        s.entry->ace_pri = a.as<uint64_t>("pri");
    return described(s.entry);
}

std::string read_entry(session &s, arguments &a)
{
    const thing t = a.next_thing();
    const fp_udp_acl_key key = make_key(t.text(0), t.number(1));
    s.entry = owned_ace(s.mgr->get_ace(&context, t.lacks(0) ? nullptr : &key, t.large(2)), s.mgr->free_ace);
    return described(s.entry);
}

// construct, and push unless something else is asked: "attr vid 1 0102 len=2 cls=3 name=x*20". What is pushed may be
// other than what was constructed.
std::string attribute(session &s, arguments &a)
{
    static void (*const construct)(fp_udp_attr *, const char *, uint32_t, const uint8_t *, int32_t) =
        s.entry->tlv->construct;
    static void (*const push)(fp_udp_ace_tlv **, fp_udp_attr) = s.entry->tlv->push;
    fp_udp_attr attr;
    memset(&attr, 0xEE, sizeof attr);
    const std::string name = a.next(), cls = a.next(), digits = a.next();
    const std::vector<uint8_t> value = bytes_of(digits);
    construct(a.option("to") == "null" ? nullptr : &attr, or_null(name), static_cast<uint32_t>(std::stoul(cls)),
              digits == "null" ? nullptr : value.data(),
              a.has("len") ? a.as<int32_t>("len") : static_cast<int32_t>(value.size()));
    if (a.option("push") == "no" && attr.name[0] == '\xEE')
        return "untouched";
    if (a.option("push") == "no")
        return format("name %.20s len %d value ", attr.name, attr.len) +
               hex(attr.value, std::min(value.size() + 1, sizeof attr.value));
    attr.len = a.has("pushed_len") ? a.as<int32_t>("pushed_len") : attr.len;
    attr.cls = a.has("cls") ? a.as<uint32_t>("cls") : attr.cls;
    if (a.has("name"))
        memset(attr.name, 'x', sizeof attr.name);
    push(&s.entry->tlv, attr);
    return a.option("shown") == "no" ? "" : described(s.entry);
}

// "push_all 1:vid:0102 2:fwd:01:1 times=3": class, name, bytes and, where it is not theirs, a length.
std::string push_all(session &s, arguments &a)
{
    static std::deque<lines> kept;
    static std::deque<std::vector<uint8_t>> values;
    std::vector<plx_attribute> all;
    for (; a.at < a.words.size(); a.at++) {
        const lines &parts = kept.emplace_back(split(a.words[a.at], ':'));
        const auto &value = values.emplace_back(bytes_of(parts[2]));
        const size_t len = parts.size() > 3 ? static_cast<size_t>(std::stoll(parts[3])) : value.size();
        all.insert(all.end(), a.has("times") ? a.as<size_t>("times") : 1,
                   {static_cast<uint32_t>(std::stoul(parts[0])), or_null(parts[1]),
                    parts[2] == "null" ? nullptr : value.data(), len});
    }
    const char *failed = "none";
    fp_udp_ace_tlv *&tlv = s.entry->tlv;
    const int32_t result = plx_push_all(a.option("to") == "null" ? nullptr : &tlv, all.data(), all.size(), &failed);
    return format("%d failed %s, ", result, failed ? failed : "null") +
           (tlv ? format("len %d", tlv->len) : "no buffer");
}

std::string copy(session &s, arguments &a)
{
    uint8_t fwd_zero = 77; // which no forwarding action leaves
    const int32_t whole = static_cast<int32_t>(a.number());
    const owned_ace made(s.mgr->copy_ace(a.option("of") == "null" ? nullptr : s.entry.get(), whole, &fwd_zero),
                         s.mgr->free_ace);
    return described(made) + format(" fwd_zero=%d", fwd_zero);
}

// ---- the store and the forwarding plane

fake::record record_of(arguments &a)
{
    std::map<std::string, std::string> fields = a.options;
    for (const char *name : {"result", "flag"}) // of the notification
        fields.erase(name);
    for (auto &[name, value] : fields)
        value = value == "now" ? std::to_string(fake::clock.now_us) : value;
    const thing t = a.next_thing();
    return {t.table, t.key, fields};
}

// A copy of a record's descriptor, as somebody carries it who built on their own from the same schema, or nearly so.
struct description {
    explicit description(const ProtobufCMessageDescriptor &own)
        : message(own), fields(own.fields, own.fields + own.n_fields), name(own.name)
    {
        message.name = name.c_str();
        message.fields = fields.data();
        for (ProtobufCFieldDescriptor &field : fields)
            if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
                key = std::make_unique<description>(*static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
                field.descriptor = &key->message;
            }
    }
    ProtobufCMessageDescriptor message;
    std::vector<ProtobufCFieldDescriptor> fields;
    std::string name;
    std::unique_ptr<description> key;
};

const std::map<std::string, void (*)(description &)> descriptions = {
    {"the_same", [](description &) {}},
    {"other_name", [](description &d) { d.message.name = "s_policy.other"; }},
    {"no_name", [](description &d) { d.message.name = nullptr; }},
    {"other_size", [](description &d) { d.message.sizeof_message += 8; }},
    {"fewer_fields", [](description &d) { d.message.n_fields--; }},
    {"other_number", [](description &d) { d.fields.back().id += 100; }},
    {"other_type", [](description &d) { d.fields[0].type = PROTOBUF_C_TYPE_DOUBLE; }},
    {"a_list", [](description &d) { d.fields[0].label = PROTOBUF_C_LABEL_REPEATED; }},
    {"other_place", [](description &d) { d.fields.back().offset += 4; }},
    {"other_key", [](description &d) { d.key->fields[0].offset += 4; }},
    {"no_key", [](description &d) { d.fields[0].descriptor = nullptr; }},
};

std::string described_as; // how the records are that are delivered and read

void describe(ProtobufCMessage &record)
{
    static std::deque<description> kept;
    description &made = kept.emplace_back(*record.descriptor);
    if (described_as == "without_index")
        *reinterpret_cast<void **>(reinterpret_cast<char *>(&record) + made.fields[0].offset) = nullptr;
    else if (!described_as.empty())
        descriptions.at(described_as)(made), record.descriptor = &made.message;
}

const ProtobufCMessage *unless_null(const fake::record &record, arguments &a)
{
    if (a.next() == "null")
        return nullptr;
    if (!described_as.empty())
        describe(const_cast<ProtobufCMessage &>(*record));
    return record;
}

// "deliver 1 ace_psta[security_app,4,1] p_status=3 rep_uuid=5 result=6 flag=1". Without a key: "ace_psta", without a
// record: "ace_psta null".
std::string deliver(session &, arguments &a)
{
    const auto event = static_cast<int32_t>(a.number());
    const std::string table = arguments(a).next_thing().table;
    const fake::record record = record_of(a);
    return std::to_string(
        fake::store.deliver(table, event, unless_null(record, a), a.as<int32_t>("result"), a.as<int32_t>("flag")));
}

std::string scanned(session &, arguments &a)
{
    static std::deque<fake::record> kept;
    const auto event = static_cast<int32_t>(a.number());
    const std::string table = arguments(a).next_thing().table;
    const fake::record &record = kept.emplace_back(record_of(a));
    fake::store.scan_entries.push_back({table, {event, unless_null(record, a), a.as<int32_t>("result"), 0}});
    return "";
}

// ---- the cache and the requests

void *cached(session &s, const thing &t)
{
    if (t.table == "acl")
        return s.cached_acl(t.text(0), t.number(1));
    if (t.table == "ace")
        return s.cached_ace(t.text(0), t.number(1), t.large(2));
    return s.cached_apply(t.text(2), t.number(1), t.text(0), t.number(3), t.number(4));
}

template <class Node> std::string state_of(const Node &node, const std::string &end)
{
    return format(" stat=%d uuid=%llu count=%d is_req=%d", node.stat, ull(node.uuid), node.req_count, node.is_req) +
           end + " priv=" + hex(node.priv, sizeof node.priv);
}

std::string cached_text(session &s, const thing &t)
{
    void *at = cached(s, t);
    if (!at)
        return "not cached";
    if (t.table == "acl") {
        const auto *node = static_cast<fp_udp_acl_node *>(at);
        return format("acl %s/%u stat=%d uuid=%llu entries=%u priv=", node->acl.app_type, node->acl.acl_id,
                      node->acl.stat, ull(node->acl.uuid), node->ace_count) +
               hex(node->acl.priv, sizeof node->acl.priv);
    }
    if (t.table == "ace") {
        const auto *node = static_cast<fp_udp_ace_node *>(at);
        return format("ace %llx", ull(node->ace.sn)) +
               state_of(node->ace, format(" def=%d waits=%d", node->ace.def, node->req != nullptr));
    }
    const auto *node = static_cast<fp_udp_apply_node *>(at);
    return format("apply %s/%x/%u/%u", node->apply.apply_type, node->apply.phyid, node->apply.pri, node->apply.dir) +
           state_of(node->apply, format(" value_pri=%u waits=%d", node->apply.value_pri, node->req != nullptr));
}

std::string name_of(const fp_udp_req_node &request)
{
    const auto *ace = static_cast<const fp_udp_ace_node *>(request.node);
    const auto *apply = static_cast<const fp_udp_apply_node *>(request.node);
    const bool is_ace = request.type == FP_UDP_REQ_ACE;
    const fp_udp_acl_info &acl = is_ace ? ace->acl : apply->acl;
    return format("%s %s/%u", is_ace ? "ace" : "apply", acl.app_type, acl.acl_id) +
           (is_ace ? format("/%llx", ull(ace->ace.sn))
                   : format("@%s/%x", apply->apply.apply_type, apply->apply.phyid)) +
           format(" since %llu", ull(tq_timeval_to_us(&request.time)));
}

template <class Element, class Name> void list(session &s, const fp_udp_list &head, Name name)
{
    const size_t enough = std::min<size_t>(list_length(head), 4);
    for (const fp_udp_list *at = head.next; s.shown.size() < enough; at = at->next)
        s.shown.push_back(name(*reinterpret_cast<const Element *>(at)));
}

// The names of a class and their ids, a few a line.
template <size_t Count> void list_names(session &s, const char *cls, const fp_udp_attr_entry (&table)[Count])
{
    for (size_t i = 0; i < Count; i++) {
        if (i % 6 == 0)
            s.shown.emplace_back(cls);
        s.shown.back() += format(" %.20s=%u", table[i].name, table[i].id);
    }
}

std::string show(session &s, arguments &a)
{
    const std::string what = arguments(a).next();
    if (what == "cache")
        return format("%u ACLs, %u entries, %u applies", fp_udp_acl_node_hash_size(), fp_udp_ace_node_hash_size(),
                      fp_udp_apply_node_hash_size());
    if (what == "pending")
        list<fp_udp_req_node>(s, g_req_para.pending, name_of);
    else if (what == "nodes")
        list<fp_udp_service_node>(s, g_fp_service.nodes, [](auto &node) {
            return format("node %u/%u/%u at %llu", node.dev, node.slot, node.id, ull(tq_timeval_to_us(&node.up_time)));
        });
    else if (what == "timers")
        for (const fake::timer &timer : fake::clock.timers)
            s.shown.push_back(format("%s of the context's master %d",
                                     timer.handle == &g_req_check_thread        ? "check"
                                     : timer.handle == &g_service_expire_thread ? "expiry"
                                                                                : "other",
                                     timer.master == context.master));
    else if (what == "types")
        for (const char *type : regist_app_type)
            s.shown.push_back(type ? std::string("type ") + type : "no type");
    else if (what == "channel")
        return format("level %u switch %x category %s %s, %d formatted", g_policy_plx_zlog_level, fp_udp_debug_sw,
                      fake::log.category.c_str(), g_policy_plx_zlog_category ? "open" : "closed",
                      std::exchange(fake::log.formatted, 0));
    else if (what == "commands")
        for (const fake::shell_command &command : fake::shell.commands)
            s.shown.push_back(command.module + " " + command.name + ": " + command.description);
    else if (what == "names") {
        list_names(s, "ctrl", ctrl_attr);
        list_names(s, "field", field_attr);
        list_names(s, "action", action_attr);
    } else
        return cached_text(s, a.next_thing());
    return what == "pending" ? std::to_string(s.pending()) : "";
}

std::string poke(session &s, arguments &a)
{
    const thing t = a.next_thing();
    if (t.table == "nodes") {
        g_fp_service.count = a.as<int32_t>("count");
        return "";
    }
    const auto poke_state = [&](auto &info) {
        info.stat = a.has("stat") ? a.as<int32_t>("stat") : info.stat;
        info.req_count = a.has("count") ? a.as<uint8_t>("count") : info.req_count;
        info.is_req = a.has("is_req") ? a.as<uint8_t>("is_req") : info.is_req;
    };
    void *at = cached(s, t);
    if (t.table == "acl") {
        auto *node = static_cast<fp_udp_acl_node *>(at);
        node->ace_count = a.has("entries") ? a.as<uint32_t>("entries") : node->ace_count;
        node->acl.stat = a.as<int32_t>("stat");
    } else if (t.table == "ace") {
        poke_state(static_cast<fp_udp_ace_node *>(at)->ace);
    } else {
        poke_state(static_cast<fp_udp_apply_node *>(at)->apply);
    }
    return "";
}

template <class Acl, class Ace, class Apply> int32_t by_table(const thing &t, Acl acl, Ace ace, Apply apply)
{
    fp_udp_acl_info owner = make_info(t.text(t.table == "apply" ? 2 : 0), t.number(1));
    put_priv(owner.priv, sizeof owner.priv, 40);
    owner.uuid = 5;
    if (t.table == "acl")
        return acl(&owner);
    const fp_udp_ace_info entry = make_ace_info(t.large(2));
    const fp_udp_apply_info binding = make_apply_info(t.text(0), t.number(3), t.number(4), t.number(5));
    return t.table == "ace" ? ace(&owner, &entry) : apply(&owner, &binding);
}

std::string in_cache(session &, arguments &a)
{
    const std::string what = a.next();
    const thing t = a.next_thing();
    auto *acl_node = reinterpret_cast<fp_udp_acl_node *>(1);
    auto *ace_node = reinterpret_cast<fp_udp_ace_node *>(1);
    auto *apply_node = reinterpret_cast<fp_udp_apply_node *>(1);
    if (what == "del")
        return std::to_string(by_table(t, fp_udp_acldb_del_acl, fp_udp_acldb_del_ace, fp_udp_acldb_del_apply));
    if (what == "add")
        return std::to_string(by_table(
            t, fp_udp_acldb_add_acl, [&](auto *acl, auto *ace) { return fp_udp_acldb_add_ace(acl, ace, &ace_node); },
            [&](auto *acl, auto *apply) { return fp_udp_acldb_add_apply(acl, apply, &apply_node); }));
    const int32_t result = by_table(
        t, [&](auto *acl) { return fp_udp_acldb_get_acl(acl, &acl_node); },
        [&](auto *acl, auto *ace) { return fp_udp_acldb_get_ace(acl, ace, &ace_node); },
        [&](auto *acl, auto *apply) { return fp_udp_acldb_get_apply(acl, apply, &apply_node); });
    const void *found = t.table == "acl"   ? static_cast<void *>(acl_node)
                        : t.table == "ace" ? static_cast<void *>(ace_node)
                                           : apply_node;
    return format("%d %s", result, found ? "a node" : "null");
}

// "wait add 1 ace[..]", "wait judge 1 ace[..] status final": of a type of request, and a node or none.
std::string wait_for(session &s, arguments &a)
{
    const std::string what = a.next();
    const auto type = static_cast<uint8_t>(a.number());
    const thing t = a.next_thing();
    void *node = t.table == "null" ? nullptr : cached(s, t);
    if (what == "add")
        return std::to_string(fp_udp_req_node_add(type, node));
    if (what == "del")
        return std::to_string(fp_udp_req_node_del(type, node));
    const auto status = static_cast<int32_t>(a.number()), final = static_cast<int32_t>(a.number());
    return std::to_string(type == FP_UDP_REQ_ACE
                              ? fp_udp_ace_req_stat_proc(static_cast<fp_udp_ace_node *>(node), status, final)
                              : fp_udp_apply_req_stat_proc(static_cast<fp_udp_apply_node *>(node), status, final));
}

// One answer, or the end of waiting, from the counts before to what is heard and left, for an entry and an apply.
std::string judge(session &s, arguments &a)
{
    for (const char *name : {"ace[security_app,4,1]", "apply[my_app,4,security_app,257,9,0]"}) {
        arguments counts(std::string(name) + " " + a.raw);
        const thing t = arguments(counts).next_thing();
        poke(s, counts);
        g_fp_service.count = a.as<int32_t>("nodes");
        app.on_event = [&](const std::string &) { app.events.push_back("  while " + cached_text(s, t)); };
        arguments rest(format("judge %d %s %s %s", t.table == "ace" ? 1 : 2, name, a.option("status").c_str(),
                              a.option("final").c_str()));
        wait_for(s, rest);
        s.shown.push_back(cached_text(s, t));
        app.on_event = nullptr;
    }
    g_fp_service.count = 0;
    return "";
}

// ---- the clock, the channel, the shell and the files

void record(session &, arguments &a)
{
    const thing t = a.next_thing();
    const fp_udp_acl_info acl = make_info(t.text(t.table == "apply" ? 2 : 0), t.number(1));
    const fp_udp_acl_info *owner = t.lacks(t.table == "apply" ? 2 : 0) ? nullptr : &acl;
    uint8_t bytes[FP_UDP_PRIV_SIZE];
    put_priv(bytes, sizeof bytes, a.as<uint8_t>("priv"));
    const uint8_t *priv = a.has("priv") ? bytes : nullptr;
    const std::string name = a.option("app");
    const char *type = a.has("app") ? name.c_str() : nullptr;
    const auto op = a.as<uint32_t>("op");
    const uint64_t sn = t.large(2), pri = a.as<uint64_t>("pri");
    if (t.table == "acl")
        fp_udp_log_op_acl(owner, type, priv, op);
    else if (t.table == "ace")
        fp_udp_log_op_ace(owner, t.lacks(2) ? nullptr : &sn, type, priv, a.has("pri") ? &pri : nullptr, op);
    else {
        const fp_udp_apply_info apply = make_apply_info(t.text(0), t.number(3), t.number(4), t.number(5));
        fp_udp_log_op_apply(owner, t.lacks(0) ? nullptr : &apply, type, priv, op);
    }
}

std::string shell(session &, arguments &a)
{
    const std::string name = a.next();
    for (const fake::shell_command &known : fake::shell.commands)
        if (known.name == name && a.has("count")) // and none there
            return std::to_string(known.handler(a.as<int>("count"), nullptr));
    std::vector<ssat_value> values;
    for (; a.at < a.words.size(); a.at++) {
        const std::string &word = a.words[a.at];
        const bool is_number = isdigit(word[0]) || word[0] == '-';
        values.push_back(is_number ? ssat_value{.d = static_cast<int32_t>(strtol(word.c_str(), nullptr, 0))}
                                   : ssat_value{.s = word == "''" ? "" : or_null(word)});
    }
    return std::to_string(fake::shell.run(name, values));
}

std::string path_of(session &s, const std::string &name)
{
    const size_t at = name.find("PROCESS");
    return s.root + "/" + (at == std::string::npos ? name : std::string(name).replace(at, 7, s.process));
}

void file(session &s, arguments &a)
{
    const std::string what = a.next(), path = path_of(s, a.next());
    reader in{std::istringstream(a.raw)};
    in.word(), in.word();
    const std::string rest = in.rest();
    if (what == "write")
        std::ofstream(path) << unescaped(rest);
    else if (what == "size")
        EXPECT_EQ(truncate(path.c_str(), strtoll(rest.c_str(), nullptr, 0)), 0) << path;
    else if (what == "remove")
        std::filesystem::remove_all(path);
    else if (what == "mkdir")
        mkdir(path.c_str(), 0700);
    else if (what == "fifo")
        mkfifo(path.c_str(), 0600);
    else if (what == "link")
        EXPECT_EQ(symlink((s.root + "/" + rest).c_str(), path.c_str()), 0);
    else if (what == "name") // a second one
        EXPECT_EQ(link(path.c_str(), path_of(s, rest).c_str()), 0);
    else if (what == "move")
        EXPECT_EQ(rename(path.c_str(), path_of(s, rest).c_str()), 0);
    else if (what == "list")
        for (const auto &one : std::filesystem::directory_iterator(path))
            s.shown.push_back(one.path().filename());
    else if (!std::filesystem::exists(path))
        s.shown.emplace_back("no such file");
    else
        for (const std::string &line : read_lines(path))
            s.shown.push_back(line + "|"); // a blank at its end can be seen
}

template <bool on> int32_t operate(session &s, arguments &a)
{
    const thing t = a.next_thing();
    return operations.at(t.table)(s, t, a, on);
}

fp_udp_service_node_key node_key(arguments &a)
{
    const thing t = a.next_thing();
    return {t.number(0), t.number(1), t.number(2)};
}

int32_t register_callbacks(session &s, arguments &a)
{
    const auto db = static_cast<uint32_t>(a.number());
    const std::string names = a.next();
    const fp_udp_acl_handler chosen = handler(names);
    const int32_t result = fp_udp_register_acl_handler(&context, db, names == "null" ? nullptr : &chosen);
    s.mgr = fp_udp_get_mgr();
    return result;
}

std::string new_apply(session &s, arguments &)
{
    const fp_udp_apply_key key{};
    fp_udp_apply *made = s.mgr->alloc_apply(&key);
    s.mgr->free_apply(made);
    return made ? "an apply" : "nothing";
}

std::string process_name(session &, arguments &)
{
    char name[100] = "untouched";
    const int32_t result = fp_udp_dbg_get_proc_name(name);
    return std::to_string(result) + " " + name;
}

std::string open_shell(session &, arguments &a)
{
    fake::shell.commands.clear();
    fp_udp_at_reg_init(a.option("context") == "null" ? nullptr : &context);
    return fake::shell.opened + format(" %zu commands, switch %x", fake::shell.commands.size(), fp_udp_debug_sw);
}

using verb = std::function<std::string(session &, arguments &)>;

template <class Work> verb silent(Work work)
{
    return [work](session &s, arguments &a) {
        work(s, a);
        return std::string();
    };
}
template <class Work> verb number(Work work)
{
    return [work](session &s, arguments &a) { return std::to_string(work(s, a)); };
}
const auto small = [](arguments &a) { return static_cast<uint32_t>(a.number()); };

const std::map<std::string, verb> verbs = {
    // Start-up
    {"start", silent([](session &s, arguments &a) {
         s.start(handler(a.next()));
         fake::clock.inserted.clear();
         fake::commands.clear();
     })},
    {"type", number([](auto &, auto &a) {
         const std::string name = a.next();
         return fp_udp_register_app_type(name == "''" ? "" : or_null(name));
     })},
    {"register", number(register_callbacks)},
    {"topics", number([](auto &, auto &a) {
         const std::string name = a.next();
         return fp_udp_cgst_register(a.option("context") == "null" ? nullptr : &context, 7, or_null(name));
     })},
    {"table", [](session &s, auto &) {
         s.mgr = fp_udp_get_mgr();
         std::string empty;
         for (size_t i = 0; i < sizeof *s.mgr / sizeof(void *); i++)
             empty += reinterpret_cast<void *const *>(s.mgr)[i] ? "" : " " + std::to_string(i);
         return "all slots but" + empty;
     }},
    // Operations
    {"set", number(operate<true>)},
    {"del", number(operate<false>)},
    {"expire", number([](auto &s, auto &a) { return bracket(s, a, true); })},
    {"del_expire", number([](auto &s, auto &a) { return bracket(s, a, false); })},
    {"iterate", iterate},
    {"class", class_of},
    {"skip_priority", number([](auto &, auto &) {
         fp_udp_set_cmp_apply_skip_prio();
         return fp_udp_is_cmp_apply_skip_priority();
     })},
    {"bulk", number([](auto &, auto &a) {
         const std::string what = a.next();
         void *at = a.option("context") == "null" ? nullptr : &context;
         return what == "begin" ? plx_bulk_begin(at) : what == "flush" ? plx_bulk_flush(at) : plx_bulk_end(at);
     })},
    {"hear_history", silent([](auto &, auto &) {
         plx_set_history_cb([](void *at) {
             app.events.push_back(at == &context ? "write all again" : "WRONG CONTEXT");
         });
     })},
    {"batches", silent([](auto &, auto &a) { // refused, taken by the application, or as usual
         const std::string how = a.next();
         fake::store.refusing = how == "refused";
         fake::store.foreign = how == "taken";
     })},
    {"get", read_entry},
    {"entry", make_entry},
    {"attr", attribute},
    {"push_all", push_all},
    {"copy", copy},
    {"new_apply", new_apply},
    // The store and the service nodes
    {"put", silent([](auto &, auto &a) {
         const uint32_t db = small(a);
         fake::store.put(db, *record_of(a));
     })},
    {"deliver", deliver},
    {"scanned", scanned},
    {"notify_nothing", silent([](session &s, auto &) {
         for (const fake::subscription &one : fake::store.subscriptions)
             s.shown.push_back(one.table + " " + std::to_string(one.callback(one.handle, nullptr, one.arg)));
     })},
    // The application's callbacks
    {"answers", silent([](auto &, auto &a) { app.result = static_cast<int32_t>(a.number()); })},
    {"then", silent([](session &s, auto &a) { s.then.push_back(a.raw); })},
    // The cache and the requests
    {"show", show},
    {"poke", poke},
    {"cache", in_cache},
    {"wait", wait_for},
    {"judge", judge},
    {"pass", silent([](auto &, auto &a) { fp_udp_req_check_proc(static_cast<int32_t>(a.number())); })},
    {"expire_nodes", silent([](auto &, auto &) { fp_udp_fp_service_node_expire(); })},
    {"find_node", [](auto &, auto &a) {
         const fp_udp_service_node_key key = node_key(a);
         return std::string(fp_udp_fp_service_node_search(&key) ? "found" : "unknown");
     }},
    {"add_node", number([](auto &, auto &a) {
         const fp_udp_service_node_key key = node_key(a);
         return fp_udp_fp_service_node_add(&key);
     })},
    // The clock; by microseconds no timer fires, and time may go back
    {"begin_waiting", number([](auto &, auto &) { return fp_udp_req_init(&context, g_req_para.handler); })},
    {"timers",
     [](auto &, auto &) {
         const auto check = fp_udp_req_check(), expire = fp_udp_expire();
         return format("%d %d", expire, check);
     }},
    {"seconds", silent([](auto &, auto &a) { fake::clock.advance_seconds(static_cast<uint64_t>(a.number())); })},
    {"microseconds", silent([](auto &, auto &a) { fake::clock.now_us += static_cast<uint64_t>(a.number()); })},
    {"clock", silent([](auto &, auto &a) {
         const std::string how = a.next();
         fake::clock.works = how != "fails";
         fake::clock.keeps_handles = how == "keeps_handles";
     })},
    {"described", silent([](auto &, auto &a) {
         described_as = a.next();
         fake::store.on_read = describe;
     })},
    {"wall_clock", silent([](auto &, auto &a) { fake::clock.wall_clock_works = a.next() == "works"; })},
    // The channel, the debug shell and the files
    {"log", silent([](session &s, auto &a) { s.levels = a.next(); })},
    {"level", silent([](auto &, auto &a) { g_policy_plx_zlog_level = small(a); })},
    {"switch", silent([](auto &, auto &a) { fp_udp_debug_sw = small(a); })},
    {"category", silent([](auto &, auto &a) {
         fake::log.opens = a.next() == "opens";
         g_policy_plx_zlog_category = nullptr;
     })},
    {"initial", [](auto &, auto &) {
         const int32_t result = plx_initial();
         return format("%d level %u", result, g_policy_plx_zlog_level);
     }},
    {"process_name", process_name},
    {"op_log_init", number([](auto &, auto &) { return fp_udp_op_log_init(); })},
    {"record", silent(record)},
    {"open_shell", open_shell},
    {"more_commands", number([](auto &, auto &a) {
         return plx_register_debug_commands(a.option("context") == "null" ? nullptr : &context);
     })},
    {"shell_path", silent([](auto &, auto &a) {
         snprintf(lib_plx_debug_path, sizeof lib_plx_debug_path, "%s", a.next().c_str());
     })},
    {"shell", shell},
    {"set_level", number([](auto &, auto &a) { return fp_udp_at_set_zlog_level(small(a)); })},
    {"file", silent(file)},
    {"owner", silent([](auto &, auto &a) { fake::owner_of_all = small(a); })},
    {"umask", silent([](auto &, auto &a) { umask(small(a)); })},
    {"mode", [](auto &s, auto &a) {
         return format("%o", static_cast<unsigned>(std::filesystem::status(path_of(s, a.next())).permissions()));
     }},
    {"room", silent([](auto &, auto &a) { // of a file, where the disk is full
         const rlimit most{small(a), RLIM_INFINITY};
         signal(SIGXFSZ, SIG_IGN);
         EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &most), 0);
     })},
};

} // namespace

std::string session::perform(const std::string &line)
{
    reader in{std::istringstream(line)};
    const std::string name = in.word();
    arguments given(in.rest());
    const auto found = verbs.find(name);
    if (found == verbs.end())
        throw std::runtime_error("no verb is called " + name);
    const std::string result = found->second(*this, given);
    return result.empty() ? "" : "= " + result;
}
