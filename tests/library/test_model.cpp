// The library beside the plain model: random operations, with callbacks that call back into the library, and after each
// the same results, events, cache, pending list, service nodes and store, in the same order.
//
// A run is a script of verbs as the transcripts have them, and a few of its own, run in a process of its own:
//     set ace[my_app,1,5] priv=40 ! hmset     that store operation fails meanwhile
//     then del ace[my_app,1,5]                runs inside the next callback
//     answer ace[my_app,1,5] 0 newest         a service node's, to the newest write or to the one before
//     tick 20000000                           the clock goes on, and the timers' passes run
//     changed, gone ace[security_app,1,5]     somebody else wrote or deleted it
// A script that fails is shortened while it still fails, and printed. PLX_TEST_SCRIPT=file runs it again; those that
// showed a fault stay in tests/library/model/. PLX_TEST_SEED and PLX_TEST_STEPS choose another random run.
#include "model.h"
#include "verbs.h"

#include <array>
#include <random>

namespace {

using plain::acl_key;
using plain::target;

// CI has the time for more.
#ifdef PLX_UNDER_SANITIZER
const size_t usual_steps = 5'000;
#else
const size_t usual_steps = getenv("CI") != nullptr ? 20'000 : 5'000;
#endif

// Random lines: each capital letter of a form is drawn.
const std::pair<const char *, uint32_t> forms[] = {
    {"set acl[T,A] priv=N", 20},
    {"set ace[T,A,E] priv=N", 30},
    {"set apply[T,A,T,P,B,0] priv=N", 20},
    {"del acl[T,A]", 2},
    {"del ace[T,A,E]", 4},
    {"del apply[T,A,T,P,B,0]", 4},
    {"answer ace[T,A,E] S W", 40},
    {"answer apply[T,A,T,P,B,0] S W", 40},
    {"deliver 24 service_node[B,B,B]", 8},
    {"tick C", 10},
    {"pass B", 2},
    {"expire O T", 3},
    {"del_expire O T", 3},
    {"changed acl[security_app,A]", 2},
    {"changed ace[security_app,A,E]", 2},
    {"gone acl[security_app,A]", 2},
    {"gone ace[security_app,A,E]", 1},
    {"deliver 29 acl null", 1},
    {"deliver 29 ace null", 1},
    {"bulk begin", 4},
    {"bulk G", 4},
};

struct dice {
    std::mt19937_64 random;
    uint32_t width = 1; // how many times more things than usual there are

    uint32_t up_to(uint32_t n) { return static_cast<uint32_t>(random() % n); }
    std::string drawn(char what)
    {
        const auto number = [this](uint32_t n) { return std::to_string(up_to(n)); };
        switch (what) {
        case 'T':
            return up_to(2) ? "security_app" : "my_app";
        case 'A':
            return number(3 * width);
        case 'E':
            return number(6 * width);
        case 'P':
            return number(3);
        case 'B':
            return number(2);
        case 'N':
            return number(200);
        case 'S':
            return up_to(4) ? "0" : "5";
        case 'W':
            return up_to(5) ? "newest" : "older";
        case 'G':
            return up_to(2) ? "flush" : "end";
        case 'O':
            return up_to(3) == 0 ? "apply" : up_to(2) ? "acl" : "ace";
        case 'C': // whole seconds, so that ages come to stand on either side of their limits; or a step back
            return up_to(30) ? number(up_to(4) ? 21 : 120) + "000000" : "-" + number(2'000'000);
        default:
            return {what};
        }
    }
    std::string line();
};

std::string dice::line()
{
    uint32_t weights = 0;
    for (const auto &form : forms)
        weights += form.second;
    uint32_t at = up_to(weights);
    const auto *form = forms;
    while (at >= form->second)
        at -= (form++)->second;
    std::string text;
    for (const char *letter = form->first; *letter; letter++)
        text += drawn(*letter);
    const char *fails[] = {"hmset", "hmset", "hmset", "del", "get", "scan", "dsbegin", "dsend", "all"};
    if (up_to(8) == 0)
        text += std::string(" ! ") + fails[up_to(std::size(fails))];
    return up_to(8) == 0 && text[0] != 't' ? "then " + text : text;
}

target target_of(const thing &t)
{
    return t.table == "apply" ? target{{t.text(2), t.number(1)}, 0, t.text(0), t.number(3), t.number(4)}
                              : target{{t.text(0), t.number(1)}, t.large(2), "", 0, 0};
}

int32_t run_on_model(plain::model &model, const std::string &line)
{
    arguments a(line);
    const std::string verb = a.next();
    if (verb == "tick")
        return model.tick(a.number());
    if (verb == "pass")
        return model.pass(a.number() != 0);
    if (verb == "skip_priority")
        return model.skip_priority();
    if (verb == "bulk")
        return model.bulk(a.next());
    if (verb == "expire" || verb == "del_expire") {
        const std::string table = a.next();
        return verb == "expire" ? model.expire(table, a.next()) : model.del_expire(table, a.next());
    }
    if (verb == "deliver" && a.number() == TQ_MOM_EVENT_RESYNC)
        return model.resync(a.next());
    const thing t = a.next_thing();
    const target of = target_of(t);
    if (verb == "deliver")
        return model.alive({t.number(0), t.number(1), t.number(2)});
    if (verb == "changed" || verb == "gone")
        return model.change(t.table, of, verb == "gone");
    if (verb == "answer") {
        const auto status = static_cast<int>(a.number());
        return model.answer(of, status, a.next());
    }
    if (verb == "del")
        return t.table == "acl" ? model.del_acl(of.acl) : model.del(of);
    const int priv = a.as<uint8_t>("priv");
    return t.table == "acl"   ? model.set_acl(of.acl, priv)
           : t.table == "ace" ? model.set_ace(of, priv)
                              : model.set_apply(of, priv);
}

// What must be the same whenever all is taken away: blocks, open files, timers, requests, service nodes and entries.
using remains = std::array<size_t, 6>;

// Both of them side by side.
class life : public session {
  public:
    life()
    {
        start();
        g_policy_plx_zlog_level = 1;
        app.result = plain::heard_result;
        app.on_event = [this](const std::string &) { run_armed(library_armed, false); };
        model.on_event = [this] { run_armed(model_armed, true); };
    }
    void TestBody() override {}

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
    std::string run_on_library(const std::string &line);
    void look(lines &is, lines &should);
    std::string compare();

    plain::model model;
    std::deque<std::string> model_armed, library_armed;
    lines model_results, library_results;
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
    if (on_model)
        model_results.push_back(fake::format("= %d", run_on_model(model, line.substr(0, mark))));
    else
        library_results.push_back(run_on_library(line.substr(0, mark)));
    failing = outer;
}

std::string life::run_on_library(const std::string &line)
{
    arguments a(line);
    const std::string verb = a.next(), where = a.next();
    if (verb == "tick" || verb == "pass") {
        perform(verb == "tick" ? "expire_nodes" : line); // the model has moved the clock
        return verb == "tick" ? perform("pass 0") + "= 0" : "= 0";
    }
    if (verb == "changed") {
        perform("put 8 " + where);
        return perform("deliver 4 " + where);
    }
    if (verb == "gone") {
        fake::store.records.erase("8 " + where);
        return perform("deliver 3 " + where);
    }
    if (verb != "answer")
        return perform(line);
    const uint64_t uuid = model.uuids.empty() ? 0 : model.uuids.front();
    model.uuids.erase(model.uuids.begin(), model.uuids.begin() + !model.uuids.empty());
    return perform("deliver 1 " + std::string(where).insert(where.find('['), "_psta") + " p_status=" + a.next() +
                   " rep_uuid=" + std::to_string(uuid));
}

// What the model holds and what the library shows of it, one line each.
void life::look(lines &is, lines &should)
{
    const auto state = [](const target &t, uint64_t uuid, int stat, int count, int told, bool waits, uint32_t pri) {
        return t.name() + fake::format(" uuid %llu stat %d count %d told %d waits %d pri %u",
                                       static_cast<unsigned long long>(uuid), stat, count, told, waits, pri);
    };
    std::map<const void *, const target *> nodes;
    for (const auto &[key, none] : model.acls)
        should.push_back(key.name()), is.push_back(cached_acl(key.type, key.id) ? key.name() : "not cached");
    for (const auto &[t, e] : model.entries) {
        should.push_back(state(t, e.uuid, e.stat, e.count, e.is_req, e.request != 0, e.value_pri));
        const auto *ace = t.is_apply() ? nullptr : cached_ace(t.acl.type, t.acl.id, t.sn);
        const auto *apply = t.is_apply() ? cached_apply(t.acl.type, t.acl.id, t.apply_type, t.phyid, t.pri) : nullptr;
        const auto &shown_as = [&, &t = t](const auto &info, const void *node, const void *request, uint32_t pri) {
            nodes[node] = &t;
            return state(t, info.uuid, info.stat, info.req_count, info.is_req, request != nullptr, pri);
        };
        is.push_back(ace     ? shown_as(ace->ace, ace, ace->req, 0)
                     : apply ? shown_as(apply->apply, apply, apply->req, apply->apply.value_pri)
                             : "not cached");
    }
    for (const auto &[number, request] : model.requests)
        should.push_back(request.of.name() + " waits since " + std::to_string(request.since));
    for (const fp_udp_list *at = g_req_para.pending.next; at != &g_req_para.pending; at = at->next) {
        const auto *waits = reinterpret_cast<const fp_udp_req_node *>(at);
        is.push_back((nodes[waits->node] ? nodes[waits->node]->name() : "?") + " waits since " +
                     std::to_string(tq_timeval_to_us(&waits->time)));
    }
    should.insert(should.end(), model.records.begin(), model.records.end());
    for (const auto &[address, none] : model.foreign)
        should.push_back(address);
    for (const auto &[address, packed] : fake::store.records)
        is.push_back(address);
    should.push_back(
        fake::format("%zu ACLs %zu entries %zu nodes", model.acls.size(), model.entries.size(), model.nodes.size()));
    is.push_back(fake::format("%u ACLs %u entries %d nodes", fp_udp_acl_node_hash_size(),
                              fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size(), g_fp_service.count));
}

std::string life::compare()
{
    lines is = app.take(), should = std::exchange(model.events, {});
    for (const auto &[from, to] : {std::pair{&library_results, &is}, {&model_results, &should}}) {
        to->insert(to->end(), from->begin(), from->end());
        from->clear();
    }
    look(is, should);
    model.uuids.clear();
    fake::store.take();
    fake::log.kept.clear();
    const auto [at, beside] = std::mismatch(is.begin(), is.end(), should.begin(), should.end());
    if (at == is.end() && beside == should.end())
        return fake::store.unreleased.empty() ? broken() : "a read's result is not freed";
    return "is: " + (at == is.end() ? "nothing more" : *at) +
           "\n  should be: " + (beside == should.end() ? "nothing more" : *beside);
}

remains life::go_quiet()
{
    model_armed.clear();
    library_armed.clear();
    perform("bulk end");
    for (const auto &[key, none] : model.acls)
        perform("del acl[" + key.type + "," + std::to_string(key.id) + "]");
    const auto hook = model.on_event;
    model = {};
    model.on_event = hook;
    fake::clock.advance_seconds(300);
    forget_everything();
    return {static_cast<size_t>(fake::live_blocks()),
            fake::open_files(),
            fake::clock.timers.size(),
            pending(),
            list_length(g_fp_service.nodes),
            fp_udp_ace_node_hash_size() + fp_udp_apply_node_hash_size()};
}

script random_script(uint64_t seed, size_t steps, uint32_t width = 1)
{
    dice d{.random = std::mt19937_64(seed), .width = width};
    script lines;
    if (seed % 2)
        lines.push_back("skip_priority");
    while (lines.size() < steps)
        lines.push_back(d.line());
    return lines;
}

std::string outcome(const script &lines, bool quiet)
{
    return in_child(
        [&] {
            life l;
            return l.run(lines, lines.size() > 1000 ? 4 : 1);
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
    ADD_FAILURE() << name << ": " << difference << "\nPLX_TEST_SCRIPT=file repeats this script:\n"
                  << text_of(shortened(lines));
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
    EXPECT_EQ(in_child([&] {
                  life both;
                  both.run(lines);
                  const remains first = both.go_quiet();
                  both.run(lines);
                  const remains second = both.go_quiet();
                  const remains expected = {first[0], first[1], 2, 0, 0, 0};
                  return first == expected && second == expected ? "" : "left are " + testing::PrintToString(second);
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
