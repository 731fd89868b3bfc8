// See redis_reader.hpp.
#include "redis_reader.hpp"

#include "report.hpp"

#include <algorithm>
#include <utility>

namespace mom {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned entries_per_read = 1024;
constexpr size_t usual_answer = size_t{256} << 10; // bytes of answers that may be longer next time
constexpr uint64_t changes_per_saying = 8192;
constexpr unsigned tries_at_one_entry = 2;
constexpr milliseconds between_questions{1};
constexpr milliseconds busy_time{2}; // how long only the logs that tell something are asked for
constexpr milliseconds busy_answer{3};
constexpr milliseconds remind_pause{2};
constexpr milliseconds sending_time{1000};
constexpr milliseconds look_pause{1000};
constexpr milliseconds wait_after_refusal{1}; // for the answer that tells whether it is over
constexpr milliseconds longest_silence = longest_wait + milliseconds{5000};
constexpr milliseconds between_takes{1};
constexpr milliseconds between_sayings{5000};
constexpr milliseconds between_quick_sayings{100};
constexpr milliseconds between_comparisons{5000};

// Until the next attempt after a failure of this kind.
constexpr milliseconds at_once{0};
constexpr milliseconds after_attempt{50};
constexpr milliseconds longest_after_attempt{60'000};
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

redis_reader::redis_reader(redis_calls &calls, tq_thread_master *master, std::function<void()> look)
    : calls_(calls), look_for_own_(std::move(look)), master_(master),
      timer_(master, on_timer<&redis_reader::on_time>, this, "tq_mom reader"),
      look_timer_(master, on_timer<&redis_reader::look>, this, "tq_mom look")
{
}

redis_reader::~redis_reader()
{
    try {
        follower_.leave();
    } catch (...) { // then it is forgotten in a while
    }
    disconnect();
}

int redis_reader::subscribe(redis_table &table, const key_range &range, change_sink &sink)
{
    if (bell_ == nullptr)
        bell_ = std::make_unique<loop_bell>(master_, on_event<&redis_reader::hear_bell>, this);
    if (sentinels_ == nullptr && calls_.link().url().scheme == store_scheme::sentinel)
        sentinels_ = std::make_unique<sentinel_watch>(calls_.link(), master_, [this] { guard(&redis_reader::move); });
    bool added = false;
    const int result = follower_.subscribe(table, range, sink, added);
    if (result != TQ_MOM_OK)
        return result;
    if (added && life_ == life::asked)
        life_ = life::stale;
    if (added && life_ != life::off)
        follower_.say_where(1);
    guard(&redis_reader::follow); // whatever fails now: the sink has its place
    return TQ_MOM_OK;
}

void redis_reader::follow()
{
    if (life_ == life::off)
        attempt();
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

// One that stands still leaves nine times as long to the application, as those of the link do.
void redis_reader::attempt()
{
    const auto begin = steady_clock::now();
    if (connect() == TQ_MOM_OK)
        return;
    const auto took = std::chrono::ceil<milliseconds>(steady_clock::now() - begin);
    reconnect_in(std::max({calls_.link().pause(), after_attempt, std::min(9 * took, longest_after_attempt)}));
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
    result = pace_.dropped > tries_at_one_entry ? step_over() : TQ_MOM_OK;
    result = result == TQ_MOM_OK ? follower_.settle() : result;
    if (result == TQ_MOM_OK)
        look_for_own_();
    if (result == TQ_MOM_OK)
        tell_own();
    if (result == TQ_MOM_OK)
        follower_.say_where(0);
    return result;
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
        attempt();
        break;
    case life::idle:
        ask();
        break;
    case life::asked:
        await_answer();
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
    if (!line_.connection->take_in())
        return dropped();
    take_answer();
}

// Perhaps the server found its answer too big for us, or we did: entry by entry it tells which.
void redis_reader::dropped()
{
    pace_.dropped += pace_.entries == 1 && life_ == life::asked;
    pace_.entries = 1;
    reconnect_in(at_once);
}

// What cannot be read entry by entry is lost, and what is behind it is read on.
int redis_reader::step_over()
{
    const int result = follower_.step_over();
    if (result == TQ_MOM_OK)
        pace_.dropped = 0;
    return result;
}

void redis_reader::take_answer()
{
    if (accept_answer())
        turn();
}

void redis_reader::await_answer()
{
    if (!line_.connection->take_in())
        return dropped();
    take_answer();
    if (life_ != life::asked || !pace_.busy)
        return;
    if (steady_clock::now() - pace_.asked >= busy_answer) {
        life_ = life::stale;
        remind();
    } else if (!timer_.start(busy_answer)) {
        reconnect_in(after_lack_of_memory);
    }
}

bool redis_reader::accept_answer()
{
    const int parsed = line_.connection->parse();
    if (parsed == 0)
        return false;
    refused_ = parsed < 0 || !follower_.accept(line_.connection->replies());
    if (refused_)
        return reconnect_in(after_refusal), false;
    const bool usual = line_.connection->tape().bytes() <= usual_answer;
    pace_.entries = usual ? std::min(pace_.entries * 2, entries_per_read) : std::max(pace_.entries / 2, 1u);
    pace_.dropped = 0;
    line_.connection->tape().clear();
    become(life::idle);
    return true;
}

void redis_reader::meanwhile()
{
    const auto now = steady_clock::now();
    if (life_ == life::off || delivery_.in_round() || now - pace_.taken < between_takes)
        return;
    pace_.taken = now;
    guard(&redis_reader::take_meanwhile);
}

// What came is delivered by the loop. A question that a call is about to take along is left to it.
void redis_reader::take_meanwhile()
{
    if (life_ == life::asked || life_ == life::stale) {
        if (!line_.connection->take_in())
            return dropped();
        if (accept_answer())
            bell_->ring();
    }
    if (life_ == life::idle && !timer_.running() && !timer_.start(at_once))
        ask();
    say_where(pace_.taken);
}

// ---- questions

// Puts the question together that is due, and counts it as asked.
bool redis_reader::question()
{
    if (life_ != life::idle || delivery_.has_enough())
        return false;
    const auto now = steady_clock::now();
    const auto scope = follower_.question(commands_, pace_.entries, refused_ ? wait_after_refusal : longest_wait,
                                          now - pace_.asked_all < busy_time ? busy_time : milliseconds{0});
    if (scope == redis_follower::scope::nothing) {
        refused_ = false;
        return false;
    }
    become(life::asked);
    pace_.asked = now;
    pace_.busy = scope == redis_follower::scope::busy;
    if (!pace_.busy)
        pace_.asked_all = now;
    else if (!timer_.start(busy_answer))
        reconnect_in(after_lack_of_memory);
    return life_ == life::asked;
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
        return reconnect_in(at_once);
    if (!line_.connection->has_input())
        return;
    timer_.stop();
    if (!timer_.start(at_once))
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
    if (!look_timer_.start(look_pause))
        bell_->ring();
    say_where(steady_clock::now());
    ask_in_time();
}

// How far the tables were read: soon after much of it, else now and then, so that the store goes on believing it.
void redis_reader::say_where(steady_time now)
{
    const bool due = now - pace_.said >= between_sayings;
    if (!due && now - pace_.said < between_quick_sayings)
        return;
    pace_.said = now;
    follower_.say_where(due ? 0 : changes_per_saying);
}

// False: what was asked for is another history's, or the store does not answer.
bool redis_reader::compare()
{
    const auto now = steady_clock::now();
    if (now - pace_.compared < between_comparisons)
        return true;
    pace_.compared = now;
    bool parted = false;
    return follower_.compare(parted) == TQ_MOM_OK && !parted;
}

void redis_reader::lost_own(const redis_table &table)
{
    report(TQ_ZLOG_WARN, "the policy store has lost what was written to " + table.log.substr(0, table.log.find('/')));
    lost_own_ = follower_.follows();
}

void redis_reader::tell_own()
{
    if (lost_own_ && follower_.lose_answers() == TQ_MOM_OK)
        lost_own_ = false;
}

// Another server has become the master. Inside a round the next look does it.
void redis_reader::move()
{
    const bool stays = life_ != life::off && !calls_.link().elsewhere(*line_.connection);
    if (stays || delivery_.in_round() || !follower_.follows())
        return;
    disconnect();
    reconnect_in(at_once);
}

// A table that is whole again comes in with a new connection; and so does everything after an answer that is overdue.
void redis_reader::look()
{
    if (!look_timer_.start(look_pause))
        bell_->ring();
    if (life_ == life::off || delivery_.in_round())
        return;
    if (life_ != life::idle && !line_.connection->take_in())
        return dropped();
    if (life_ != life::idle)
        take_answer();
    const bool silent =
        life_ != life::idle && life_ != life::off && steady_clock::now() - pace_.asked > longest_silence;
    if (life_ != life::off &&
        (silent || calls_.link().elsewhere(*line_.connection) || follower_.any_whole_again() || !compare()))
        return reconnect_in(at_once);
    tell_own();
    say_where(steady_clock::now());
}

} // namespace mom
