// The store client's server engine against a server that answers anything. connect() and send() are defined here: a
// connection is a pair of sockets, and each command that is sent is answered at once by what the run's bytes say: the
// shape that the command expects with any content, any other reply, bytes that are no reply, or the end.
#include "input.hpp"

#include <plx/s_policy.pb-c.h>
#include <support/keyed.h>
#include <tq_context.h>
#include <tq_loop.h>
#include <tq_mom.h>
#include <tq_zlog.h>

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

struct peer {
    int client, server;
};

fuzz::input *script = nullptr; // null outside a run: then every call fails
std::vector<peer> peers;

// ---- replies

std::string bulk(const std::string &text)
{
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

std::string array(const std::vector<std::string> &elements)
{
    std::string reply = "*" + std::to_string(elements.size()) + "\r\n";
    for (const std::string &element : elements)
        reply += element;
    return reply;
}

std::string integer()
{
    return ":" + std::to_string(script->number<int16_t>()) + "\r\n";
}

std::string any_key()
{
    const char *keys[] = {"my_app,a1,a7", "my_app,a1,a8", "security_app,a1", "my_app,a1", "", "x,y"};
    return script->below(8) == 0 ? script->text() : script->pick(keys);
}

std::string any_number()
{
    return std::to_string(script->below(8) == 0 ? script->number<uint64_t>() : script->below(8));
}

std::string log_id()
{
    return (script->below(16) == 0 ? "1-" : "0-") + any_number();
}

// Field 6 of an ACE, or anything.
std::string field_bytes()
{
    return script->chance() ? std::string("\x32\x02hi", 4) : script->text();
}

std::string log_entry()
{
    const bool deleted = script->below(4) == 0;
    if (script->chance())
        return array({bulk(log_id()), array({bulk("w"), bulk("1"), bulk((deleted ? "d" : "r") + any_key()),
                                             bulk(field_bytes()), bulk("r" + any_key()), bulk(field_bytes())})});
    return array({bulk(log_id()), array({bulk("k"), bulk(any_key()), bulk("w"), bulk("1"), bulk(deleted ? "d" : "r"),
                                         bulk(field_bytes())})});
}

std::string log_entries()
{
    std::vector<std::string> entries(script->below(4));
    for (std::string &entry : entries)
        entry = log_entry();
    return array(entries);
}

std::string streams()
{
    const char *tables[] = {"plx{5:ace}/log", "plx{5:ace_psta}/log", "plx{5:service_node}/log", "?"};
    std::vector<std::string> read(1 + script->below(2));
    for (std::string &stream : read)
        stream = array({bulk(script->pick(tables)), log_entries()});
    return array(read);
}

std::string record()
{
    std::vector<std::string> fields;
    if (script->below(16) != 0)
        fields = {bulk("#"), bulk(any_number())};
    for (uint32_t left = script->below(3); left > 0; left--) {
        fields.push_back(bulk(script->below(8) == 0 ? script->text() : "6"));
        fields.push_back(bulk(field_bytes()));
    }
    return array(fields);
}

std::string keys()
{
    std::vector<std::string> listed(script->below(4));
    for (std::string &key : listed)
        key = bulk(any_key());
    return array(listed);
}

std::string metadata()
{
    const char *fields[] = {"6,7,8,9,10,11,12", "6,7", "", "0,,x,4294967296"};
    return array({script->below(8) == 0 ? "$-1\r\n" : bulk(any_number()), bulk(script->pick(fields))});
}

std::string error()
{
    const char *errors[] = {"NOSCRIPT x", "READONLY x", "WRONGTYPE x", "ERR no such key", "NOMETA x",
                            "NOMARK x",   "OOM x",      "LOADING x",   "NOAUTH x",        "NOPERM x"};
    return "-" + std::string(script->pick(errors)) + "\r\n";
}

struct expected {
    const char *command;
    std::string (*reply)();
};

// What a server that means well answers.
const expected shapes[] = {
    {"PING", [] { return std::string("+PONG\r\n"); }},
    {"MULTI", [] { return std::string("+OK\r\n"); }},
    {"HSET", [] { return std::string("+QUEUED\r\n"); }},
    {"ZADD", [] { return std::string("+QUEUED\r\n"); }},
    {"XADD", [] { return std::string("+QUEUED\r\n"); }},
    {"DEL", [] { return std::string("+QUEUED\r\n"); }},
    {"XTRIM", [] { return std::string("+QUEUED\r\n"); }},
    {"EXEC",
     [] {
         return script->below(8) == 0 ? "*-1\r\n" : array({metadata(), integer(), bulk(log_id()), integer()});
     }},
    {"INFO", [] { return bulk("# Server\r\ntcp_port:6379\r\nmaxmemory:1\r\naof_enabled:0\r\n"); }},
    {"SCRIPT", [] { return bulk(std::string(40, 'a')); }},
    {"EVALSHA",
     [] {
         switch (script->below(4)) {
         case 0:
             return integer();
         case 1:
             return metadata();
         case 2:
             return array({bulk(log_id())});
         default:
             return array({bulk("epoch"), integer(), integer()});
         }
     }},
    {"CLIENT", integer},
    {"HGET", [] { return bulk(any_number()); }},
    {"HMGET", metadata},
    {"HGETALL", record},
    {"ZRANGEBYLEX", keys},
    {"XRANGE", log_entries},
    {"XREVRANGE", log_entries},
    {"XREAD", streams},
    {"XINFO",
     [] {
         return array({bulk("length"), integer(), bulk("last-generated-id"), bulk(log_id())});
     }},
    {"ROLE",
     [] {
         return array({bulk(script->below(4) == 0 ? "slave" : "master"), integer()});
     }},
    {"SENTINEL",
     [] {
         return array({bulk("127.0.0.1"), bulk(any_number())});
     }},
};

std::string any_reply()
{
    const expected &shape = shapes[script->below(static_cast<uint32_t>(std::size(shapes)))];
    switch (script->below(5)) {
    case 0:
        return error();
    case 1:
        return script->chance() ? "$-1\r\n" : "*-1\r\n";
    case 2:
        return script->text();
    default:
        return shape.reply();
    }
}

std::string reply_to(const std::string &command)
{
    if (script->below(12) == 11)
        return any_reply();
    for (const expected &shape : shapes)
        if (command == shape.command)
            return shape.reply();
    return any_reply();
}

// ---- the server's side of a connection

// The names of the commands in what was sent: "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n".
std::vector<std::string> commands_in(std::string_view sent)
{
    std::vector<std::string> names;
    for (bool first = false; !sent.empty();) {
        const bool begins = sent[0] == '*';
        const size_t number = strtoul(sent.data() + 1, nullptr, 10);
        sent.remove_prefix(sent.find('\n') + 1);
        if (!begins && first)
            names.emplace_back(sent.substr(0, number));
        first = begins;
        sent.remove_prefix(begins ? 0 : number + 2);
    }
    return names;
}

void answer(const peer &to, std::string_view sent)
{
    std::string replies;
    bool more = !script->done();
    for (const std::string &command : commands_in(sent))
        if (command != "XREAD" || script->chance()) // a server may be silent about changes
            replies += reply_to(command);
    if (script->below(64) == 63) { // cut off
        replies.resize(replies.size() / 2);
        more = false;
    }
    // After its end, or once the client is gone, there is nobody to write to.
    sendto(to.server, replies.data(), replies.size(), MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0);
    if (!more)
        shutdown(to.server, SHUT_WR);
}

void hang_up()
{
    for (const peer &each : peers)
        close(each.server);
    peers.clear();
}

} // namespace

extern "C" {

int connect(int fd, const sockaddr *, socklen_t) noexcept(false)
{
    int pair[2];
    if (script == nullptr || script->done() || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        errno = ECONNREFUSED;
        return -1;
    }
    dup2(pair[0], fd);
    close(pair[0]);
    peers.push_back({fd, pair[1]});
    return 0;
}

ssize_t send(int fd, const void *bytes, size_t size, int)
{
    // The newest with this descriptor: an earlier one was closed.
    for (auto at = peers.rbegin(); at != peers.rend(); ++at)
        if (at->client == fd) {
            answer(*at, {static_cast<const char *>(bytes), size});
            return static_cast<ssize_t>(size);
        }
    errno = EPIPE;
    return -1;
}

// The pair of sockets knows no TCP.
int setsockopt(int fd, int level, int name, const void *value, socklen_t size) noexcept
{
    static const auto real = reinterpret_cast<decltype(&setsockopt)>(dlsym(RTLD_NEXT, "setsockopt"));
    return level == IPPROTO_TCP ? 0 : real(fd, level, name, value, size);
}

// A server may name any host: nobody is asked for its address.
int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **found)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    return real(host, service, &numeric, found);
}

// The log is of no interest.
void *tq_zlog_init(const char *)
{
    return nullptr;
}

void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *, ...) {}

} // extern "C"

// ---- the application's side

namespace {

tq_context *application = nullptr;
int depth = 0;

void step();

int32_t hear(void *, const tq_mom_notification *told, void *)
{
    fuzz::require(told->record == nullptr || told->record->descriptor != nullptr, "a told record is one");
    fuzz::require((told->record == nullptr) == (told->result != 0 || told->event == TQ_MOM_EVENT_RESYNC),
                  "a record or a reason is told");
    if (depth == 0 && !script->done() && script->below(8) == 0) {
        depth++;
        step();
        depth--;
    }
    return 0;
}

// Told results agree with the one for all.
void end_batch()
{
    int results[3] = {};
    const int first = tq_mom_batch_end(application, results, 3);
    const int *failed = std::find_if(results, results + 3, [](int result) { return result != TQ_MOM_OK; });
    fuzz::require(failed == results + 3 || *failed == first, "the first failure is the batch's result");
}

// Now and then long enough for another attempt to connect.
void turn_loop()
{
    if (depth == 0)
        tq_loop_run_once(application->master, script->below(8) == 7 ? 2 : 0);
}

void step()
{
    static keyed<SPolicy__Ace, SPolicy__AceKey, s_policy__ace__descriptor> ace;
    static keyed<SPolicy__AcePsta, SPolicy__AceKey, s_policy__ace_psta__descriptor> status;
    static keyed<SPolicy__ServiceNode, SPolicy__ServiceNodeIndex, s_policy__service_node__descriptor> node;
    for (SPolicy__AceKey *key : {&ace.key, &status.key})
        key->t_app_type = const_cast<char *>("my_app"), key->acl_id = 1, key->sn = 7;
    ace.record.c_status = status.record.p_status = 1;
    static const uint32_t fields[] = {6, 7};
    const ProtobufCMessage *kinds[] = {ace, status, node};
    using call = void (*)(const ProtobufCMessage *);
    const call calls[] = {
        [](auto *r) { tq_mom_hmset_sync(application, 5, r, fields, r == node ? 0 : 2); },
        [](auto *r) { tq_mom_set_sync(application, 5, r); },
        [](auto *r) { tq_mom_hash_res_free(tq_mom_hgetall_sync(application, 5, r)); },
        [](auto *r) { tq_mom_del_sync(application, 5, r); },
        [](auto *r) { tq_mom_scan_sync(application, 5, r, script->below(2), hear, nullptr); },
        [](auto *r) { tq_mom_subscribe(application, 5, r, script->below(2), hear, nullptr); },
        [](auto *r) { tq_mom_dsbegin_sync(application, 5, r, 0, 10); },
        [](auto *r) { tq_mom_dsend_sync(application, 5, r, 0, 10); },
        [](auto *) { tq_mom_batch_begin(application), tq_mom_batch_send(application); }, // what it has collected
        [](auto *) { end_batch(); },
        [](auto *) { turn_loop(); }};
    const ProtobufCMessage *record = script->pick(kinds);
    script->pick(calls)(record);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr int longest = 40;
    const char *stores[] = {"unix:/store?timeout=20&spin=0", "unix:/store?timeout=20&spin=0&log=1",
                            "sentinel://127.0.0.1:1,127.0.0.1:2/name?timeout=20&spin=0"};
    fuzz::input in(data, size);
    script = &in;
    application = tq_context_new(in.pick(stores));
    fuzz::require(application != nullptr, "a context is made");
    tq_mom_client_connect_sync(application, 5);
    for (int steps = 0; steps < longest && !in.done(); steps++)
        step();
    for (int turns = 0; turns < 4; turns++)
        tq_loop_run_once(application->master, 0);
    tq_context_free(application);
    script = nullptr;
    hang_up();
    return 0;
}
