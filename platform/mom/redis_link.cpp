// See redis_link.hpp.
#include "redis_link.hpp"

#include "report.hpp"
#include "small_file.hpp"

#include <algorithm>
#include <mutex>
#include <set>
#include <tq_mom.h>
#include <utility>

namespace mom {
namespace {

using std::chrono::steady_clock;
constexpr std::chrono::milliseconds shortest_pause{50};
constexpr std::chrono::milliseconds longest_pause{2000};
constexpr std::chrono::milliseconds longest_standstill{60'000};
constexpr uint32_t shortest_part = 10;  // of the time of a call, which an attempt has at first
constexpr unsigned patient_after = 4;   // attempts in vain, one may stand still for twice as long,
constexpr unsigned most_doublings = 10; // and so on
constexpr std::chrono::milliseconds idle{2};
constexpr uint32_t longest_doubt_ms = 500;
constexpr uint32_t shortest_wait_ms = 20;

// The value of a line "name:value" of an INFO answer.
std::string_view info_value(std::string_view info, std::string_view name)
{
    const std::string line = std::string("\n") + std::string(name) + ":";
    const size_t at = info.find(line);
    if (at == std::string_view::npos)
        return {};
    info.remove_prefix(at + line.size());
    return info.substr(0, info.find_first_of("\r\n"));
}

// A process with many contexts says a thing about a server once.
void warn_once(const std::string &text)
{
    static std::mutex guard;
    static std::set<std::string> said;
    {
        const std::lock_guard lock(guard);
        if (!said.insert(text).second)
            return;
    }
    report(TQ_ZLOG_WARN, text);
}

std::string name_of(const store_url &url)
{
    if (url.scheme == store_scheme::tcp)
        return url.hosts.front().host + ":" + std::to_string(url.hosts.front().port);
    return url.name;
}

// The first line, however lines end.
bool read_password(const store_url::login &login, std::string &password)
{
    password = login.password;
    if (login.password_file.empty())
        return true;
    std::string reason = "it is empty";
    const std::string text = read_small_file(login.password_file, 1024, reason);
    password = text.substr(0, text.find_first_of("\r\n"));
    if (password.empty())
        report(TQ_ZLOG_ERROR, "cannot read the password file " + login.password_file + ": " + reason);
    return !password.empty();
}

// Puts what logs in in front of what is asked, where there is anything.
int add_login(command_buffer &commands, const store_url::login &login)
{
    std::string password;
    if (!read_password(login, password))
        return TQ_MOM_NO_PASSWORD;
    if (!password.empty() && login.user.empty())
        commands.command("AUTH", password);
    else if (!login.empty())
        commands.command("AUTH", login.user, password);
    return TQ_MOM_OK;
}

} // namespace

int redis_link::ensure()
{
    // A server that went away while nobody asked it is noticed before a write is risked on the old connection.
    const auto now = steady_clock::now();
    const bool gone = elsewhere_ ? outstanding_ == 0 : now - last_use_ > idle && !connected();
    if (connection_ != nullptr && gone)
        drop();
    last_use_ = now;
    if (connection_ != nullptr)
        return TQ_MOM_OK;
    if (pause().count() > 0)
        return last_failure_;
    int result = TQ_MOM_OK;
    connection_ = open(patient(), result);
    note(result, std::chrono::ceil<std::chrono::milliseconds>(steady_clock::now() - now));
    if (connection_ == nullptr)
        return result;
    ++generation_;
    next_wait_ = {};
    warn_about_server();
    return connection_ == nullptr ? TQ_MOM_DISCONNECTED : TQ_MOM_OK;
}

std::chrono::milliseconds redis_link::pause() const
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_attempt_ - steady_clock::now());
    return std::max(left, std::chrono::milliseconds{0});
}

// An attempt may stand still, over a name that nobody answers for or a server that is cut off: nine times as long is
// left to the application.
void redis_link::note(int result, std::chrono::milliseconds took)
{
    if (result == TQ_MOM_OK) {
        back_off_ = std::chrono::milliseconds{0};
        next_attempt_ = {};
        usual_ = took;
        in_vain_ = 0;
        return;
    }
    in_vain_ += 1;
    last_failure_ = result;
    back_off_ = std::clamp(back_off_ * 2, shortest_pause, longest_pause);
    next_attempt_ = steady_clock::now() + std::max(back_off_, std::min(9 * took, longest_standstill));
}

// How to make the next attempt.
store_url redis_link::patient() const
{
    store_url how = url_;
    const auto shortest = std::chrono::milliseconds(how.timeout_ms / shortest_part);
    const auto stand = std::max(shortest, 4 * usual_) * (1 << std::min(in_vain_ / patient_after, most_doublings));
    if (generation_ > 0 && stand.count() < how.timeout_ms)
        how.timeout_ms = static_cast<uint32_t>(stand.count());
    return how;
}

void redis_link::told_of_master(const endpoint &master, const endpoint &sentinel)
{
    if (connection_ != nullptr && master == connection_->server())
        return;
    elsewhere_ = connection_ != nullptr;
    back_off_ = std::chrono::milliseconds{0};
    next_attempt_ = {};
    ask_first(sentinel);
}

void redis_link::ask_first(const endpoint &sentinel)
{
    const auto at = std::find(url_.hosts.begin(), url_.hosts.end(), sentinel);
    std::rotate(url_.hosts.begin(), at, at + (at != url_.hosts.end()));
}

int redis_link::exchange(const command_buffer &commands)
{
    if (connection_ == nullptr)
        return TQ_MOM_DISCONNECTED;
    const int result = connection_->exchange(commands);
    if (result != TQ_MOM_OK)
        drop();
    return result;
}

int redis_link::send(std::string_view commands, size_t answers, const ride &along)
{
    if (connection_ == nullptr)
        return TQ_MOM_DISCONNECTED;
    if (along.on != nullptr)
        commands = with_question_.assign(commands).append(along.question);
    auto &connection = along.on != nullptr ? *along.on : *connection_;
    const int result = connection.send(commands, steady_clock::now() + std::chrono::milliseconds(url_.timeout_ms));
    if (result == TQ_MOM_OK)
        outstanding_ += answers;
    return result;
}

int redis_link::receive(reply_tape &into, size_t &complete, const ride &along, size_t limit)
{
    if (connection_ == nullptr)
        return TQ_MOM_DISCONNECTED;
    auto &connection = along.on != nullptr ? *along.on : *connection_;
    connection.tape().clear();
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(url_.timeout_ms);
    const int result = connection.receive(std::exchange(outstanding_, 0), deadline, complete, limit);
    std::swap(into, connection.tape());
    if (result != TQ_MOM_OK)
        drop();
    return result;
}

// The server holds its answer until enough replicas have all that came before on this connection. Where they had not
// the last time, that is the rule for a while: the loop is not held for as long each time, and nine times as long is
// left to the application, whose writes are not asked about then.
int redis_link::await_replicas()
{
    if (steady_clock::now() < next_wait_)
        return TQ_MOM_NOT_REPLICATED;
    command_buffer question;
    const uint32_t patience =
        replicas_lag_ ? std::max(url_.wait_ms / 10, std::min(url_.wait_ms, shortest_wait_ms)) : url_.wait_ms;
    question.command("WAIT", url_.wait_replicas, patience);
    const auto begin = steady_clock::now();
    const int result = exchange(question);
    if (result != TQ_MOM_OK)
        return result;
    if (replies().is(reply_kind::error))
        return judge(replies());
    replicas_lag_ = replies().integer() < url_.wait_replicas;
    const auto end = steady_clock::now(); // an idle server answers up to 100 ms late
    const auto stood = std::max<steady_clock::duration>(std::chrono::milliseconds(patience), end - begin);
    if (replicas_lag_)
        next_wait_ = end + std::min<steady_clock::duration>(9 * stood, longest_standstill);
    return replicas_lag_ ? TQ_MOM_NOT_REPLICATED : TQ_MOM_OK;
}

int redis_link::judge(reply_view reply)
{
    const int result = result_of(reply);
    if (result == TQ_MOM_STORE_ERROR)
        report(TQ_ZLOG_ERROR, "the policy store refused a command: " + std::string(reply.text()));
    if (result == TQ_MOM_READ_ONLY && url_.scheme == store_scheme::sentinel)
        drop();
    return result;
}

std::unique_ptr<redis_connection> redis_link::open(int &result)
{
    return open(url_, result);
}

std::unique_ptr<redis_connection> redis_link::open(const store_url &how, int &result)
{
    result = TQ_MOM_DISCONNECTED;
    switch (url_.scheme) {
    case store_scheme::unix_socket:
        return open_at({url_.name, 0}, how, result);
    case store_scheme::tcp:
        return open_at(url_.hosts.front(), how, result);
    case store_scheme::sentinel: {
        endpoint master;
        result = ask_sentinels(how, master);
        return result == TQ_MOM_OK ? open_at(master, how, result) : nullptr;
    }
    case store_scheme::mem:
        break;
    }
    return nullptr;
}

// Address by address, as long as none has taken the time of a call.
std::unique_ptr<redis_connection> redis_link::connect(const endpoint &where, const store_url &how, trouble &why)
{
    const auto end = steady_clock::now() + std::chrono::milliseconds(how.timeout_ms);
    const auto addresses = where.port == 0 ? std::vector{where.host} : names_.addresses(where.host);
    for (const auto &address : addresses) {
        auto connection = redis_connection::open({address, where.port}, where.host, how, why);
        if (where.port != 0)
            connection != nullptr ? names_.connected(where.host, address) : names_.failed(where.host, address);
        if (connection != nullptr)
            return connection;
        if (steady_clock::now() >= end)
            break;
    }
    return nullptr;
}

// The result of a failure, which is told where there is more to say.
int redis_link::explain(const endpoint &where, const trouble &why)
{
    if (why.text.empty())
        return why.result;
    const bool understood =
        url_.scheme == store_scheme::unix_socket || (why.result != TQ_MOM_TIMEOUT && why.result != TQ_MOM_DISCONNECTED);
    const int result = understood || generation_ > 0 ? why.result : try_other_way(where, why.result);
    if (std::exchange(told_, why.text) != why.text)
        report(TQ_ZLOG_ERROR, "the policy store at " + name_of(url_) + ": " + why.text);
    return result;
}

// With TLS where the address has none, or without: a server that never understood us may speak so. It is told nothing.
int redis_link::try_other_way(const endpoint &where, int result)
{
    store_url other = url_;
    other.tls = !url_.tls;
    other.files = {};
    other.timeout_ms = std::min(other.timeout_ms, longest_doubt_ms);
    trouble why;
    const auto connection = connect(where, other, why);
    if (other.tls)
        return connection != nullptr || why.result >= TQ_MOM_CERTIFICATE_EXPIRED ? TQ_MOM_TLS_EXPECTED : result;
    command_buffer question;
    question.command("PING");
    return connection != nullptr && connection->exchange(question) == TQ_MOM_OK ? TQ_MOM_TLS_NOT_SPOKEN : result;
}

std::unique_ptr<redis_connection> redis_link::open_at(const endpoint &where, const store_url &how, int &result)
{
    trouble why;
    auto connection = connect(where, how, why);
    result = connection == nullptr ? explain(where, why) : log_in(*connection);
    if (connection != nullptr && result == TQ_MOM_DISCONNECTED)
        result = explain(where, connection->ended());
    if (result != TQ_MOM_OK)
        return nullptr;
    connection->use(where, url_.timeout_ms);
    counters_.connections += 1;
    told_.clear();
    return connection;
}

int redis_link::greet_sentinel(command_buffer &commands) const
{
    return add_login(commands, url_.sentinels);
}

// A sentinel that knows the name tells where the master is; one that is down or does not know is passed over.
int redis_link::ask_sentinels(const store_url &how, endpoint &master)
{
    command_buffer question;
    const int logged_in = greet_sentinel(question);
    if (logged_in != TQ_MOM_OK)
        return logged_in;
    question.command("SENTINEL", "get-master-addr-by-name", url_.name);
    int result = TQ_MOM_DISCONNECTED;
    for (const auto &sentinel : how.hosts) {
        const int asked = ask_sentinel(sentinel, how, question, master);
        if (asked == TQ_MOM_OK)
            return ask_first(sentinel), TQ_MOM_OK;
        result = asked == TQ_MOM_DISCONNECTED ? result : asked;
    }
    return result;
}

int redis_link::ask_sentinel(const endpoint &sentinel, const store_url &how, const command_buffer &question,
                             endpoint &master)
{
    trouble why;
    const auto connection = connect(sentinel, how, why);
    if (connection == nullptr)
        return explain(sentinel, why);
    if (connection->exchange(question) != TQ_MOM_OK)
        return explain(sentinel, connection->ended());
    auto answer = connection->replies();
    const int refused = result_of(answer);
    if (question.commands() > 1)
        answer = answer.next();
    if (refused != TQ_MOM_OK || result_of(answer) != TQ_MOM_OK)
        return refused != TQ_MOM_OK ? refused : result_of(answer);
    if (answer.size() != 2)
        return TQ_MOM_DISCONNECTED;
    master.host = answer.at(0).text();
    return parse_port(answer.at(1).text(), master.port) && !master.host.empty() ? TQ_MOM_OK : TQ_MOM_DISCONNECTED;
}

// The last answer tells whether the server takes commands: it may be loading, or want a password that we have not.
int redis_link::log_in(redis_connection &connection)
{
    command_buffer commands;
    const int logged_in = add_login(commands, url_.server);
    if (logged_in != TQ_MOM_OK)
        return logged_in;
    commands.command("PING");
    if (url_.scheme == store_scheme::sentinel)
        commands.command("ROLE");
    const int exchanged = connection.exchange(commands);
    if (exchanged != TQ_MOM_OK)
        return exchanged;
    for (auto reply = connection.replies(); !reply.at_end(); reply = reply.next()) {
        const bool replica = reply.is(reply_kind::array) && reply.at(0).text() != "master";
        const bool not_allowed = reply.is(reply_kind::error) && reply.text().starts_with("NOPERM");
        const int result = replica ? TQ_MOM_READ_ONLY : result_of(reply);
        if (result != TQ_MOM_OK && !not_allowed)
            return result;
    }
    return TQ_MOM_OK;
}

// Does the server do what somebody asks who has not logged in? Our own login says nothing about that.
bool redis_link::serves_strangers()
{
    if (url_.server.empty())
        return true;
    trouble why;
    const auto stranger = connect(connection_->server(), url_, why);
    command_buffer question;
    question.command("PING");
    return stranger != nullptr && stranger->exchange(question) == TQ_MOM_OK &&
           result_of(stranger->replies()) == TQ_MOM_OK;
}

// What an operator should know about the server: asked on the first connection, said once.
void redis_link::warn_about_server()
{
    if (warned_)
        return;
    warned_ = true;
    const std::string store = "the policy store at " + name_of(url_);
    if (!url_.tls && connection_->leaves_host())
        warn_once(store +
                  " is on another machine, without TLS: policy and passwords can be read and changed on their way");
    command_buffer question;
    for (const std::string_view section : {"server", "persistence", "memory"})
        question.command("INFO", section);
    if (exchange(question) != TQ_MOM_OK)
        return;
    std::string info;
    for (auto reply = replies(); !reply.at_end(); reply = reply.next())
        info.append(reply.is(reply_kind::text) ? reply.text() : std::string_view{});
    if (info_value(info, "aof_enabled") == "0")
        warn_once(store + " does not persist every write (appendonly no): a crash of its server loses policy");
    const auto limit = info_value(info, "maxmemory");
    if (!limit.empty() && limit != "0" && info_value(info, "maxmemory_policy") != "noeviction")
        warn_once(store + " may evict policy when it runs short of memory: set maxmemory-policy noeviction");
    const auto port = info_value(info, "tcp_port");
    if (!port.empty() && port != "0" && serves_strangers())
        warn_once(store + " is open to everybody who reaches its TCP port " + std::string(port) + ": set a password");
}

} // namespace mom
