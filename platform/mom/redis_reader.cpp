// See redis_reader.hpp.
#include "redis_reader.hpp"

#include <algorithm>
#include <utility>

namespace mom {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned entries_per_read = 128;
constexpr milliseconds between_questions{1};
constexpr milliseconds busy_time{2}; // how long only the logs that tell something are asked for
constexpr milliseconds remind_pause{2};
constexpr milliseconds sending_time{1000};
constexpr milliseconds look_pause{1000};

// Until the next attempt after a failure of this kind.
constexpr milliseconds at_once{0};
constexpr milliseconds after_attempt{50};
constexpr milliseconds after_refusal{50};
constexpr milliseconds after_recovery{100};
constexpr milliseconds after_lack_of_memory{1000};

} // namespace

// ---- what the loop calls

void redis_reader::guard(void (redis_reader::*step)())
{
    try {
        (this->*step)();
    } catch (...) {
        reconnect_in(after_lack_of_memory);
    }
}

template <void (redis_reader::*Step)()> void redis_reader::on_event(tq_loop_watch *, int, int, void *arg)
{
    static_cast<redis_reader *>(arg)->guard(Step);
}

template <void (redis_reader::*Step)()> int redis_reader::on_timer(tq_thread *timer)
{
    static_cast<redis_reader *>(tq_thread_arg(timer))->guard(Step);
    return 0;
}

redis_reader::redis_reader(redis_calls &calls, tq_thread_master *master)
    : calls_(calls), master_(master), timer_(master, on_timer<&redis_reader::on_time>, this, "tq_mom reader"),
      look_timer_(master, on_timer<&redis_reader::look>, this, "tq_mom look")
{
}

redis_reader::~redis_reader()
{
    disconnect();
}

int redis_reader::subscribe(redis_table &table, const key_range &range, change_sink &sink)
{
    if (bell_ == nullptr)
        bell_ = std::make_unique<loop_bell>(master_, on_event<&redis_reader::hear_bell>, this);
    bool added = false;
    const int result = follower_.subscribe(table, range, sink, added);
    if (result != TQ_MOM_OK)
        return result;
    if (added && life_ == life::asked)
        life_ = life::stale;
    guard(&redis_reader::follow); // whatever fails now: the sink has its place
    return TQ_MOM_OK;
}

void redis_reader::follow()
{
    if (life_ == life::off && connect() != TQ_MOM_OK)
        reconnect_in(calls_.link().pause());
    else if (life_ == life::stale)
        remind();
    else
        ask();
}

// ---- the connection

// The timer served what was.
void redis_reader::become(life next)
{
    life_ = next;
    timer_.stop();
}

int redis_reader::connect()
{
    line next;
    const int result = prepare(next);
    if (result != TQ_MOM_OK)
        return result;
    next.watch =
        tq_loop_watch_fd(master_, next.connection->fd(), TQ_LOOP_READABLE, on_event<&redis_reader::take_in>, this);
    if (next.watch == nullptr)
        return TQ_MOM_NO_MEMORY;
    line_ = std::move(next);
    become(life::idle);
    ask();
    bell_->ring();
    return TQ_MOM_OK;
}

int redis_reader::prepare(line &next)
{
    int result = calls_.link().ensure();
    if (result == TQ_MOM_OK)
        next.connection = calls_.link().open(result);
    if (next.connection == nullptr)
        return result;
    commands_.clear();
    commands_.command("CLIENT", "ID");
    result = next.connection->exchange(commands_);
    if (result != TQ_MOM_OK)
        return result;
    next.id = std::to_string(next.connection->replies().integer());
    next.connection->tape().clear();
    return follower_.settle();
}

void redis_reader::disconnect()
{
    if (line_.watch != nullptr)
        tq_loop_unwatch(line_.watch);
    line_ = {};
    become(life::off);
}

void redis_reader::reconnect_in(milliseconds pause)
{
    if (life_ != life::off)
        disconnect();
    if (!timer_.start(std::max(pause, milliseconds{1})))
        bell_->ring(); // takes no memory: the next turn tries again
}

void redis_reader::on_time()
{
    switch (life_) {
    case life::off:
        if (connect() != TQ_MOM_OK)
            reconnect_in(std::max(calls_.link().pause(), after_attempt));
        break;
    case life::idle:
        ask();
        break;
    case life::asked:
        take_answer();
        break;
    case life::stale:
        take_answer();
        if (life_ == life::stale)
            remind();
        break;
    }
}

void redis_reader::take_in()
{
    if (!line_.connection->take_in()) { // perhaps the server found its answer too big for us
        pace_.entries = std::max(pace_.entries / 2, 1u);
        return reconnect_in(at_once);
    }
    take_answer();
}

void redis_reader::take_answer()
{
    const int parsed = line_.connection->parse();
    if (parsed == 0)
        return;
    if (parsed < 0 || !follower_.accept(line_.connection->replies()))
        return reconnect_in(after_refusal);
    line_.connection->tape().clear();
    become(life::idle);
    pace_.entries = std::min(pace_.entries * 2, entries_per_read);
    turn();
}

// ---- questions

// Puts the question together that is due, and counts it as asked.
bool redis_reader::question()
{
    if (life_ != life::idle || delivery_.has_enough())
        return false;
    const auto now = steady_clock::now();
    const auto scope =
        follower_.question(commands_, pace_.entries, now - pace_.asked_all < busy_time ? busy_time : milliseconds{0});
    if (scope == redis_follower::scope::nothing)
        return false;
    become(life::asked);
    pace_.asked = now;
    if (scope == redis_follower::scope::all)
        pace_.asked_all = now;
    return true;
}

void redis_reader::ask()
{
    if (question() && line_.connection->send(commands_.bytes(), pace_.asked + sending_time) != TQ_MOM_OK)
        reconnect_in(at_once);
}

void redis_reader::ask_in_time()
{
    const bool answering = std::exchange(pace_.calls, calls_.count()) != calls_.count();
    if (life_ != life::idle)
        return;
    if (!answering && steady_clock::now() - pace_.asked >= between_questions)
        return ask();
    if (!timer_.start(answering ? at_once : between_questions))
        ask();
}

ride redis_reader::offer()
{
    if (!timer_.running() || !question())
        return {};
    return {line_.connection.get(), commands_.bytes()};
}

// What came behind the answers to the call is not told by the socket any more.
void redis_reader::rode(const ride &along, bool arrived)
{
    if (along.on == nullptr)
        return;
    if (!arrived)
        reconnect_in(at_once);
    else if (line_.connection->has_input() && !timer_.start(at_once))
        reconnect_in(after_lack_of_memory);
}

void redis_reader::remind()
{
    const int asked = calls_.ask([this](command_buffer &commands) { commands.command("CLIENT", "UNBLOCK", line_.id); });
    if (asked != TQ_MOM_OK || calls_.link().replies().integer() != 1)
        if (!timer_.start(remind_pause))
            reconnect_in(at_once);
}

// ---- delivery

void redis_reader::hear_bell()
{
    bell_->silence();
    turn();
}

void redis_reader::turn()
{
    if (delivery_.in_round())
        return;
    if (life_ == life::off && !timer_.running())
        reconnect_in(after_lack_of_memory);
    const auto [more, result] = delivery_.round();
    if (result != TQ_MOM_OK)
        reconnect_in(after_recovery);
    if (more)
        bell_->ring();
    if (delivery_.any_aside() && !look_timer_.start(look_pause))
        bell_->ring();
    ask_in_time();
}

// A table that is whole again comes in with a new connection.
void redis_reader::look()
{
    if (follower_.any_whole_again())
        reconnect_in(at_once);
    else if (delivery_.any_aside() && !look_timer_.start(look_pause))
        bell_->ring();
}

} // namespace mom
