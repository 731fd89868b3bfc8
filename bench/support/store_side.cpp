// See store_side.hpp.
#include "store_side.hpp"
#include "entry.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <plx/s_policy.pb-c.h>
#include <span>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tq_loop.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr char app_type[] = "security_app"; // its ACEs are tracked without an apply
constexpr uint32_t acl_id = 1;
constexpr uint64_t answers_at_once = 1000;
uint64_t reported = 0;

// A child that does not outlive its parent.
template <class Body> pid_t spawn(Body &&body)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    return pid;
}

struct pipe_ends {
    pipe_ends() { require(pipe(fds) == 0, "pipe"); }
    int fds[2];
};

int32_t on_ok(void *, const fp_udp_acl_info *, uint64_t, const uint8_t *)
{
    return ++reported, 0;
}

int32_t on_failure(void *, const fp_udp_acl_info *, uint64_t, int32_t, const uint8_t *)
{
    require(false, "an ACE");
    return 0;
}

int32_t on_acl_change(void *, const fp_udp_acl_info *, int32_t)
{
    return 0;
}

int32_t on_ace_change(void *, const fp_udp_acl_info *, uint64_t, int32_t)
{
    ++reported;
    return 0;
}

} // namespace

void require(bool done, const char *what)
{
    if (done)
        return;
    std::fprintf(stderr, "bench_store: %s failed\n", what);
    std::exit(1);
}

figures in_process(const std::function<figures()> &body)
{
    const pipe_ends ends;
    const pid_t pid = spawn([&] {
        FILE *out = fdopen(ends.fds[1], "w");
        for (const auto &[name, value] : body())
            std::fprintf(out, "%.17g %s\n", value, name.c_str());
        std::fclose(out);
    });
    close(ends.fds[1]);
    FILE *in = fdopen(ends.fds[0], "r");
    figures taken;
    double value = 0;
    for (char name[128]; std::fscanf(in, "%lf %127[^\n]\n", &value, name) == 2;)
        taken.emplace_back(name, value);
    std::fclose(in);
    int status = 0;
    require(waitpid(pid, &status, 0) == pid && status == 0 && !taken.empty(), "a measuring process");
    return taken;
}

companion::companion(const std::function<void(const std::function<void()> &)> &body)
{
    const pipe_ends ends;
    pid_ = spawn([&] { body([&] { require(write(ends.fds[1], "", 1) == 1, "a companion"); }); });
    close(ends.fds[1]);
    char byte = 0;
    require(read(ends.fds[0], &byte, 1) == 1, "starting a companion");
    close(ends.fds[0]);
}

companion::~companion()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

cpu_meter::cpu_meter(std::initializer_list<pid_t> others) : clocks_{CLOCK_PROCESS_CPUTIME_ID}
{
    for (const pid_t pid : others) {
        clockid_t clock = 0;
        require(clock_getcpuclockid(pid, &clock) == 0, "a CPU clock");
        clocks_.push_back(clock);
    }
}

double cpu_meter::now() const
{
    double sum = 0;
    for (const clockid_t clock : clocks_) {
        timespec time{};
        clock_gettime(clock, &time);
        sum += 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
    }
    return sum;
}

// ---- the library's side

application::application(const std::string &store, hears what)
    : context_(tq_context_new(store.c_str())), manager_(*fp_udp_get_mgr())
{
    require(context_ != nullptr, "a context");
    fp_udp_acl_handler handler{};
    if (what == hears::outcomes) {
        handler.ace_reply_ok_cb = on_ok;
        handler.ace_fail_cb = on_failure;
    }
    if (what == hears::changes)
        handler.acl_change_cb = on_acl_change, handler.ace_change_cb = on_ace_change;
    plx_initial();
    fp_udp_register_app_type(app_type);
    require(fp_udp_register_acl_handler(context_, policy_db, &handler) == 0, "registering");
    ace_ = new_entry(manager_);
    fp_udp_acl acl{};
    std::strcpy(acl.app_type, app_type);
    acl.acl_id = acl_id;
    require(manager_.set_acl(context_, &acl) == 0, "set_acl");
}

application::~application()
{
    manager_.free_ace(ace_);
}

void application::set_ace(uint64_t sn)
{
    fp_udp_acl_key key{};
    std::memcpy(key.app_type, app_type, sizeof app_type);
    key.acl_id = acl_id;
    ace_->sn = sn;
    require(manager_.set_ace(context_, &key, ace_) == 0, "set_ace");
}

uint64_t application::outcomes() const
{
    return reported;
}

void application::turn() const
{
    tq_loop_run_once(context_->master, 100);
}

// ---- the other side

raw_client::raw_client(const redis_server &server, bool as_operator)
    : context_(redisConnectUnix(server.socket().c_str()))
{
    require(context_ != nullptr && context_->err == 0, "connecting");
    freeReplyObject(
        redisCommand(context_.get(), as_operator ? "AUTH plx-operator change-me-operator" : "AUTH suite suite"));
}

void raw_client::adopt(const redis_server &server)
{
    raw_client other(server);
    auto *reply =
        static_cast<redisReply *>(redisCommand(other.context_.get(), "HGETALL plx{8:ace}:security_app,a1,a0"));
    require(reply != nullptr && reply->elements == 14, "an ACE's six fields and stamp");
    fields_.clear();
    for (size_t i = 0; i < reply->elements; i += 2) {
        const std::string name(reply->element[i]->str, reply->element[i]->len);
        if (name == "#")
            continue;
        const auto number = static_cast<unsigned>(std::atoi(name.c_str()));
        const auto *field = protobuf_c_message_descriptor_get_field(&s_policy__ace__descriptor, number);
        require(field != nullptr, "an ACE's field");
        fields_.emplace_back(field->name);
        fields_.emplace_back(reply->element[i + 1]->str, reply->element[i + 1]->len);
    }
    freeReplyObject(reply);
}

static std::string raw_key(uint64_t sn)
{
    return "security_app,a1," + std::to_string(sn);
}

void raw_client::append(const std::vector<std::string> &command, const std::vector<std::string> &more)
{
    std::vector<const char *> words;
    std::vector<size_t> sizes;
    for (const auto *part : {&command, &more})
        for (const std::string &word : *part) {
            words.push_back(word.data());
            sizes.push_back(word.size());
        }
    redisAppendCommandArgv(context_.get(), static_cast<int>(words.size()), words.data(), sizes.data());
}

void raw_client::append(const char *prefix, uint64_t sn)
{
    append({"HMSET", std::string(prefix) + ':' + raw_key(sn)}, fields_);
}

void raw_client::take(size_t answers)
{
    for (; answers > 0; --answers) {
        void *reply = nullptr;
        require(redisGetReply(context_.get(), &reply) == REDIS_OK, "a raw command");
        freeReplyObject(reply);
    }
}

void raw_client::write(const char *prefix, uint64_t sn)
{
    append(prefix, sn);
    take(1);
}

void raw_client::write_group(const char *prefix, uint64_t first, uint64_t end)
{
    const std::string bytes = std::accumulate(fields_.begin(), fields_.end(), std::string());
    std::vector<std::string> index = {"ZADD", prefix + std::string("/index")};
    std::vector<std::string> log = {"XADD", prefix + std::string("/log"), "MAXLEN", "~", "100000", "*"};
    for (uint64_t sn = first; sn < end; ++sn) {
        append(prefix, sn);
        index.insert(index.end(), {"0", raw_key(sn)});
        log.insert(log.end(), {raw_key(sn), bytes});
    }
    append(index, {});
    append(log, {});
    take(end - first + 2);
}

void raw_client::fill(const char *prefix, uint64_t count)
{
    for (uint64_t i = 0; i < count;) {
        const uint64_t end = std::min(count, i + answers_at_once);
        const uint64_t begin = i;
        for (; i < end; ++i)
            append(prefix, i);
        take(end - begin);
    }
}

uint64_t raw_client::scan(const char *prefix)
{
    uint64_t found = 0;
    std::string cursor = "0";
    do {
        auto *page = static_cast<redisReply *>(
            redisCommand(context_.get(), "SCAN %s COUNT 1000 MATCH %s:*", cursor.c_str(), prefix));
        require(page != nullptr && page->type == REDIS_REPLY_ARRAY, "a raw scan");
        cursor = page->element[0]->str;
        const auto keys = std::span(page->element[1]->element, page->element[1]->elements);
        for (const auto *key : keys)
            redisAppendCommand(context_.get(), "HGETALL %b", key->str, key->len);
        take(keys.size());
        found += keys.size();
        freeReplyObject(page);
    } while (cursor != "0");
    return found;
}

void raw_client::trim_log()
{
    freeReplyObject(redisCommand(context_.get(), "XTRIM plx{8:ace}/log MAXLEN 0"));
}

void raw_client::lose_changes()
{
    constexpr char change[] = "XADD plx{8:ace}/log 0-* k x w x d x";
    freeReplyObject(redisCommand(context_.get(), change));
    trim_log();
    freeReplyObject(redisCommand(context_.get(), change));
}

double raw_client::used_memory()
{
    auto *info = static_cast<redisReply *>(redisCommand(context_.get(), "INFO memory"));
    require(info != nullptr && info->type == REDIS_REPLY_STRING, "INFO");
    const double used = std::atof(std::strstr(info->str, "used_memory:") + std::strlen("used_memory:"));
    freeReplyObject(info);
    return used;
}

} // namespace bench
