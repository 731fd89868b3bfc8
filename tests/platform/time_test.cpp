// The event loop and the clock in transcripts (transcripts/time): what timers and watches may do to the loop and to
// each other from inside their callbacks. What ran is shown in its order, by name, a watch with its events.
//
//     timer NAME[@HANDLE] S[,US] : ACTION ; ...   a timer of so many seconds, and what it does: verbs of this list
//     watch NAME r|w|- : ACTION ; ...             on a pair of sockets, or with "broken" for the events on a dead pipe
//     again; unwatch NAME; events NAME r; read NAME; wake NAME [of MOST]; cancel NAME|this|none
//     handle NAME; flags NAME; timeout            what is there
//     stop [N], unwatch NAME [N]                  only once so many callbacks have run
//     run [MS]; once MS; nested N                 run until stopped, so long after the last timer was inserted;
//                                                 poll(2) around the loop
//     ahead MS                                    the loop's clock passes over a time in which the process stood still
//     busy                                        the next timer of libuv starts when its time is already over
//     free; refusals                              another loop instead; what cannot be done
//     no_input                                    standard input is closed: what is opened next has its number
//     timeval S,US; text SIZE                     in us, ms, s; the time as text
#include "support/transcript.hpp"
#include "tq_loop.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <list>
#include <map>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool machine_is_busy = false;
uint64_t clock_ahead_ms = 0;

uint64_t clock_ms()
{
    timeval time;
    tq_monotime(&time);
    return tq_timeval_to_ms(&time);
}

} // namespace

// These stand before libuv's own.
extern "C" uint64_t uv_hrtime(void)
{
    static const auto real = reinterpret_cast<uint64_t (*)()>(dlsym(RTLD_NEXT, "uv_hrtime"));
    return real() + clock_ahead_ms * 1000000;
}

extern "C" int uv_timer_start(void *timer, void *func, uint64_t timeout_ms, uint64_t repeat_ms)
{
    using start_func = int (*)(void *, void *, uint64_t, uint64_t);
    static const auto start = reinterpret_cast<start_func>(dlsym(RTLD_NEXT, "uv_timer_start"));
    const uint64_t begin = clock_ms();
    const int result = start(timer, func, timeout_ms, repeat_ms);
    while (machine_is_busy && clock_ms() <= begin + timeout_ms) {
    }
    return result;
}

namespace {

using Words = std::vector<std::string>;

timeval time_of(const std::string &text)
{
    const size_t comma = text.find(',');
    return {std::stol(text), comma == text.npos ? 0 : std::stol(text.substr(comma + 1))};
}

class Time : public plx::Transcript {
    struct Timer {
        Time *self;
        std::string name, handle, actions;
        timeval interval;
    };
    struct Watch {
        std::string actions;
        tq_loop_watch *watch;
        int fd[2], flags, woken;
    };

  public:
    ~Time() override
    {
        tq_loop_free(master);
        for (auto &[name, watch] : watches)
            close(watch.fd[0]), close(watch.fd[1]);
        if (input >= 0)
            dup2(input, STDIN_FILENO), close(input);
    }

  private:
    std::string perform(const std::string &line) override;
    std::string take() { return std::exchange(heard, {}); }
    void say(const std::string &text) { heard += (heard.empty() ? "" : " ") + text; }
    void act_all(const std::string &actions);
    void act(const Words &words);
    void do_to(Watch &watch, const Words &words);
    void tell(const Words &words);
    int insert(Timer &timer);
    void open(const std::string &name, const std::string &events, const std::string &actions);
    void run(const Words &words);
    void refusals();

    static int fire(tq_thread *thread);
    static void ready(tq_loop_watch *, int fd, int events, void *arg);
    static int events_of(const std::string &text)
    {
        return (text.find('r') != text.npos ? TQ_LOOP_READABLE : 0) |
               (text.find('w') != text.npos || text == "broken" ? TQ_LOOP_WRITABLE : 0);
    }
    bool enough(const Words &words, size_t at) const { return words.size() <= at || ran >= std::stoi(words[at]); }

    tq_thread_master *master = tq_loop_new();
    std::string heard;
    int ran = 0;    // callbacks
    int input = -1; // what was standard input
    uint64_t inserted_ms = 0;
    std::list<Timer> timers;
    std::map<std::string, tq_thread *> handles;
    std::map<std::string, Watch> watches;
    Timer *current = nullptr;
    tq_thread *firing = nullptr;
};

std::string Time::perform(const std::string &line)
{
    const size_t colon = line.find(" : ");
    const std::string actions = colon == line.npos ? "" : line.substr(colon + 3);
    std::istringstream stream(line.substr(0, colon));
    const Words words{std::istream_iterator<std::string>(stream), {}};
    if (words[0] == "timer") {
        const size_t at = words[1].find('@');
        timers.push_back({this, words[1].substr(0, at), words[1].substr(at == words[1].npos ? 0 : at + 1), actions,
                          time_of(words[2])});
        EXPECT_EQ(insert(timers.back()), 0);
    } else if (words[0] == "watch") {
        open(words[1], words[2], actions);
    } else if (words.size() > 1 && watches.contains(words[1])) {
        do_to(watches[words[1]], words);
    } else {
        act(words);
    }
    return current ? "" : take();
}

void Time::act_all(const std::string &actions)
{
    for (size_t at = 0, end; at < actions.size(); at = end + 3) {
        end = std::min(actions.find(" ; ", at), actions.size());
        perform(actions.substr(at, end - at));
    }
}

int Time::insert(Timer &timer)
{
    inserted_ms = clock_ms();
    return tq_thread_insert_timer_timeval(master, &handles[timer.handle], fire, &timer, &timer.interval, "test");
}

int Time::fire(tq_thread *thread)
{
    auto *timer = static_cast<Timer *>(tq_thread_arg(thread));
    Time &self = *timer->self;
    self.say(timer->name);
    ++self.ran;
    self.current = timer, self.firing = thread;
    self.act_all(timer->actions);
    self.current = nullptr;
    return 0;
}

void Time::ready(tq_loop_watch *, int fd, int events, void *arg)
{
    Time &self = *static_cast<Time *>(arg);
    static Timer nobody{};
    for (auto &[name, watch] : self.watches)
        if (watch.fd[0] == fd) {
            self.say(name + (events & TQ_LOOP_READABLE ? ":r" : ":") + (events & TQ_LOOP_WRITABLE ? "w" : ""));
            ++self.ran;
            self.current = &nobody;
            self.act_all(watch.actions);
            self.current = nullptr;
        }
}

void Time::open(const std::string &name, const std::string &events, const std::string &actions)
{
    if (!watches.contains(name)) {
        Watch &made = watches[name];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, made.fd), 0);
        if (events == "broken") {
            close(made.fd[0]), close(made.fd[1]);
            EXPECT_EQ(pipe2(made.fd, O_CLOEXEC), 0);
            std::swap(made.fd[0], made.fd[1]);
            close(std::exchange(made.fd[1], -1));
        }
        made.flags = fcntl(made.fd[0], F_GETFL);
    }
    Watch &watch = watches[name];
    watch.actions = actions;
    watch.watch = tq_loop_watch_fd(master, watch.fd[0], events_of(events), ready, this);
    if (watch.watch == nullptr)
        say("refused");
}

void Time::run(const Words &words)
{
    int result = 0;
    if (words[0] == "nested")
        for (int round = 0; !enough(words, 1) && round < 100 && result == 0; ++round) {
            pollfd outer{tq_loop_fd(master), POLLIN, 0};
            EXPECT_GE(poll(&outer, 1, tq_loop_timeout(master)), 0);
            result = tq_loop_run_once(master, 0);
        }
    else
        result = words[0] == "run" ? tq_loop_run(master) : tq_loop_run_once(master, std::stoi(words[1]));
    machine_is_busy = false;
    if (words[0] == "run" && words.size() > 1 && clock_ms() - inserted_ms < std::stoul(words[1]))
        say("too soon");
    if (result != 0)
        say(result == ENOENT ? "and nothing is left" : strerror(result));
}

void Time::refusals()
{
    const timeval now{0, 0};
    EXPECT_NE(tq_thread_insert_timer_timeval(nullptr, nullptr, fire, this, &now, "test"), 0);
    EXPECT_NE(tq_thread_insert_timer_timeval(master, nullptr, nullptr, this, &now, "test"), 0);
    EXPECT_NE(tq_thread_insert_timer_timeval(master, nullptr, fire, this, nullptr, "test"), 0);
    for (const int none : {-1, 0x7ffffff0})
        EXPECT_EQ(tq_loop_watch_fd(master, none, TQ_LOOP_READABLE, ready, this), nullptr);
    EXPECT_EQ(tq_time_2_string(nullptr, 24), 0);
    EXPECT_NE(tq_monotime(nullptr), 0);
}

void Time::do_to(Watch &watch, const Words &words)
{
    const std::string &verb = words[0];
    char byte = 'x';
    if (verb == "unwatch" && enough(words, 2))
        tq_loop_unwatch(watch.watch);
    if (verb == "events") {
        EXPECT_EQ(tq_loop_watch_events(watch.watch, events_of(words[2])), 0);
    }
    if (verb == "read") {
        EXPECT_EQ(read(watch.fd[0], &byte, 1), 1);
    }
    if (verb == "wake" && (words.size() < 4 || watch.woken++ < std::stoi(words[3]))) {
        EXPECT_EQ(write(watch.fd[1], &byte, 1), 1);
    }
    if (verb == "flags")
        say(fcntl(watch.fd[0], F_GETFL) == watch.flags ? "as before" : "changed");
}

void Time::tell(const Words &words)
{
    char text[32];
    if (words[0] == "timeout")
        return say(std::to_string(tq_loop_timeout(master)));
    if (words[0] == "handle")
        return say(handles.at(words[1]) ? "pending" : "none");
    if (words[0] == "timeval") {
        const timeval time = time_of(words[1]);
        for (const auto count : {tq_timeval_to_us, tq_timeval_to_ms, tq_timeval_to_sec})
            say(std::to_string(static_cast<int64_t>(count(&time))));
        return;
    }
    const size_t size = std::stoul(words.at(1));
    memset(text, '#', sizeof text);
    const std::string told = tq_time_2_string(text, size) ? "" : "none ";
    say(told + (size == 0 ? "" : text[size] != '#' ? "and more" : text));
}

void Time::act(const Words &words)
{
    const std::string &verb = words[0];
    if (verb == "again")
        EXPECT_EQ(insert(*current), 0);
    else if (verb == "cancel")
        tq_thread_cancel(words[1] == "this" ? firing : words[1] == "none" ? nullptr : handles.at(words[1]));
    else if (verb == "ahead")
        clock_ahead_ms += std::stoul(words[1]);
    else if (verb == "busy")
        machine_is_busy = true;
    else if (verb == "free")
        tq_loop_free(std::exchange(master, tq_loop_new()));
    else if (verb == "refusals")
        refusals();
    else if (verb == "no_input")
        input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), close(STDIN_FILENO);
    else if (verb == "run" || verb == "once" || verb == "nested")
        run(words);
    else if (verb != "stop")
        tell(words);
    else if (enough(words, 1))
        tq_loop_stop(master);
}

// The first of a process needs the most.
TEST(Loop, is_refused_where_descriptors_have_run_out)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    tq_thread_master *loop = nullptr;
    for (rlim_t most = 0; loop == nullptr && most < before.rlim_cur; ++most) {
        const rlimit files{most, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &files);
        loop = tq_loop_new();
        EXPECT_TRUE(loop != nullptr || errno == EMFILE) << most;
    }
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_NE(nullptr, loop);
    tq_loop_free(loop);
}

const bool registered = plx::register_transcripts(PLX_TRANSCRIPTS "/time", [] { return new Time; });

} // namespace
