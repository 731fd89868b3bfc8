// Scenarios of scripts/*/*.txt (support/transcript.hpp), on a store of each kind: those of redis/ on a server alone, of
// mem/ without one, of both/ on each.
//
//     w: set ace[a,1,<1..2>] 8=$n               <1..2> and <a|b> make several lines of one, $n tells which
//     l: subscribe ace[a]                       who: verb table@db[key,...] field=value; as many key fields as select
//     w: until merge ace[a,1,1] 11=3            repeated until the store is back; of these fields alone
//         = 6 …                                 what came of it, where that is more than success
//     heard                                     what subscriptions, to all or this table, were told up to here; settle
//                                               does without telling, sofar without waiting
//         l ace[a]: *4 ace[a,1,1] 8=1 11=3      event, * before that of an echo
//
//     start tls --option value  the server over TLS on PORT, with files of certificates.sh in DIR
//
// Texts have %41 for odd bytes and x*9 for nine times x; SOCKET, PORT, DIR stand for the server's.
#include "record_text.hpp"
#include "suite.hpp"
#include "support/transcript.hpp"
#include "text_verbs.hpp"

#include <csignal>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <tq_zlog.h>

namespace fs = std::filesystem;

namespace {

lines log_lines; // what the client told the system log

} // namespace

// Comes before the logging library's own.
void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int, const char *format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    log_lines.emplace_back(line);
}

namespace {

lines words_of(const std::string &line)
{
    lines words;
    std::istringstream in(line);
    for (std::string word; in >> std::quoted(word);)
        words.push_back(word);
    return words;
}

std::string replaced(std::string text, const std::string &part, const std::string &by)
{
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size())
        text.replace(at, part.size(), by);
    return text;
}

// A line with <...> as the lines that it stands for.
lines expanded(const std::string &line)
{
    const size_t open = line.find('<'), close = line.find('>', open);
    if (open == std::string::npos || close == std::string::npos)
        return {line};
    const std::string inside = line.substr(open + 1, close - open - 1);
    lines choices = parts_of(inside, '|'), all;
    if (const size_t dots = inside.find(".."); dots != std::string::npos) {
        choices.clear();
        for (long n = std::stol(inside); n <= std::stol(inside.substr(dots + 2)); n++)
            choices.push_back(std::to_string(n));
    }
    for (const auto &choice : choices)
        for (const auto &one : expanded(replaced(line.substr(0, open) + choice + line.substr(close + 1), "$n", choice)))
            all.push_back(one);
    return all;
}

// Results as "0*3 6".
std::string runs_of(const std::vector<int> &results)
{
    std::string text;
    for (size_t at = 0, end; at < results.size(); at = end) {
        for (end = at; end < results.size() && results[end] == results[at];)
            ++end;
        text += " " + std::to_string(results[at]) + (end - at > 1 ? "*" + std::to_string(end - at) : "");
    }
    return text;
}

/// One who uses the store, under the name that a line begins with.
struct actor {
    tq_context *context = nullptr;
    bool batching = false;
    uint32_t collected = 0;
    std::map<std::string, hearing> told;  ///< by what was subscribed to
    std::map<std::string, hearing> marks; ///< by table: tells when all before it was told
};

class scenario : public store_users, public plx::Transcript {
  public:
    explicit scenario(bool on_server)
    {
        log_lines.clear();
        if (on_server)
            server_.emplace(), start({});
    }

  private:
    std::string perform(const std::string &line) override
    {
        out_.clear();
        for (const auto &one : expanded(line)) {
            lines words = words_of(one);
            if (words.front().ends_with(':'))
                act(actors_[words.front()], {words.begin() + 1, words.end()});
            else
                direct(words);
        }
        return out_;
    }

    void show(std::string text)
    {
        if (server_)
            text = replaced(replaced(replaced(text, server_->socket(), "SOCKET"), port_, "PORT"),
                            redis_server::certificates(), "DIR");
        out_ += text + '\n';
    }

    // ---- what actors do

    std::string address(const lines &options) const
    {
        std::string user = "suite", rest = "timeout=10000";
        for (const auto &option : options)
            if (option.starts_with("user="))
                user = option.substr(5);
            else
                rest += "&" + option;
        return server_ ? server_->url(user, rest) : "mem:script?" + rest;
    }

    std::string placed(const std::string &text) const
    {
        return server_ ? replaced(replaced(replaced(text, "SOCKET", server_->socket()), "PORT", port_), "DIR",
                                  redis_server::certificates())
                       : text;
    }

    void open(actor &who, const lines &options)
    {
        const bool whole = !options.empty() && options[0].find(':') != std::string::npos;
        who.context = open_at(whole ? placed(options[0]) : address(options));
    }

    void act(actor &who, lines words)
    {
        const bool patient = words[0] == "until";
        if (patient)
            words.erase(words.begin());
        const std::string verb = words[0];
        words.erase(words.begin());
        if (verb == "open")
            open(who, words);
        else if (who.context == nullptr)
            open(who, {});
        if (verb == "free") {
            std::erase_if(contexts, [&](const auto &each) { return each.get() == who.context; });
            who = {};
            return;
        }
        int result = call(who, verb, words);
        if (patient)
            wait_for([&] { return result == TQ_MOM_OK || (result = call(who, verb, words)) == TQ_MOM_OK; });
        if (result != TQ_MOM_OK)
            show("= " + std::to_string(result));
    }

    int call(actor &who, const std::string &verb, const lines &words)
    {
        auto *const context = who.context;
        if (verb == "open")
            return TQ_MOM_OK;
        if (verb == "connect")
            return tq_mom_client_connect_sync(context, 8);
        if (verb == "state")
            return tq_mom_state_get(context, 8, 0) != TQ_MOM_OK;
        if (verb == "deaf")
            return hears_within(context, 50);
        if (verb == "hears") // before the server would have answered a question that nothing comes to
            return hears_within(context, 300) == 0;
        if (verb == "batch")
            return who.collected = 0, who.batching = true, tq_mom_batch_begin(context);
        if (verb == "send")
            return tq_mom_batch_send(context), TQ_MOM_OK;
        if (verb == "done")
            return end_batch(who);
        const text_record record(words.at(0), {words.begin() + 1, words.end()});
        if (verb == "get")
            return get(context, record);
        if (verb == "set" || verb == "merge" || verb == "del")
            return write(who, verb, record);
        return select(who, verb, record, words);
    }

    // How often in so many turns of the loop.
    static int hears_within(tq_context *context, int turns)
    {
        int times = 0;
        while (turns-- > 0) {
            tq_loop_run_once(context->master, 10);
            times += tq_mom_state_get(context, 8, 0) == TQ_MOM_OK;
        }
        return times;
    }

    int write(actor &who, const std::string &verb, const text_record &record)
    {
        const auto &fields = record.numbers();
        const int result = verb == "set"   ? tq_mom_set_sync(who.context, record.db(), record.message())
                           : verb == "del" ? tq_mom_del_sync(who.context, record.db(), record.message())
                                           : tq_mom_hmset_sync(who.context, record.db(), record.message(),
                                                               fields.data(), static_cast<uint32_t>(fields.size()));
        who.collected += who.batching && result == TQ_MOM_OK;
        return result;
    }

    int select(actor &who, const std::string &verb, const text_record &record, const lines &words)
    {
        const auto selection = static_cast<uint32_t>(record.key_fields());
        const auto bound = words.size() > 1 ? std::strtoull(words[1].c_str(), nullptr, 10) : 1000;
        if (verb == "begin")
            return tq_mom_dsbegin_sync(who.context, record.db(), record.message(), selection, bound);
        if (verb == "end")
            return tq_mom_dsend_sync(who.context, record.db(), record.message(), selection,
                                     static_cast<uint32_t>(bound));
        if (verb == "scan" || verb == "keys")
            return scan(verb == "scan" ? tq_mom_scan_sync : tq_mom_scan_keys_sync, who.context, record, selection);
        EXPECT_EQ("subscribe", verb);
        const int result = tq_mom_subscribe(who.context, record.db(), record.message(), selection, hearing::callback,
                                            &who.told[words[0]]);
        if (result == TQ_MOM_OK && !who.marks.contains(record.table()))
            tq_mom_subscribe(who.context, record.db(), record.message(), 0, hearing::callback,
                             &who.marks[record.table()]);
        return result;
    }

    int end_batch(actor &who)
    {
        std::vector<int> results(who.collected, -1);
        const int result = tq_mom_batch_end(who.context, results.data(), who.collected);
        who.batching = false;
        who.collected = 0;
        show("results" + runs_of(results));
        return result;
    }

    int get(tq_context *context, const text_record &record)
    {
        auto *found = tq_mom_hgetall_sync(context, record.db(), record.message());
        if (found == nullptr)
            return show("not asked"), TQ_MOM_OK;
        const int status = found->status;
        if (status == TQ_MOM_OK)
            show(found->record == nullptr ? "no record" : text_of_message(found->record));
        else
            EXPECT_EQ(nullptr, found->record);
        tq_mom_hash_res_free(found);
        return status;
    }

    int scan(decltype(tq_mom_scan_sync) *walk, tq_context *context, const text_record &record, uint32_t selection)
    {
        hearing found;
        const int result = walk(context, record.db(), record.message(), selection, hearing::callback, &found);
        const size_t told = found.lines.size();
        if (told > 5)
            show(std::to_string(told) + ", " + found.lines.front() + " .. " + found.lines.back());
        else
            std::for_each(found.lines.begin(), found.lines.end(), [&](const auto &line) { show(line); });
        return result;
    }

    // ---- what happens to the store

    void direct(lines words)
    {
        const std::string verb = words[0];
        words.erase(words.begin());
        for (auto &word : words)
            word = verb == "server" ? unescaped(word) : placed(word);
        if (verb == "heard" || verb == "sofar" || verb == "settle")
            hear(words.empty() ? "" : words[0], verb);
        else if (verb == "log")
            tell_log(words.empty() ? 0 : std::stoul(words[0]));
        else if (verb == "server" || verb == "quiet")
            ask(words, verb == "quiet");
        else if (verb == "await")
            wait_for([&] {
                return server_->run({words.begin() + 1, words.end()}).find(words[0]) != std::string::npos;
            });
        else if (verb == "crash")
            server_->crash();
        else if (verb == "start")
            start(words);
        else if (verb == "erase")
            server_->erase_data();
        else if (verb == "keep")
            fs::copy(data(), data() + ".older", fs::copy_options::recursive);
        else if (verb == "older")
            fs::remove_all(data()), fs::rename(data() + ".older", data());
        else if (verb == "abroad" || verb == "home")
            peers_are_abroad = verb == "abroad";
        else if (verb == "stop" || verb == "go")
            server_->signal(verb == "stop" ? SIGSTOP : SIGCONT);
        else if (const auto text = text_verb(verb, words.at(0)); !text.empty())
            show(text);
        else
            ADD_FAILURE() << "no verb " << verb;
    }

    std::string data() const { return server_->directory() + "/appendonlydir"; }

    // Waits until there are so many lines; a line about changes that came may be later than what is heard of others.
    void tell_log(size_t least)
    {
        wait_for([&] { return log_lines.size() >= least; });
        std::for_each(log_lines.begin(), log_lines.end(), [&](const auto &line) { show(line); });
        log_lines.clear();
    }

    void ask(const lines &command, bool quiet)
    {
        const std::string answer = server_->run(command);
        if (!quiet && answer != "OK")
            show(answer);
    }

    // With an answer to expect first, where that is not PONG.
    void start(lines options)
    {
        std::string answer = "PONG";
        if (!options.empty() && options[0] == "tls") {
            options.erase(options.begin());
            const auto usual = redis_server::tls_options(port_);
            options.insert(options.begin(), usual.begin(), usual.end());
        }
        if (!options.empty() && !options[0].starts_with("-"))
            answer = options[0], options.erase(options.begin());
        options.insert(options.end(), {"--appendfsync", "no"}); // the disk's own speed is not what this is about
        server_->crash();
        server_->start(options, answer);
    }

    // A last record of a table that is followed, under an application that no scenario has; it is heard, and goes.
    void settle(const std::string &table, hearing &mark)
    {
        const context_ptr other(tq_context_new_on(address({}).c_str(), loop.get()));
        const text_record last(table + "[" + mark_name + "]", {});
        const auto heard = [&mark](auto matches) { return std::any_of(mark.lines.begin(), mark.lines.end(), matches); };
        do { // where changes were lost, this one may be among them
            mark.lines.clear();
            until_ok([&] { return tq_mom_set_sync(other.get(), last.db(), last.message()); });
            wait_for([&] { return heard(is_lost) || heard(is_mark); });
        } while (!heard(is_mark) && !HasFailure());
        EXPECT_EQ(TQ_MOM_OK, tq_mom_del_sync(other.get(), last.db(), last.message()));
    }

    void tell(const std::string &whose, hearing &told, bool silently)
    {
        for (const auto &line : std::exchange(told.lines, {}))
            if (!silently && line.find(mark_name) == line.npos)
                show(whose + ": " + line);
    }

    void hear(const std::string &of, const std::string &verb)
    {
        for (auto &[name, who] : actors_) {
            for (auto &[table, mark] : who.marks)
                if (verb != "sofar" && (of.empty() || table == of))
                    settle(table, mark);
            for (auto &[what, told] : who.told)
                if (of.empty() || what.substr(0, what.find('[')) == of)
                    tell(name.substr(0, name.size() - 1).append(" ").append(what), told, verb == "settle");
        }
    }

    static constexpr char mark_name[] = "!settled";
    static bool is_lost(const std::string &line) { return line.starts_with("29"); }
    static bool is_mark(const std::string &line) { return line.find(mark_name) != line.npos && line[0] != '3'; }
    const std::string port_ = redis_server::free_port();
    std::optional<redis_server> server_;
    std::map<std::string, actor> actors_;
    std::string out_;
};

plx::Transcript *without_server()
{
    return new scenario(false);
}
plx::Transcript *with_server()
{
    return new scenario(true);
}

const bool registered = plx::register_transcripts(PLX_STORE_SCRIPTS "/both", without_server, "/mem") &&
                        plx::register_transcripts(PLX_STORE_SCRIPTS "/both", with_server, "/redis") &&
                        plx::register_transcripts(PLX_STORE_SCRIPTS "/mem", without_server) &&
                        plx::register_transcripts(PLX_STORE_SCRIPTS "/redis", with_server);

} // namespace
