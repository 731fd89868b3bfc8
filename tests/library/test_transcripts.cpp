// Transcripts: what the library answers, writes, says and tells, verb by verb, as text in transcripts/*.txt.
//
// A file is a number of scenarios, each a test of its own, in a process of its own:
//     start                              before every scenario of the file
//     == a_set_caches_and_writes
//     set acl[my_app,4] priv=40          a verb (verbs.h); {a,b}, {a,b|c,d} and {1..9} make several of one
//         = 0                            what came of it: its result, what was shown or printed, store calls, log
//         store hmset 5 acl[my_app,4] …  lines, timers, and what the application was told
//     set acl[my_app,4] ! hmset=9        with the store's next hmset failing; also memory=2, the second allocation,
//                                        timer=, topic=, shell=, file= (0 counts); level= and switch= for this line
//     quiet set ace[my_app,4,{1..99}]    only its effect counts
//
// PLX_ACCEPT=1 ctest -R transcripts: writes what came instead of comparing it, for a diff to be reviewed.
#include "support/transcript.hpp"
#include "verbs.h"

#include <optional>
#include <regex>

namespace {

// What varies between runs, and what is long, in a word.
std::string readable(std::string text, const std::string &process)
{
    for (size_t at; (at = text.find(process)) != std::string::npos;)
        text.replace(at, process.size(), "PROCESS");
    const std::string own = fake::format("%p", static_cast<void *>(&context));
    for (size_t at; (at = text.find(own)) != std::string::npos;)
        text.replace(at, own.size(), "CONTEXT");
    static const std::regex pointer("0x[0-9a-f]{8,}"), line("\\[[0-9]+\\]:");
    text = std::regex_replace(std::regex_replace(text, pointer, "POINTER"), line, "[LINE]:");
    std::string shorter; // a long run of a character is "x*32"
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find_first_not_of(text[at], at), text.size()), length = end - at;
        shorter += length > 30 ? text.substr(at, 1) + "*" + std::to_string(length) : text.substr(at, length);
        at = end;
    }
    text = shorter;
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;)
        text.replace(at, 1, "\\n");
    return text;
}

class library : public plx::Transcript {
    std::string perform(const std::string &line) override;
    std::string step(const std::string &line);
    std::string came_of(const std::string &result, const std::string &console);

    struct : session {
        void TestBody() override {}
    } own;
    bool quiet = false;
};

std::string library::perform(const std::string &line)
{
    quiet = line.starts_with("quiet ");
    const script all = expanded(quiet ? line.substr(6) : line);
    std::string text;
    for (const std::string &one : all)
        text += (quiet || all.size() == 1 ? "" : "> " + one + '\n') + step(one);
    return text;
}

std::string library::step(const std::string &line)
{
    const size_t mark = line.find(" ! ");
    arguments faults(mark == std::string::npos ? "" : line.substr(mark + 3));
    const std::map<std::string, fake::results &> doubles = {
        {"timer", fake::clock.insertions}, {"topic", fake::topics.script}, {"shell", fake::shell.openings}};
    const uint32_t level = g_policy_plx_zlog_level, bits = fp_udp_debug_sw;
    std::optional<fake::failing_allocation> memory;
    std::optional<fake::failing_file_call> files;
    for (const auto &[name, values] : faults.options) {
        fake::results results;
        std::istringstream list(values);
        for (std::string one; std::getline(list, one, ',');)
            results.push_back(std::stoi(one, nullptr, 0));
        if (name == "memory")
            memory.emplace(results.front());
        else if (name == "file")
            files.emplace(results.front(), 5); // EIO
        else if (name == "level" || name == "switch")
            (name == "level" ? g_policy_plx_zlog_level : fp_udp_debug_sw) = static_cast<uint32_t>(results.front());
        else if (const auto found = doubles.find(name); found != doubles.end())
            found->second = results;
        else
            fake::store.script[name] = results;
    }
    std::string result;
    const std::string console = printed([&] { result = own.perform(line.substr(0, mark)); });
    memory.reset();
    if (files)
        own.shown.push_back(fake::format("%d file calls", fake::failing_file_call::seen()));
    files.reset();
    fake::store.script.clear();
    if (faults.has("level"))
        g_policy_plx_zlog_level = level;
    if (faults.has("switch"))
        fp_udp_debug_sw = bits;
    return came_of(result, console);
}

std::string library::came_of(const std::string &result, const std::string &console)
{
    std::string all;
    const auto add = [&](const std::string &text) { all += quiet ? "" : readable(text, own.process) + '\n'; };
    const auto add_all = [&](const char *who, const lines &texts) {
        for (const std::string &text : texts)
            add(who + text);
    };
    if (!result.empty())
        add(result);
    add_all("", std::exchange(own.shown, {}));
    std::istringstream printed_text(console);
    for (std::string text; std::getline(printed_text, text);)
        add("console " + text + "|");
    add_all("store ", fake::store.take());
    const std::vector<fake::log_line> kept = fake::log.kept;
    add_all("log ", fake::log.take(own.levels));
    if (own.levels.find('f') != std::string::npos)
        for (const fake::log_line &one : kept)
            add("by " + one.file + " " + one.func);
    add_all("topics ", std::exchange(fake::topics.calls, {}));
    add_all("timer ", std::exchange(fake::clock.inserted, {}));
    add_all("system ", std::exchange(fake::commands, {}));
    add_all("app ", app.take());
    if (!quiet && g_req_para.pending.next && g_fp_service.nodes.next)
        if (const std::string fault = broken(); !fault.empty())
            add("broken: " + fault);
    return all;
}

const bool registered = plx::register_transcripts(PLX_TRANSCRIPTS, [] { return new library; });

} // namespace
