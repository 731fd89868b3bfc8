// The node on an embedded store, in transcripts, and the simulated plane by itself:
//
//     store ?log=2                  options of the store, before all else
//     speed 50                      of the clock, also before all else
//     start one size=1 silent=edge  a node of that name on a simulated plane that behaves so
//     stop one; restart one         the node alone: its plane stays; `fresh one` restarts it on an empty plane
//     set ace:edge/10/1 100 BYTES   a request by the application; del takes it away
//     drip one ace:edge/10/ 20      so many requests, each once the loop has delivered the one before: whether they
//                                   were programmed one by one
//     marker edge enable 60         an application's commit marker; unmark takes it away
//     settle [NODES]                what was heard until all that was written before is dealt with, in order of keys
//     until 3                       what was heard once there are so many answers; with "quietly" that they came
//     intervals 1 1 1               of heartbeat, counters and retry in milliseconds, for the nodes to come
//     counted 2; beats 10           the first counter records; that many heartbeats
//     plane one                     what is on it, and how much it was asked to do since it was last looked at
//     stored status                 the keys in that table
//     reported one 3 0 106          its report, once it tells of so many programmed and refused, of that request as
//                                   the last, and has no backlog
//     plane one size=2              a plane without a node, for which
//     make one ace:edge/10/1 BYTES  or "gone" for the bytes, tells the answer
//     cost 20                       time that passes, by the clock alone, for each record that is read from here on;
//                                   so does what a simulated plane is told to take
//     fill 600 edge                 the application asks for so many entries
//     fail 3; paused 100            so many writes of answers fail; whether the node waited so long behind each
//     ask 40 [0/9/0]; answers 16    so many questions at once about each plane, or that of the node of this name; waits
//                                   until there are so many answers
//     unsent 1                      so many answers to questions are not taken
//     unreadable 1                  so many scans by the nodes fail
//     unread 1                      so many looks for a commit marker fail
//     refuse 3; paused 100          so many answers are not taken, as their batch tells at its end; as with "fail"
//     lose 2                        so many counter records never arrive, as their bracket tells at its end
//     called 200                    asks so many times who lives, with turns between: whether fewer signs of life came
//     silence 3000                  whether a node gave no sign of life for longer since this was asked last
//     option TEXT; matches PATTERN  whether it is one; which of an entry, a binding and an uplink it matches
#include "plane/node.hpp"
#include "plane/simulated/simulated.hpp"
#include "records/node_report.hpp"
#include "records/status.hpp"
#include "support/transcript.hpp"

#include <chrono>
#include <ctime>
#include <dlfcn.h>
#include <iterator>
#include <numeric>
#include <plx/plx_node.pb-c.h>
#include <plx/s_policy.pb-c.h>
#include <sstream>
#include <tq_loop.h>

extern "C" int64_t fast_clock_ahead_us;

namespace {

int64_t record_cost_us = 0;
plx::milliseconds last_sign{0}, longest_silence{0}, last_failure{0}, shortest_pause{0};
int failures = 0; // of status records, that are to come
int unreadable = 0, unsent = 0, unread = 0, refused = 0;
size_t to_lose = 0, lost = 0; // counter records; of the bracket

template <typename Func> Func real(const char *name)
{
    return reinterpret_cast<Func>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In front of the libraries' own.
extern "C" ProtobufCMessage *protobuf_c_message_unpack(const ProtobufCMessageDescriptor *descriptor,
                                                       ProtobufCAllocator *allocator, size_t len, const uint8_t *data)
{
    static const auto next = real<decltype(&protobuf_c_message_unpack)>("protobuf_c_message_unpack");
    fast_clock_ahead_us += record_cost_us;
    return next(descriptor, allocator, len, data);
}

extern "C" int nanosleep(const timespec *time, timespec *)
{
    fast_clock_ahead_us += time->tv_sec * 1'000'000 + time->tv_nsec / 1000;
    return 0;
}

extern "C" int tq_mom_set_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    static const auto next = real<decltype(&tq_mom_set_sync)>("tq_mom_set_sync");
    if (record->descriptor == &s_policy__service_node__descriptor) {
        const plx::milliseconds before = std::exchange(last_sign, plx::now());
        if (before.count() != 0)
            longest_silence = std::max(longest_silence, last_sign - before);
    }
    if (record->descriptor == &plx_node__node_answer__descriptor && unsent > 0)
        return --unsent, TQ_MOM_TIMEOUT;
    if (record->descriptor == &s_policy__ace_counter__descriptor && to_lose > 0)
        return --to_lose, ++lost, TQ_MOM_OK;
    if (record->descriptor == &s_policy__ace_psta__descriptor && last_failure.count() != 0)
        shortest_pause = std::min(shortest_pause, plx::now() - last_failure);
    if (record->descriptor == &s_policy__ace_psta__descriptor && failures > 0) {
        last_failure = plx::now();
        return --failures, TQ_MOM_TIMEOUT;
    }
    if (record->descriptor == &s_policy__ace_psta__descriptor)
        last_failure = plx::milliseconds(0);
    return next(handle, db, record);
}

extern "C" int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *selection, uint32_t given,
                                tq_mom_callback on_record, void *arg)
{
    static const auto next = real<decltype(&tq_mom_scan_sync)>("tq_mom_scan_sync");
    return unreadable > 0 ? --unreadable, TQ_MOM_TIMEOUT : next(handle, db, selection, given, on_record, arg);
}

extern "C" tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    static const auto next = real<decltype(&tq_mom_hgetall_sync)>("tq_mom_hgetall_sync");
    if (record->descriptor == &s_policy__app_commit__descriptor && unread > 0)
        return --unread, nullptr;
    return next(handle, db, record);
}

// What was lost stood first.
extern "C" int tq_mom_batch_end(void *handle, int *results, uint32_t count)
{
    static const auto next = real<decltype(&tq_mom_batch_end)>("tq_mom_batch_end");
    const int result = next(handle, results, count);
    if (count > 0 && refused > 0) {
        --refused;
        last_failure = plx::now();
        std::fill_n(results, count, int{TQ_MOM_TIMEOUT});
    }
    std::fill_n(results, std::exchange(lost, 0), int{TQ_MOM_DISCONNECTED});
    return result;
}

namespace plx::plane {
namespace {

using Words = std::vector<std::string>;

constexpr uint32_t db = 8;
constexpr uint32_t barrier_port = 4'000'000'000; // whose setting is written to see that everything before it is done

std::vector<uint8_t> bytes_of(const std::string &digits)
{
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at + 1 < digits.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    return bytes;
}

// "ace:edge/10/1"
Key key(const std::string &text)
{
    Words parts(1);
    for (const char c : text)
        if (c == ':' || c == '/')
            parts.emplace_back();
        else
            parts.back().push_back(c);
    const auto number = [&](size_t part) { return static_cast<uint32_t>(std::stoul(parts.at(part))); };
    if (parts[0] == "ace")
        return AceKey{parts[1], number(2), std::stoull(parts.at(3))};
    if (parts[0] == "apply")
        return ApplyKey{parts[1], number(2), parts[1], number(3), 1, 0};
    if (parts[0] == "bind")
        return PortBindKey{parts[1], 1, 2, number(2), 3};
    if (parts[0] == "off")
        return PortOffKey{number(1)};
    return parts[0] == "uplink" ? Key(UplinkKey{number(1), 1}) : Key(SviRouterKey{});
}

std::string text_of(const Key &key)
{
    std::ostringstream text;
    if (const auto *ace = std::get_if<AceKey>(&key))
        text << "ace:" << ace->app << '/' << ace->acl << '/' << ace->sn;
    else if (const auto *apply = std::get_if<ApplyKey>(&key))
        text << "apply:" << apply->app << '/' << apply->acl << '/' << apply->phyid;
    else if (const auto *bind = std::get_if<PortBindKey>(&key))
        text << "bind:" << application_of(key) << '/' << bind->bind_type;
    else if (const auto *off = std::get_if<PortOffKey>(&key))
        text << "off:" << off->phyid;
    else
        text << (std::holds_alternative<UplinkKey>(key) ? "uplink" : "svi");
    return text.str();
}

struct Heard {
    Key key;
    int64_t status;   // or packets
    uint64_t request; // or bytes
};

// A plane, the node on it, and what was seen of them.
struct Place {
    std::unique_ptr<SimulatedPlane> plane;
    std::unique_ptr<Node> node;
    uint32_t id = 0;
    uint64_t touched = 0, batches = 0;
};

class NodeSession : public Transcript {
    using Verb = std::string (NodeSession::*)(const Words &);

    std::string perform(const std::string &line) override;
    Context context() { return Context(tq_context_new_on(url_.c_str(), loop_.get())); }

    std::string store(const Words &words);
    std::string intervals(const Words &words);
    std::string start(const Words &words);
    std::string set(const Words &words);
    std::string drip(const Words &words);
    std::string mark(const Words &words);
    std::string settle(const Words &words);
    std::string until(const Words &words);
    std::string plane(const Words &words);
    std::string stored(const Words &words);
    std::string reported(const Words &words);
    std::string make(const Words &words);
    std::string time(const Words &words);
    std::string fill(const Words &words);
    std::string called(const Words &words);
    std::string ask(const Words &words);
    std::string option(const Words &words);
    std::string matches(const Words &words);

    void subscribe();
    void write(const Key &key, uint64_t request, std::vector<uint8_t> value = {});
    bool run_until(const std::function<bool()> &condition);
    std::string take_heard();
    std::string show(Place &place);

    static int32_t on_status(void *handle, const tq_mom_notification *notification, void *arg);
    static int32_t on_publication(void *handle, const tq_mom_notification *notification, void *arg);
    static int32_t on_asked(void *handle, const tq_mom_notification *notification, void *arg);
    static int32_t on_stored(void *handle, const tq_mom_notification *notification, void *arg);

    std::string url_ = "mem:node-test";
    NodeOptions options_{.db = db,
                         .heartbeat = milliseconds(1),
                         .counters = milliseconds(1),
                         .retry = milliseconds(1),
                         .leftovers = milliseconds(0)};
    Loop loop_{tq_loop_new()};
    Context application_;
    std::vector<Heard> heard_, counters_;
    size_t barriers_ = 0;
    int heartbeats_ = 0;
    uint32_t round_ = 0;
    milliseconds marked_{0};
    std::map<std::string, Place> places_;
};

SimulatedOptions simulated(const Words &texts)
{
    SimulatedOptions made;
    for (size_t at = 2; at < texts.size(); ++at)
        if (texts[at] == "still")
            made.packets_per_reading = 0;
        else
            EXPECT_TRUE(made.add(texts[at])) << texts[at];
    return made;
}

std::string NodeSession::perform(const std::string &line)
{
    static const std::map<std::string, Verb> verbs = {
        {"store", &NodeSession::store},       {"speed", &NodeSession::store},   {"intervals", &NodeSession::intervals},
        {"start", &NodeSession::start},       {"stop", &NodeSession::start},    {"restart", &NodeSession::start},
        {"fresh", &NodeSession::start},       {"set", &NodeSession::set},       {"del", &NodeSession::set},
        {"marker", &NodeSession::mark},       {"unmark", &NodeSession::mark},   {"settle", &NodeSession::settle},
        {"until", &NodeSession::until},       {"counted", &NodeSession::until}, {"beats", &NodeSession::until},
        {"programmed", &NodeSession::until},  {"plane", &NodeSession::plane},   {"stored", &NodeSession::stored},
        {"reported", &NodeSession::reported}, {"make", &NodeSession::make},     {"option", &NodeSession::option},
        {"matches", &NodeSession::matches},   {"cost", &NodeSession::time},     {"silence", &NodeSession::time},
        {"fail", &NodeSession::time},         {"paused", &NodeSession::time},   {"fill", &NodeSession::fill},
        {"drip", &NodeSession::drip},         {"lose", &NodeSession::time},     {"called", &NodeSession::called},
        {"unreadable", &NodeSession::time},   {"ask", &NodeSession::ask},       {"answers", &NodeSession::until},
        {"unsent", &NodeSession::time},       {"unread", &NodeSession::time},   {"refuse", &NodeSession::time}};
    std::istringstream stream(line);
    Words words{std::istream_iterator<std::string>(stream), {}};
    const auto verb = verbs.find(words.at(0));
    words.resize(std::max<size_t>(words.size(), 2));
    if (application_ == nullptr && verb->first != "store" && verb->first != "speed")
        subscribe();
    return (this->*verb->second)(words);
}

std::string NodeSession::store(const Words &words)
{
    if (words[0] == "speed")
        setenv("PLX_SPEED", words[1].c_str(), 1);
    else
        url_ += words[1];
    return {};
}

// In milliseconds: heartbeat, counters, retry
std::string NodeSession::intervals(const Words &words)
{
    options_.heartbeat = milliseconds(std::stoi(words.at(1)));
    options_.counters = milliseconds(std::stoi(words.at(2)));
    options_.retry = milliseconds(std::stoi(words.at(3)));
    return {};
}

std::string NodeSession::start(const Words &words)
{
    const auto id = static_cast<uint32_t>(places_.size());
    Place &place = places_[words[1]];
    place.node.reset();
    if (words[0] == "stop")
        return {};
    if (words[0] != "restart")
        place = {std::make_unique<SimulatedPlane>(simulated(words)), nullptr, id};
    options_.id = place.id;
    place.node = std::make_unique<Node>(context(), *place.plane, options_);
    return place.node->start() == 0 ? "" : "it does not start";
}

std::string NodeSession::plane(const Words &words)
{
    const auto found = places_.find(words[1]);
    if (found != places_.end())
        return show(found->second);
    places_[words[1]].plane = std::make_unique<SimulatedPlane>(simulated(words));
    return {};
}

std::string NodeSession::show(Place &place)
{
    std::ostringstream text;
    const SimulatedPlane &plane = *place.plane;
    text << "touched " << plane.touched() - std::exchange(place.touched, plane.touched()) << " in "
         << plane.batches() - std::exchange(place.batches, plane.batches()) << " batches, entries " << plane.entries();
    for (const auto &[key, installed] : plane.installed())
        text << (std::holds_alternative<UplinkKey>(key) ? "" : ' ' + text_of(key));
    return text.str();
}

std::string NodeSession::make(const Words &words)
{
    SimulatedPlane &plane = *places_.at(words[1]).plane;
    Change change{key(words.at(2)), std::nullopt};
    if (words.size() < 4 || words[3] != "gone")
        change.wanted = Requested{.request = 1, .value = bytes_of(words.size() > 3 ? words[3] : ""), .name = {}};
    const uint64_t before = plane.installed()[change.key].fingerprint;
    const Answer answer = plane.program(std::span(&change, 1)).at(0);
    std::ostringstream text;
    text << status_text(static_cast<int32_t>(answer.status)) << (answer.silent ? " silent" : "");
    if (answer.delay.count() != 0)
        text << " after " << answer.delay.count();
    if (plane.installed()[change.key].fingerprint != before)
        text << ", changed";
    return text.str();
}

std::string NodeSession::time(const Words &words)
{
    const int ms = std::stoi(words[1]);
    if (words[0] == "fail" || words[0] == "refuse") {
        (words[0] == "fail" ? failures : refused) = ms;
        shortest_pause = std::chrono::hours(1);
        return {};
    }
    if (words[0] == "lose")
        return to_lose = static_cast<size_t>(ms), "";
    if (words[0] == "unsent")
        return unsent = ms, "";
    if (words[0] == "unreadable")
        return unreadable = ms, "";
    if (words[0] == "unread")
        return unread = ms, "";
    if (words[0] == "paused")
        return failures + refused == 0 && shortest_pause >= milliseconds(ms) ? "yes" : "no";
    if (words[0] == "silence")
        return std::exchange(longest_silence, milliseconds(0)) > milliseconds(ms) ? "yes" : "no";
    record_cost_us = ms * 1000;
    last_sign = now();
    return {};
}

std::string NodeSession::fill(const Words &words)
{
    for (uint64_t sn = 1; sn <= std::stoul(words[1]); ++sn)
        write(AceKey{words.at(2), 10, sn}, sn);
    return {};
}

std::string NodeSession::option(const Words &words)
{
    SimulatedOptions made;
    return made.add(words[1]) ? "understood" : made.rules.empty() ? "refused" : "refused, but a rule";
}

std::string NodeSession::matches(const Words &words)
{
    const auto pattern = parse_pattern(words[1]);
    std::string text;
    for (const char *const one : {"ace:edge/10/5", "apply:edge/10/1", "uplink:1"})
        text += pattern && pattern->matches(key(one)) ? std::string(one) + ' ' : "";
    return text + '.';
}

// ---- the application ------------------------------------------------------------------------------------------------

void NodeSession::subscribe()
{
    application_ = context();
    const auto hear = [&](const ProtobufCMessageDescriptor &table, tq_mom_callback on_change) {
        EXPECT_EQ(0, tq_mom_subscribe(application_.get(), db, Record(table).message(), 0, on_change, this));
    };
    for (const Table &table : tables())
        hear(*table.status, on_status);
    hear(s_policy__service_node__descriptor, on_publication);
    hear(s_policy__ace_counter__descriptor, on_publication);
}

std::string NodeSession::set(const Words &words)
{
    const Key wanted = key(words[1]);
    if (words[0] == "set")
        write(wanted, std::stoull(words.at(2)), bytes_of(words.size() > 3 ? words[3] : ""));
    else
        EXPECT_EQ(
            0, tq_mom_del_sync(application_.get(), db, Record(*tables()[wanted.index()].requested, wanted).message()));
    return {};
}

void NodeSession::write(const Key &key, uint64_t request, std::vector<uint8_t> value)
{
    Record record(*tables()[key.index()].requested, key);
    record.set_number("req_uuid", request);
    const ProtobufCBinaryData bytes{value.size(), value.data()};
    const ProtobufCMessage *message = record.message();
    if (const auto *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, "value"))
        std::memcpy(reinterpret_cast<char *>(const_cast<ProtobufCMessage *>(message)) + field->offset, &bytes,
                    sizeof bytes);
    EXPECT_EQ(0, tq_mom_set_sync(application_.get(), db, message));
}

// A turn of the loop tells what was written, and a node that waits for no more has it programmed in the next.
std::string NodeSession::drip(const Words &words)
{
    constexpr int turns = 4;
    const SimulatedPlane &plane = *places_.at(words[1]).plane;
    const uint64_t before = plane.batches();
    const int count = std::stoi(words.at(3));
    for (int sn = 1; sn <= count; ++sn) {
        write(key(words[2] + std::to_string(sn)), 1);
        for (int turn = 0; turn < turns; ++turn)
            tq_loop_run_once(loop_.get(), 0);
    }
    run_until([&] { return plane.entries() == static_cast<size_t>(count); });
    return plane.batches() - before < static_cast<uint64_t>(count) / 2 ? "gathered" : "one by one";
}

std::string NodeSession::called(const Words &words)
{
    const int before = heartbeats_, count = std::stoi(words[1]);
    const Record call_record(plx_node__node_call__descriptor);
    for (int call = 0; call < count || (heartbeats_ < before + 2 && call < 100 * count); ++call) {
        EXPECT_EQ(0, tq_mom_set_sync(application_.get(), db, call_record.message()));
        tq_loop_run_once(loop_.get(), 0);
        tq_loop_run_once(loop_.get(), 0);
    }
    return heartbeats_ < before + 2 ? "none came" : heartbeats_ - before < count / 2 ? "yes" : "no";
}

std::string NodeSession::ask(const Words &words)
{
    PlxNode__NodeQuery question = PLX_NODE__NODE_QUERY__INIT;
    std::string node = words.size() > 2 ? words[2] : "";
    question.node = node.data();
    for (question.nonce = std::stoul(words[1]); question.nonce > 0; --question.nonce)
        EXPECT_EQ(0, tq_mom_set_sync(application_.get(), db, &question.base));
    for (int turn = 0; turn < 100; ++turn)
        tq_loop_run_once(loop_.get(), 0);
    return {};
}

std::string NodeSession::mark(const Words &words)
{
    const std::string app = words[1] == "nobody" ? "" : words[1];
    Record record(s_policy__app_commit__descriptor);
    record.set_key_text(0, app.c_str());
    const std::string &kind = words.at(2);
    record.set_key_number(1, kind == "enable" ? 0 : kind == "publish" ? 1 : std::stoul(kind));
    record.set_number("tm_val", words.size() > 3 ? std::stoul(words[3]) : 0);
    const bool gone = words[0] == "unmark";
    EXPECT_EQ(0, (gone ? tq_mom_del_sync : tq_mom_set_sync)(application_.get(), db, record.message()));
    marked_ = now();
    return {};
}

bool NodeSession::run_until(const std::function<bool()> &condition)
{
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20); // only a fault takes that long
    while (!condition() && std::chrono::steady_clock::now() < give_up)
        tq_loop_run_once(loop_.get(), 10);
    return condition();
}

// Two rounds: changes of other tables may be delivered after a first one.
std::string NodeSession::settle(const Words &words)
{
    const size_t nodes = words[1].empty() ? 1 : std::stoul(words[1]);
    ++round_;
    for (size_t round = 1; round <= 2; ++round) {
        barriers_ = 0;
        write(UplinkKey{.phyid = barrier_port, .type = round_}, round);
        if (!run_until([&] { return barriers_ >= nodes; }))
            return "a node does not answer";
    }
    return take_heard();
}

std::string NodeSession::take_heard()
{
    std::multiset<std::string> lines;
    for (const Heard &heard : std::exchange(heard_, {}))
        lines.insert(text_of(heard.key) + ' ' + std::to_string(heard.request) + ' ' +
                     std::string(status_text(static_cast<int32_t>(heard.status))) + '\n');
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

// With a second number: unless it came before so many seconds had passed since the last marker.
std::string NodeSession::until(const Words &words)
{
    const std::string &verb = words[0];
    const size_t wanted = std::stoul(words[1]);
    const auto reached = [&] {
        return verb == "until"     ? heard_.size() >= wanted
               : verb == "counted" ? counters_.size() >= wanted
               : verb == "beats"   ? static_cast<size_t>(heartbeats_) >= wanted
               : verb == "answers" ? stored({"", verb}).size() == wanted * std::strlen("a node\n")
                                   : places_.begin()->second.plane->entries() == wanted;
    };
    const bool in_time = run_until(reached);
    const bool quietly = words.size() > 2 && words[2] == "quietly";
    const bool sooner = words.size() > 2 && !quietly && now() - marked_ < std::chrono::seconds(std::stoi(words[2]));
    std::string text = in_time ? sooner ? "too soon\n" : "" : "not in time\n";
    if (verb == "until")
        return quietly ? (heard_.clear(), text) : text + take_heard();
    if (verb == "counted" && !quietly)
        for (size_t at = 0; at < std::min(wanted, counters_.size()); ++at)
            text += text_of(counters_[at].key) + ' ' + std::to_string(counters_[at].status) + " packets " +
                    std::to_string(counters_[at].request) + " bytes\n";
    if (verb == "beats")
        text += std::to_string(counters_.size()) + " counters";
    return text;
}

std::string NodeSession::stored(const Words &words)
{
    const auto &table = words[1] == "status"     ? s_policy__ace_psta__descriptor
                        : words[1] == "counters" ? s_policy__ace_counter__descriptor
                        : words[1] == "answers"  ? plx_node__node_answer__descriptor
                                                 : s_policy__service_node__descriptor;
    std::string keys;
    EXPECT_EQ(0, tq_mom_scan_sync(application_.get(), db, Record(table).message(), 0, on_stored, &keys));
    return keys;
}

// With each application, whether its digest is that of what the store asks for.
std::string NodeSession::reported(const Words &words)
{
    std::map<NodeName, NodeReport> reports;
    const NodeReport *report = nullptr;
    const bool in_time = run_until([&] {
        EXPECT_EQ(0, read_reports(application_.get(), db, reports));
        report = &reports[{0, 0, places_.at(words[1]).id}];
        return report->programmed == std::stoul(words.at(2)) && report->refused == std::stoul(words.at(3)) &&
               report->last_request == std::stoul(words.at(4)) && report->backlog == 0 &&
               report->time_ms != report->started_ms;
    });
    std::ostringstream text;
    text << (in_time ? "" : "not in time: ") << report->plane << " entries " << report->entries << " of "
         << report->room << " programmed " << report->programmed << " refused " << report->refused;
    std::map<std::string, Digest> asked;
    for (const Table &table : tables())
        EXPECT_EQ(0, tq_mom_scan_sync(application_.get(), db, Record(*table.requested).message(), 0, on_asked, &asked));
    for (const auto &[app, one] : report->applications)
        text << "\n'" << app << "' programmed " << one.programmed.count << " refused " << one.refused
             << (one.programmed == asked[app] ? " as stored" : " unlike the store");
    for (const NodeEntry &refused : report->refusals)
        text << '\n'
             << refused.app << ' ' << refused.name << ' ' << refused.request << ' ' << status_text(refused.status);
    return text.str();
}

int32_t NodeSession::on_asked(void *, const tq_mom_notification *notification, void *arg)
{
    const Key key = key_of(notification->record).value();
    (*static_cast<std::map<std::string, Digest> *>(arg))[application_of(key)].add(
        digest_of(key), requested_of(notification->record).fingerprint());
    return 0;
}

int32_t NodeSession::on_stored(void *, const tq_mom_notification *notification, void *arg)
{
    const auto key = key_of(notification->record);
    *static_cast<std::string *>(arg) += (key ? text_of(*key) : "a node") + '\n';
    return 0;
}

int32_t NodeSession::on_status(void *, const tq_mom_notification *notification, void *arg)
{
    auto *self = static_cast<NodeSession *>(arg);
    const auto key = notification->event == TQ_MOM_EVENT_STATUS ? key_of(notification->record) : std::nullopt;
    const auto *uplink = key ? std::get_if<UplinkKey>(&*key) : nullptr;
    if (uplink != nullptr && uplink->phyid == barrier_port)
        self->barriers_ += uplink->type == self->round_;
    else if (key)
        self->heard_.push_back({*key, static_cast<int32_t>(number_field(notification->record, "p_status")),
                                number_field(notification->record, "rep_uuid")});
    return 0;
}

int32_t NodeSession::on_publication(void *, const tq_mom_notification *notification, void *arg)
{
    auto *self = static_cast<NodeSession *>(arg);
    if (notification->event != TQ_MOM_EVENT_PUBLISHED)
        return 0;
    if (const auto key = key_of(notification->record))
        self->counters_.push_back({*key, static_cast<int64_t>(number_field(notification->record, "counter_pkt")),
                                   number_field(notification->record, "counter_byte")});
    else
        ++self->heartbeats_;
    return 0;
}

const bool registered = register_transcripts(PLX_TRANSCRIPTS, [] { return new NodeSession; });

} // namespace
} // namespace plx::plane
