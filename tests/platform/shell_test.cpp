// The debug shell in transcripts, on both of its ends: what a line becomes for a command (line.txt), plx shell beside
// modules (shell.txt), and modules beside clients that say anything (ssat.txt); and the system log (zlog.txt):
//
//     serve NAME; crash; stop    a process with that module and commands that print, fail, flood and misbehave, or why
//                                not; the last begun dies, or ends in an orderly way (so that leak checks see it)
//     serve_as_other NAME        as another user, where there is a choice
//     alive                      the modules
//     open CLIENT [NAME]         a connection to app.fp or that module
//     ask CLIENT LINE            a status, and what was printed, with [cut] where it was cut
//     raw CLIENT TEXT; all CLIENT; close CLIENT     bytes; what comes until the end, once it has said its last
//     other_user                 what the module tells one
//     interrupted on|off         signals all the time
//     later EAGAIN|off           every second call that sends or receives finds that it must wait, though poll says no
//     silent CLIENT LINE         what comes of it where nothing ever arrives and signals do, and when
//     limit N|none               how many descriptors more the last module may have
//     accepts N                  waits for its N-th try to take a connection
//     root                       the rest is for root alone
//     environment NAME [FOLDER]  of all that comes
#include "command.hpp"
#include "shell_line.hpp"
#include "ssat.h"
#include "ssat_client.h"
#include "support/session.hpp"
#include "tq_context.h"
#include "tq_loop.h"
#include "tq_zlog.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <list>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

static std::string log_path;
static int later_error = 0;
static int *const accepts = // by all modules
    static_cast<int *>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

template <class Function, class... Arguments>
static auto now_or_later(const char *name, Function *, Arguments... arguments)
{
    static bool waits = false;
    const bool later = later_error != 0 && (waits = !waits);
    errno = later_error;
    return later ? -1 : reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name))(arguments...);
}

// These come before the C library's own.
extern "C" ssize_t send(int fd, const void *bytes, size_t size, int flags)
{
    return now_or_later("send", send, fd, bytes, size, flags);
}

extern "C" ssize_t recv(int fd, void *bytes, size_t size, int flags)
{
    return now_or_later("recv", recv, fd, bytes, size, flags);
}

static int64_t silence_ms = -1; // that has passed, where nothing arrives

extern "C" int poll(pollfd *watched, nfds_t count, int timeout)
{
    static const auto real = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    if (silence_ms < 0 || count == 0 || watched->events != POLLIN)
        return real(watched, count, timeout);
    silence_ms += std::min(timeout, 400);
    return errno = EINTR, timeout > 400 ? -1 : 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    static const auto real = reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (silence_ms < 0)
        return real(clock, now);
    *now = {silence_ms / 1000, silence_ms % 1000 * 1000000};
    return 0;
}

extern "C" int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    ++*accepts;
    static const auto real = reinterpret_cast<decltype(&accept4)>(dlsym(RTLD_NEXT, "accept4"));
    return real(fd, address, size, flags);
}

// Comes before the logging library's own.
extern "C" void tqdf_zlog(void *, const char *, size_t, const char *, size_t, long, int level, const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::ofstream(log_path, std::ios::app) << level << ' ' << text << '\n';
}

namespace {

using namespace ssat;
using plx::take_word;
using plx::unescaped;

std::string describe(const std::string &text)
{
    const auto arguments = parse_description(text);
    return arguments ? usage({"cmd", text, *arguments, nullptr}) : "refused";
}

// The arguments that a line gives, as one text; or the error.
std::string bound(const std::string &description, const std::string &line)
{
    const command command{"cmd", description, parse_description(description).value(), nullptr};
    std::vector<word> words;
    std::vector<ssat_value> values;
    std::string error = split_line(line, words);
    if (error.empty())
        error = bind_arguments(command, words, values);
    std::string text;
    for (size_t i = 0; i < values.size() && error.empty(); ++i) {
        const conversion kind = command.arguments[i].kind;
        text += i ? "," : "";
        text += kind == conversion::text     ? values[i].s
                : kind == conversion::number ? std::to_string(values[i].d)
                                             : std::to_string(values[i].x);
    }
    return error.empty() ? text : "error: " + error;
}

std::string joined(const std::string &text)
{
    std::vector<std::string> words(1);
    for (const char c : text)
        if (c == '|')
            words.emplace_back();
        else
            words.back() += c;
    return plx::tool::join_words(words);
}

std::string completed(const std::string &line)
{
    const auto commands = plx::tool::parse_help("debug_off\tclose debug\ndebug_on\topen debug\n"
                                                "dump app_type=%s acl_id=%d\tapp_type=%s, acl_id=%d, $n\n");
    const auto [insert, candidates] = complete(commands, line.substr(0, line.size() - 1));
    std::string text = "'" + insert + "'";
    for (const std::string &candidate : candidates)
        text += ' ' + candidate;
    return text;
}

std::string helped(const std::string &help)
{
    std::string text;
    for (const auto &[name, arguments] : plx::tool::parse_help(help)) {
        text += name;
        for (const std::string &argument : arguments)
            text += ' ' + argument;
        text += '\n';
    }
    return text;
}

// What texts become, without a module.
std::optional<std::string> made_of(const std::string &verb, const std::string &text)
{
    if (verb == "describe")
        return describe(text);
    if (verb == "line" || verb == "bare")
        return bound(verb == "line" ? "app=%s, id=%d, mask=%x, $n" : "open debug", unescaped(text));
    if (verb == "words")
        return joined(text);
    if (verb == "complete")
        return completed(text);
    return verb == "help" ? std::optional(helped(unescaped(text))) : std::nullopt;
}

constexpr char module_name[] = "app.fp";
constexpr uid_t nobody = 65534;
tq_context context;
int calls = 0;

int print_pid(int, const ssat_value *)
{
    printf("%d\n", getpid());
    return 0;
}

int flood(int, const ssat_value *argv)
{
    for (uint32_t i = 0; i < argv[0].x; ++i)
        printf("0123456789abcde\n");
    return 0;
}

int throw_error(int, const ssat_value *)
{
    printf("before");
    throw std::runtime_error("handler");
}

int run_loop(int, const ssat_value *)
{
    printf("in ");
    for (int i = 0; i < 20; ++i)
        tq_loop_run_once(context.master, 1);
    printf("out");
    return 0;
}

int register_commands()
{
    const struct {
        const char *name, *description;
        ssat_handler handler;
    } commands[] = {
        {"values", "name=%s, id=%d, mask=%x, $n",
         [](int n, const ssat_value *v) { return printf("%d:%s,%d,%x\n", n, v[0].s, v[1].d, v[2].x) < 0 ? 1 : 0; }},
        {"pid", "tell the process", print_pid},
        {"count", "$n", [](int, const ssat_value *) { return printf("%d", ++calls) < 0 ? 1 : 0; }},
        {"fail", "$n", [](int, const ssat_value *) { return printf("ok 0\n") < 0 ? 0 : -1; }},
        {"flood", "lines=%x", flood},
        {"throw", "$n", throw_error},
        {"die", "$n", [](int, const ssat_value *) -> int { _exit(0); }},
        {"loop", "$n", run_loop},
        {"mute", "$n", [](int, const ssat_value *) { return close(STDERR_FILENO); }},
        {"straight", "$n", [](int, const ssat_value *) { return write(STDOUT_FILENO, "straight", 8) == 8 ? 0 : -1; }}};
    for (const auto &[name, description, handler] : commands)
        if (const int error = ssat_reg_mod_cmd(module_name, name, 0, description, handler))
            return error;
    return 0;
}

void stop_loop(tq_loop_watch *, int, int, void *arg)
{
    tq_loop_stop(static_cast<tq_thread_master *>(arg));
}

// What the module's process does until `until` is closed at its other end. Standard output goes to a file.
[[noreturn]] void serve(const char *module, int until, const std::string &output, uid_t user)
{
    signal(SIGPIPE, SIG_DFL);
    if (!freopen(output.c_str(), "w", stdout) || setuid(user) != 0)
        _exit(2);
    prctl(PR_SET_DUMPABLE, 1); // so that the leak check may look
    printf("begin ");
    context.master = tq_loop_new();
    const int error = ssat_lib_init(&context, module);
    if (error == 0 && strcmp(module, module_name) == 0 && register_commands() != 0)
        _exit(3);
    tq_loop_watch_fd(context.master, until, TQ_LOOP_READABLE, stop_loop, context.master);
    if (write(until, &error, sizeof error) != sizeof error || error != 0)
        exit(1);
    tq_loop_run(context.master);
    printf("end");
    tq_loop_free(context.master);
    exit(0);
}

// A module in a process of its own, and the pipe that it ends with.
struct Server {
    std::unique_ptr<plx::tool::Process> process;
    int until;
};

std::string received(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
        text.append(buffer, static_cast<size_t>(got));
    return text;
}

// As another user: connects to the module's socket and says what it is told.
[[noreturn]] void be_other_user(const std::string &path, int to)
{
    sockaddr_un address{AF_UNIX, {}};
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = setuid(nobody) == 0 ? socket(AF_UNIX, SOCK_STREAM, 0) : -1;
    std::string text = "no connection";
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        text = (send(fd, "count\n", 6, MSG_NOSIGNAL), received(fd)); // it may have been refused already
    _exit(write(to, text.data(), text.size()) < 0);
}

class Shell : public plx::Session {
  public:
    Shell()
    {
        setenv("PLX_SHELL_DIR", (directory_.path() + "/shell").c_str(), 1);
        setenv("ZLOG", ZLOG_STAND_INS, 1);
        unsetenv("ZLOG_CONF_PATH");
        *accepts = 0;
        log_path = directory_.path() + "/log";
    }
    ~Shell() override
    {
        for (const auto &[name, fd] : clients_)
            close(fd);
        while (!servers_.empty())
            stop();
    }

  private:
    std::string perform(const std::string &line) override;
    std::string serve(const std::string &module, uid_t user);
    std::string stop();
    std::string client(const std::string &verb, const std::string &name, const std::string &text);
    std::string ask(int fd, const std::string &line);
    std::string of_other_user();

    std::list<Server> servers_; // the last begun first, as each holds open what would end those before it
    std::map<std::string, int> clients_;
};

std::string Shell::serve(const std::string &module, uid_t user)
{
    int fds[2], error = -1;
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    servers_.push_front({std::make_unique<plx::tool::Process>([&] {
                             close(fds[0]);
                             ::serve(module.c_str(), fds[1], directory_.path() + "/out", user);
                         }),
                         fds[0]});
    close(fds[1]);
    EXPECT_EQ(read(fds[0], &error, sizeof error), static_cast<ssize_t>(sizeof error));
    setenv("PID", std::to_string(servers_.front().process->pid()).c_str(), 1);
    return error == 0 ? "" : strerror(error);
}

std::string Shell::stop()
{
    const Server server = std::move(servers_.front());
    servers_.pop_front();
    close(server.until);
    const int code = server.process->wait();
    return code == 0 ? "" : "= " + std::to_string(code);
}

std::string Shell::ask(int fd, const std::string &line)
{
    constexpr const char *names[] = {"ok", "failed", "usage", "unknown", "denied"};
    std::string text;
    int cut = 0;
    const auto append = [](const char *piece, size_t size, void *arg) {
        static_cast<std::string *>(arg)->append(piece, size);
    };
    const int status = ssat_client_run(fd, line.c_str(), append, &text, &cut);
    return status < 0 ? strerror(errno) : names[status] + std::string(": ") + text + (cut ? "[cut]" : "");
}

std::string Shell::client(const std::string &verb, const std::string &name, const std::string &text)
{
    if (verb == "open") {
        const int fd = clients_[name] = ssat_client_connect(text.empty() ? module_name : text.c_str());
        return fd < 0 ? strerror(errno) : "";
    }
    const int fd = clients_.at(name);
    if (verb == "ask")
        return ask(fd, text);
    if (verb == "silent") {
        silence_ms = 0;
        const std::string came = ask(fd, text);
        return came + " after " + std::to_string(std::exchange(silence_ms, -1)) + " ms";
    }
    if (verb == "raw" && send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        return strerror(errno);
    if (verb == "all") {
        shutdown(fd, SHUT_WR);
        return received(fd);
    }
    if (verb == "close")
        close(fd), clients_.erase(name);
    return {};
}

std::string Shell::of_other_user()
{
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const plx::tool::Process other([&] { be_other_user(directory_.path() + "/shell/app.fp", fds[1]); });
    close(fds[1]);
    const std::string text = received(fds[0]);
    close(fds[0]);
    return text;
}

bool asleep(pid_t pid)
{
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), line);
    return line.find(") S ") != std::string::npos;
}

void interrupt(bool on)
{
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    sigaction(SIGALRM, &ignored, nullptr);
    const itimerval often{{0, 1000}, {0, 1000}}, never{};
    setitimer(ITIMER_REAL, on ? &often : &never, nullptr);
}

std::string modules()
{
    std::multiset<std::string> all;
    const auto add = [](const char *module, void *arg) {
        static_cast<std::multiset<std::string> *>(arg)->insert(module);
    };
    EXPECT_EQ(ssat_client_modules(add, &all), 0);
    std::string text;
    for (const std::string &one : all)
        text += testing::PrintToString(one) + '\n';
    return text;
}

std::string Shell::perform(const std::string &line)
{
    std::string text = line;
    const std::string verb = take_word(text);
    if (const auto made = made_of(verb, text))
        return *made;
    if (verb == "serve")
        return serve(unescaped(text), geteuid());
    if (verb == "serve_as_other")
        return serve(text, geteuid() == 0 ? nobody : geteuid());
    if (verb == "crash") {
        servers_.front().process.reset();
        close(servers_.front().until);
        servers_.pop_front();
    } else if (verb == "stop") {
        return stop();
    } else if (verb == "alive") {
        return modules();
    } else if (verb == "other_user") {
        return of_other_user();
    } else if (verb == "later") {
        later_error = text == "off" ? 0 : EAGAIN;
    } else if (verb == "limit") {
        const pid_t pid = servers_.front().process->pid();
        while (!asleep(pid)) // it may still have something open for what it was asked last
            poll(nullptr, 0, 1);
        rlim_t most = text == "none" ? 1024 : 0;
        for (int free = text == "none" ? 0 : std::stoi(text); free > 0; ++most)
            free -= std::filesystem::is_symlink("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(most)) ? 0 : 1;
        const rlimit files{most, 1024};
        EXPECT_EQ(prlimit(pid, RLIMIT_NOFILE, &files, nullptr), 0);
    } else if (verb == "accepts") {
        for (int turn = 0; *accepts < std::stoi(text) && turn < 10000; ++turn)
            poll(nullptr, 0, 1);
        return std::to_string(*accepts);
    } else if (verb == "interrupted") {
        interrupt(text == "on");
    } else if (verb == "root") {
        return geteuid() == 0 ? "" : skip("this is for root");
    } else if (verb == "environment") {
        const std::string name = take_word(text), path = directory_.path() + '/' + text;
        text.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), path.c_str(), 1);
    } else if (verb == "open" || verb == "ask" || verb == "raw" || verb == "all" || verb == "close" ||
               verb == "silent") {
        const std::string name = take_word(text);
        return readable(client(verb, name, unescaped(text)));
    } else {
        return Session::perform(line);
    }
    return {};
}

TEST(registration, refuses_what_cannot_work)
{
    const plx::tool::TemporaryDirectory files;
    setenv("PLX_SHELL_DIR", (files.path() + "/shell").c_str(), 1);
    tq_context own{nullptr, tq_loop_new()};
    EXPECT_NE(ssat_lib_init(nullptr, "direct"), 0);
    EXPECT_NE(ssat_lib_init(&own, nullptr), 0);
    EXPECT_NE(ssat_reg_mod_cmd("direct", "pid", 0, "$n", print_pid), 0) << "not opened yet";
    ASSERT_EQ(ssat_lib_init(&own, "direct"), 0);
    EXPECT_EQ(ssat_lib_init(&own, "direct"), 0) << "the same again";
    EXPECT_NE(ssat_lib_init(&context, "direct"), 0) << "another context";
    EXPECT_EQ(ssat_reg_mod_cmd("direct", "pid", 0, "$n", print_pid), 0);
    const struct {
        const char *name, *description;
        ssat_handler handler;
    } refused[] = {{"pid", "$n", print_pid},    {"help", "$n", print_pid},  {"two words", "$n", print_pid},
                   {"a", "a=%f", print_pid},    {"a", "$n", nullptr},       {"a", "two\nlines", print_pid},
                   {"a", "del\x7f", print_pid}, {nullptr, "$n", print_pid}, {"a", nullptr, print_pid}};
    for (const auto &[name, description, handler] : refused)
        EXPECT_NE(ssat_reg_mod_cmd("direct", name, 0, description, handler), 0);
    tq_loop_free(own.master);
}

const bool registered = plx::register_transcripts(PLX_TRANSCRIPTS, [] { return new Shell; });

} // namespace
