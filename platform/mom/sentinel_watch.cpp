// See sentinel_watch.hpp.
#include "sentinel_watch.hpp"

#include <algorithm>
#include <array>
#include <poll.h>

namespace mom {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds between_attempts{100};
constexpr milliseconds after_failure{2000};
constexpr milliseconds after_its_refusal{60'000};

int loop_events(short needs)
{
    return (needs & POLLOUT) != 0 ? TQ_LOOP_WRITABLE : TQ_LOOP_READABLE;
}

// "NAME OLD-HOST OLD-PORT HOST PORT": the last two, where it is about this name.
bool parse_word(std::string_view text, std::string_view name, endpoint &master)
{
    std::array<std::string_view, 5> words;
    for (auto &word : words) {
        word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
    }
    master.host = words[3];
    return words[0] == name && parse_port(words[4], master.port);
}

} // namespace

sentinel_watch::sentinel_watch(redis_link &link, tq_thread_master *master, std::function<void()> heard)
    : link_(link), master_(master), heard_(std::move(heard)), timer_(master, on_timer, this, "tq_mom sentinels")
{
    for (const auto &sentinel : link.url().hosts)
        lines_.push_back(std::make_unique<line>(line{.of = *this, .sentinel = sentinel}));
    attempt_next();
}

sentinel_watch::~sentinel_watch()
{
    for (auto &each : lines_)
        give_up(*each, after_failure);
}

// Short of memory nothing is heard for a while; that is all.
void sentinel_watch::on_event(tq_loop_watch *, int, int, void *arg)
{
    auto &of = *static_cast<line *>(arg);
    try {
        of.of.step(of);
    } catch (...) {
        of.of.give_up(of, after_failure);
    }
}

int sentinel_watch::on_timer(tq_thread *timer)
{
    static_cast<sentinel_watch *>(tq_thread_arg(timer))->attempt_next();
    return 0;
}

// One at a time: its name may have to be looked up.
void sentinel_watch::attempt_next()
{
    const auto now = steady_clock::now();
    const auto due = [&](const auto &each) { return each->connection == nullptr && each->next_attempt <= now; };
    const auto next = std::find_if(lines_.begin(), lines_.end(), due);
    if (next != lines_.end())
        try {
            attempt(**next);
        } catch (...) {
            give_up(**next, after_failure);
        }
    const bool more = std::any_of(lines_.begin(), lines_.end(), due);
    std::ignore = timer_.start(more ? between_attempts : after_failure);
}

void sentinel_watch::attempt(line &of)
{
    const auto addresses = names_.addresses(of.sentinel.host);
    if (!addresses.empty())
        of.connection = redis_connection::begin({addresses.front(), of.sentinel.port}, link_.url());
    if (of.connection != nullptr)
        of.watch = tq_loop_watch_fd(master_, of.connection->fd(), TQ_LOOP_WRITABLE, on_event, &of);
    if (of.watch == nullptr)
        return give_up(of, after_failure);
    of.next_attempt = steady_clock::now() + after_failure;
}

void sentinel_watch::step(line &of)
{
    if (of.established)
        return take_words(of);
    if (!establish(of))
        give_up(of, after_failure);
}

bool sentinel_watch::establish(line &of)
{
    short needs = POLLIN;
    trouble why;
    const int done = of.connection->establish(of.sentinel.host, link_.url(), needs, why);
    of.established = done == 1;
    if (done == transport_ended || (of.established && !listen(of)))
        return false;
    return tq_loop_watch_events(of.watch, of.established ? TQ_LOOP_READABLE : loop_events(needs)) == 0;
}

bool sentinel_watch::listen(line &of)
{
    command_buffer commands;
    if (link_.greet_sentinel(commands) != TQ_MOM_OK)
        return false;
    commands.command("SUBSCRIBE", "+switch-master");
    return of.connection->send(commands.bytes(), steady_clock::now()) == TQ_MOM_OK;
}

void sentinel_watch::take_words(line &of)
{
    if (!of.connection->take_in())
        return give_up(of, after_failure);
    int parsed = 0;
    while ((parsed = of.connection->parse()) == 1) {
        if (of.connection->replies().is(reply_kind::error))
            return give_up(of, after_its_refusal);
        take_word(of, of.connection->replies());
        of.connection->tape().clear();
    }
    if (parsed < 0)
        give_up(of, after_failure);
}

void sentinel_watch::take_word(const line &of, reply_view reply)
{
    endpoint master;
    if (reply.at(0).text() != "message" || !parse_word(reply.at(2).text(), link_.url().name, master))
        return;
    link_.told_of_master(master, of.sentinel);
    heard_();
}

void sentinel_watch::give_up(line &of, milliseconds pause)
{
    if (of.watch != nullptr)
        tq_loop_unwatch(of.watch);
    of.watch = nullptr;
    of.connection.reset();
    of.established = false;
    of.next_attempt = steady_clock::now() + pause;
}

} // namespace mom
