// The library beside the plain model: random operations, with callbacks that call back into the library, and after each
// the same results, events, cache, pending list, service nodes and store, in the same order.
//
// A run is a script, one operation a line, run in a process of its own:
//     ace my_app 1 5 40 ! hmset      sets an entry with private bytes from 40; that store operation fails
//     then del_ace my_app 1 5        runs inside the next callback
// A script that fails is shortened while it still fails, and printed. PLX_TEST_SCRIPT=file runs it again; those that
// showed a fault stay in tests/library/model/. PLX_TEST_SEED and PLX_TEST_STEPS choose another random run.
#include "model.h"
#include "operations.h"
#include "script.h"

#include <array>
#include <filesystem>
#include <random>

namespace {

using plain::acl_key;
using plain::target;

#ifdef __SANITIZE_THREAD__
constexpr size_t usual_steps = 2'000; // one thread has little for it to find, at a high price
#elif defined(__SANITIZE_ADDRESS__)
constexpr size_t usual_steps = 5'000;
#else
constexpr size_t usual_steps = 20'000;
#endif

// Random words of a script.
struct dice {
    std::mt19937_64 random;
    uint32_t width = 1; // how many times more things than usual there are

    uint32_t up_to(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    std::string word(uint32_t n) { return " " + std::to_string(up_to(n)); }
    std::string type() { return up_to(2) ? " security_app" : " my_app"; }
    std::string acl() { return type() + word(3 * width); }
    std::string ace() { return acl() + word(6 * width); }
    std::string apply() { return acl() + type() + word(3) + word(2); }
    std::string status() { return up_to(4) ? " 0" : " 5"; }
    std::string which() { return up_to(5) ? " newest" : " older"; } // write that is answered
    std::string table() { return up_to(2) ? " acl" : " ace"; }
    // Whole seconds, so that ages come to stand on either side of their limits; or a step back.
    std::string time()
    {
        return up_to(30) ? word(up_to(4) ? 21 : 120) + "000000" : " -" + std::to_string(up_to(2'000'000));
    }
    std::string bracket() { return (up_to(3) ? table() : " apply") + type(); }
};

// Braces take the words from left to right.
acl_key acl_of(reader &r)
{
    return {r.word(), r.small()};
}
target ace_of(reader &r)
{
    return {acl_of(r), static_cast<uint64_t>(r.number()), "", 0, 0};
}
target apply_of(reader &r)
{
    return {acl_of(r), 0, r.word(), r.small(), r.small()};
}

// The library, behind the model's face.
class library : public operations_case {
  public:
    void TestBody() override {}

    int32_t set_acl(const acl_key &key, uint8_t priv) { return library_case::set_acl(key.type, key.id, 0, priv); }
    int32_t set_ace(const target &t, uint8_t priv) { return library_case::set_ace(t.acl.type, t.acl.id, t.sn, priv); }
    int32_t set_apply(const target &t, uint8_t priv)
    {
        return library_case::set_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri, priv);
    }
    int32_t del_acl(const acl_key &key) { return operations_case::del_acl(key.type, key.id); }
    int32_t del(const target &t)
    {
        return t.is_apply() ? del_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri)
                            : del_ace(t.acl.type, t.acl.id, t.sn);
    }
    int32_t expire(const std::string &table, const std::string &type)
    {
        const auto operation = table == "acl" ? mgr->expire_acl : table == "ace" ? mgr->expire_ace : mgr->expire_apply;
        return operation(&context, type.c_str());
    }
    int32_t del_expire(const std::string &table, const std::string &type)
    {
        const auto operation = table == "acl"   ? mgr->del_expire_acl
                               : table == "ace" ? mgr->del_expire_ace
                                                : mgr->del_expire_apply;
        return operation(&context, type.c_str());
    }
    int32_t change(const std::string &table, const target &t, bool deleted);
    int32_t resync(const std::string &table) { return fake::store.deliver(table, TQ_MOM_EVENT_RESYNC, nullptr); }
    int32_t answer(const target &t, int status, const std::string &)
    {
        const uint64_t uuid = model.uuids.empty() ? 0 : model.uuids.front();
        model.uuids.erase(model.uuids.begin(), model.uuids.begin() + !model.uuids.empty());
        return t.is_apply() ? answer_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri, status, uuid)
                            : answer_ace(t.acl.type, t.acl.id, t.sn, status, uuid);
    }
    int32_t alive(const plain::node_key &node)
    {
        return std::apply([&](auto... key) { return heartbeat(key...); }, node);
    }
    int32_t tick(int64_t) // the model moved the clock
    {
        fp_udp_fp_service_node_expire();
        return pass(false);
    }
    int32_t pass(bool forced)
    {
        fp_udp_req_check_proc(forced);
        return 0;
    }
    int32_t skip_priority()
    {
        fp_udp_set_cmp_apply_skip_prio();
        return 0;
    }

  protected:
    plain::model model;
};

int32_t library::change(const std::string &table, const target &t, bool deleted)
{
    lines key = {t.acl.type, std::to_string(t.acl.id), std::to_string(t.sn)};
    key.resize(table == "acl" ? 2 : 3);
    const fake::record record(table, key);
    if (deleted)
        fake::store.records.erase("8 " + fake::address(*record));
    else
        fake::store.put(8, *record);
    return fake::store.deliver(table, deleted ? TQ_MOM_EVENT_DELETED : TQ_MOM_EVENT_SET, record);
}

// An operation: how often, which words, and what it does, to the model as to the library.
struct verb {
    template <class Run>
    verb(const char *called, uint32_t often, std::string (*of)(dice &), Run run)
        : name(called), weight(often), words(of), on_model(run), on_library(run)
    {
    }
    const char *name;
    uint32_t weight;
    std::string (*words)(dice &);
    int32_t (*on_model)(plain::model &, reader &);
    int32_t (*on_library)(library &, reader &);
};

const auto answer_as = [](auto &side, const target &t, reader &r) {
    const int status = static_cast<int>(r.number());
    return side.answer(t, status, r.word());
};
const auto change_as = [](auto &side, reader &r, bool deleted) {
    const std::string table = r.word();
    target t = ace_of(r);
    t.acl.type = plain::security; // nobody else's are followed
    return side.change(table, t, deleted);
};

const verb verbs[] = {
    {"acl", 20, [](dice &d) { return d.acl() + d.word(200); },
     [](auto &side, reader &r) {
         const acl_key key = acl_of(r);
         return side.set_acl(key, static_cast<uint8_t>(r.number()));
     }},
    {"ace", 30, [](dice &d) { return d.ace() + d.word(200); },
     [](auto &side, reader &r) {
         const target t = ace_of(r);
         return side.set_ace(t, static_cast<uint8_t>(r.number()));
     }},
    {"apply", 20, [](dice &d) { return d.apply() + d.word(200); },
     [](auto &side, reader &r) {
         const target t = apply_of(r);
         return side.set_apply(t, static_cast<uint8_t>(r.number()));
     }},
    {"del_acl", 2, [](dice &d) { return d.acl(); }, [](auto &side, reader &r) { return side.del_acl(acl_of(r)); }},
    {"del_ace", 4, [](dice &d) { return d.ace(); }, [](auto &side, reader &r) { return side.del(ace_of(r)); }},
    {"del_apply", 4, [](dice &d) { return d.apply(); }, [](auto &side, reader &r) { return side.del(apply_of(r)); }},
    {"answer_ace", 40, [](dice &d) { return d.ace() + d.status() + d.which(); },
     [](auto &side, reader &r) { return answer_as(side, ace_of(r), r); }},
    {"answer_apply", 40, [](dice &d) { return d.apply() + d.status() + d.which(); },
     [](auto &side, reader &r) { return answer_as(side, apply_of(r), r); }},
    {"alive", 8, [](dice &d) { return d.word(2) + d.word(2) + d.word(2); },
     [](auto &side, reader &r) {
         return side.alive(plain::node_key{r.small(), r.small(), r.small()});
     }},
    {"tick", 10, [](dice &d) { return d.time(); }, [](auto &side, reader &r) { return side.tick(r.number()); }},
    {"pass", 2, [](dice &d) { return d.word(2); }, [](auto &side, reader &r) { return side.pass(r.number() != 0); }},
    {"expire", 3, [](dice &d) { return d.bracket(); },
     [](auto &side, reader &r) {
         const std::string table = r.word();
         return side.expire(table, r.word());
     }},
    {"del_expire", 3, [](dice &d) { return d.bracket(); },
     [](auto &side, reader &r) {
         const std::string table = r.word();
         return side.del_expire(table, r.word());
     }},
    {"changed", 4, [](dice &d) { return d.table() + d.ace(); },
     [](auto &side, reader &r) { return change_as(side, r, false); }},
    {"gone", 3, [](dice &d) { return d.table() + d.ace(); },
     [](auto &side, reader &r) { return change_as(side, r, true); }},
    {"resync", 1, [](dice &d) { return d.table(); }, [](auto &side, reader &r) { return side.resync(r.word()); }},
    {"skip_priority", 0, [](dice &) { return std::string(); },
     [](auto &side, reader &) { return side.skip_priority(); }},
};

// What must be the same whenever all is taken away: blocks, open files, timers, requests, service nodes and entries.
using remains = std::array<size_t, 6>;

// Both of them side by side.
class life : public library {
  public:
    life()
    {
        start();
        g_policy_plx_zlog_level = 1;
        app.result = plain::heard_result;
        app.on_event = [this](const std::string &) { run_armed(library_armed, false); };
        model.on_event = [this] { run_armed(model_armed, true); };
    }

    // Runs a script; the first difference, looked for behind every so many lines, or "".
    std::string run(const script &lines, size_t every = 1)
    {
        for (size_t i = 0; i < lines.size(); i++) {
            fake::clock.now_us++;
            step(lines[i]);
            const std::string difference = i % every == 0 || i + 1 == lines.size() ? compare() : "";
            if (!difference.empty())
                return fake::format("line %zu, \"%s\": ", i + 1, lines[i].c_str()) + difference;
        }
        return "";
    }
    remains go_quiet();

  private:
    void step(const std::string &line);
    void run_one(const std::string &line, bool on_model);
    void run_armed(std::deque<std::string> &armed, bool on_model)
    {
        if (armed.empty())
            return;
        const std::string line = armed.front();
        armed.pop_front();
        run_one(line, on_model);
    }
    std::string compare();
    std::string compare_entries();
    std::string compare_records();
    std::string compare_requests();

    std::deque<std::string> model_armed, library_armed;
    std::vector<int32_t> model_results, library_results;
};

void life::step(const std::string &line)
{
    if (line.compare(0, 5, "then ") == 0) {
        model_armed.push_back(line.substr(5));
        library_armed.push_back(line.substr(5));
        return;
    }
    run_one(line, true);
    run_one(line, false);
}

void life::run_one(const std::string &line, bool on_model)
{
    const size_t mark = line.find(" ! ");
    std::string &failing = on_model ? model.failing : fake::store.failing;
    const std::string outer = std::exchange(failing, mark == std::string::npos ? "" : line.substr(mark + 3));
    reader words{std::istringstream(line.substr(0, mark))};
    const std::string name = words.word();
    const auto v = std::find_if(std::begin(verbs), std::end(verbs), [&](const verb &one) { return name == one.name; });
    if (v == std::end(verbs))
        ADD_FAILURE() << "no operation is called \"" << name << "\"";
    else if (on_model)
        model_results.push_back(v->on_model(model, words));
    else
        library_results.push_back(v->on_library(*this, words));
    failing = outer;
}

template <class Seen> std::string differ(const std::string &what, const Seen &is, const Seen &should)
{
    return is == should ? "" : what + " " + testing::PrintToString(is) + ", not " + testing::PrintToString(should);
}

std::string life::compare_entries()
{
    for (const auto &[key, none] : model.acls)
        if (!cached_acl(key.type, key.id))
            return key.name() + " is not cached";
    // UUID, status, count, whether it is answered, whether it waits, priority of the value.
    using state = std::tuple<uint64_t, int, int, int, bool, uint32_t>;
    const auto state_of = [](const auto &info, const void *request, uint32_t pri) {
        return state(info.uuid, info.stat, info.req_count, info.is_req, request != nullptr, pri);
    };
    for (const auto &[t, e] : model.entries) {
        const auto *ace = t.is_apply() ? nullptr : cached_ace(t.acl.type, t.acl.id, t.sn);
        const auto *apply = t.is_apply() ? cached_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri) : nullptr;
        if (!ace && !apply)
            return t.name() + " is not cached";
        const state is =
            ace ? state_of(ace->ace, ace->req, 0) : state_of(apply->apply, apply->req, apply->apply.value_pri);
        const std::string difference =
            differ(t.name() + " has", is, state(e.uuid, e.stat, e.count, e.is_req, e.request != 0, e.value_pri));
        if (!difference.empty())
            return difference;
    }
    return "";
}

std::string life::compare_requests()
{
    const fp_udp_list *at = g_req_para.pending.next;
    for (const auto &[number, request] : model.requests) {
        if (at == &g_req_para.pending)
            return request.of.name() + " does not wait";
        const auto *waits = reinterpret_cast<const fp_udp_req_node *>(at);
        const target &t = request.of;
        const void *node =
            t.is_apply() ? static_cast<const void *>(cached_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri))
                         : cached_ace(t.acl.type, t.acl.id, t.sn);
        if (waits->node != node || tq_timeval_to_us(&waits->time) != request.since)
            return t.name() + " does not wait in its place, or since then";
        at = at->next;
    }
    return at == &g_req_para.pending ? "" : "more wait than should";
}

// The store's addresses are the model's: those of database 5, then those of database 8.
std::string life::compare_records()
{
    auto own = model.records.begin();
    auto foreign = model.foreign.begin();
    for (const auto &[address, packed] : fake::store.records) {
        const bool in_own = own != model.records.end();
        if (!in_own && foreign == model.foreign.end())
            return address + " is stored";
        const std::string &should = in_own ? *own++ : (foreign++)->first;
        if (address != should)
            return address + " is stored, not " + should;
    }
    return own == model.records.end() && foreign == model.foreign.end() ? "" : "a record is missing";
}

std::string life::compare()
{
    const std::tuple sizes(fp_udp_acl_node_hash_size(), fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size(),
                           static_cast<size_t>(g_fp_service.count), fake::store.unreleased.size());
    const std::tuple model_sizes(static_cast<uint32_t>(model.acls.size()), static_cast<uint32_t>(model.entries.size()),
                                 model.nodes.size(), size_t{0});
    std::string difference = broken();
    for (const std::string &text :
         {differ("heard", app.events, model.events), differ("results", library_results, model_results),
          compare_entries(), compare_requests(), differ("sizes", sizes, model_sizes), compare_records()})
        difference = difference.empty() ? text : difference;
    app.take();
    model.events.clear();
    model_results.clear();
    library_results.clear();
    model.uuids.clear();
    fake::store.take();
    fake::log.kept.clear();
    return difference;
}

remains life::go_quiet()
{
    model_armed.clear();
    library_armed.clear();
    for (const auto &[key, none] : std::exchange(model.acls, {}))
        del_acl(key);
    model.entries.clear();
    model.requests.clear();
    model.nodes.clear();
    model.records.clear();
    model.foreign.clear();
    model.marks.clear();
    fake::clock.advance_seconds(300);
    fake::clock.inserted = {};
    fake::store.records.clear();
    fake::store.stale.clear();
    fake::store.marks.clear();
    forget_calls();
    return {static_cast<size_t>(fake::live_blocks()),
            fake::open_files(),
            fake::clock.timers.size(),
            pending(),
            list_length(g_fp_service.nodes),
            fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size()};
}

script random_script(uint64_t seed, size_t steps, uint32_t width = 1)
{
    dice d{std::mt19937_64(seed), width};
    uint32_t weights = 0;
    for (const verb &v : verbs)
        weights += v.weight;
    const char *fails[] = {"hmset", "hmset", "hmset", "del", "get", "scan", "dsbegin", "dsend", "all"};
    script lines;
    if (seed % 2)
        lines.push_back("skip_priority");
    while (lines.size() < steps) {
        uint32_t at = d.up_to(weights);
        const verb *v = verbs;
        while (at >= v->weight)
            at -= (v++)->weight;
        std::string line = v->name + v->words(d);
        if (d.up_to(8) == 0)
            line += std::string(" ! ") + fails[d.up_to(std::size(fails))];
        if (d.up_to(8) == 0 && v->name != std::string("tick"))
            line = "then " + line;
        lines.push_back(line);
    }
    return lines;
}

std::string outcome(const script &lines, bool quiet)
{
    return in_child(
        [&] {
            life l;
            return l.run(lines);
        },
        quiet);
}

// Leaves out what can be left out, in ever smaller pieces, while the script still fails.
script shortened(script lines)
{
    const time_t enough = time(nullptr) + 20;
    for (size_t piece = lines.size() / 2; piece > 0; piece /= 2)
        for (size_t at = 0; at < lines.size() && time(nullptr) < enough;) {
            script fewer = lines;
            const auto from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(piece, lines.size() - at)));
            if (outcome(fewer, true).empty())
                at += piece;
            else
                lines = fewer;
        }
    return lines;
}

void expect_passes(const script &lines, const std::string &name)
{
    const std::string difference = outcome(lines, false);
    if (difference.empty())
        return;
    std::string text;
    for (const std::string &line : shortened(lines))
        text += line + "\n";
    ADD_FAILURE() << name << ": " << difference << "\nPLX_TEST_SCRIPT=file repeats this script:\n" << text;
}

script read_script(const std::string &path)
{
    script lines = read_lines(path);
    std::erase_if(lines, [](const std::string &line) { return line.empty() || line[0] == '#'; });
    return lines;
}

class seeds : public testing::TestWithParam<uint64_t> {};

TEST_P(seeds, random_operations_leave_what_the_model_holds)
{
    const char *seed = getenv("PLX_TEST_SEED"), *steps = getenv("PLX_TEST_STEPS");
    const uint64_t at = seed ? strtoull(seed, nullptr, 10) : GetParam();
    expect_passes(random_script(at, steps ? strtoull(steps, nullptr, 10) : usual_steps),
                  "PLX_TEST_SEED=" + std::to_string(at));
}

INSTANTIATE_TEST_SUITE_P(model, seeds, testing::Range<uint64_t>(1, 11));

TEST(model, a_wide_run_leaves_what_the_model_holds)
{
    const script wide = random_script(1, usual_steps, 20);
    EXPECT_EQ(in_child([&] { return life().run(wide, 100); }), "");
}

// The first run has made all tables as large as they will be.
TEST(model, a_run_again_leaves_no_block_file_timer_or_request_behind)
{
    const script lines = random_script(2, usual_steps / 10);
    EXPECT_EQ(
        in_child([&] {
            life both;
            both.run(lines);
            const remains first = both.go_quiet();
            both.run(lines);
            const remains second = both.go_quiet();
            return differ("left are", second, first) + differ("left are", second, {first[0], first[1], 2, 0, 0, 0});
        }),
        "");
}

TEST(model, scripts_that_showed_a_fault_pass)
{
    std::vector<std::string> paths;
    if (const char *asked = getenv("PLX_TEST_SCRIPT"))
        paths.push_back(asked);
    else
        for (const auto &file : std::filesystem::directory_iterator(PLX_MODEL_SCRIPTS))
            paths.push_back(file.path());
    EXPECT_FALSE(paths.empty());
    for (const std::string &path : paths)
        expect_passes(read_script(path), path);
}

} // namespace
