// See redis_server.hpp.
#include "redis_server.hpp"

#include <filesystem>
#include <fstream>
#include <hiredis/hiredis.h>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct free_context {
    void operator()(redisContext *context) const { redisFree(context); }
};
using context_ptr = std::unique_ptr<redisContext, free_context>;

std::string text_of(const redisReply *reply)
{
    if (reply == nullptr)
        return "no answer";
    if (reply->type == REDIS_REPLY_INTEGER)
        return std::to_string(reply->integer);
    if (reply->type == REDIS_REPLY_NIL)
        return "nil";
    if (reply->type != REDIS_REPLY_ARRAY)
        return {reply->str, reply->len};
    std::string all;
    for (size_t i = 0; i < reply->elements; ++i)
        all += (i == 0 ? "" : " ") + text_of(reply->element[i]);
    return all;
}

std::string ask(redisContext *context, const std::vector<std::string> &command)
{
    std::vector<const char *> words;
    std::vector<size_t> sizes;
    for (const auto &word : command) {
        words.push_back(word.data());
        sizes.push_back(word.size());
    }
    auto *reply = static_cast<redisReply *>(
        redisCommandArgv(context, static_cast<int>(words.size()), words.data(), sizes.data()));
    const std::string text = text_of(reply);
    freeReplyObject(reply);
    return text;
}

} // namespace

redis_server::redis_server()
{
    configure();
}

// What is shipped, with the paths of this server and one user more.
void redis_server::configure() const
{
    std::ofstream(directory() + "/acl")
        << std::ifstream(PLX_REDIS_CONFIG "/plx-store.acl").rdbuf()
        << "user suite on >suite resetkeys ~plx{* resetchannels -@all +ping +role +info +time "
           "+memory|usage +wait +client|id "
           "+client|unblock +multi +exec +discard +evalsha +script|load +hgetall +hget +hmget +hstrlen "
           "+hexists +hlen +hset +hsetnx +hincrby +hdel +del +exists +zadd +zrem +zrangebylex +xadd +xtrim +xread "
           "+xrange +xrevrange +xinfo|stream\n";
    std::ifstream shipped(PLX_REDIS_CONFIG "/plx-store.conf");
    std::ofstream config(directory() + "/conf");
    for (std::string line; std::getline(shipped, line);)
        if (!line.starts_with("dir ") && !line.starts_with("unixsocket ") && !line.starts_with("aclfile "))
            config << line << "\n";
    config << "dir " << directory() << "\nunixsocket " << socket_ << "\naclfile " << directory() << "/acl\nlogfile "
           << directory() << "/log\n";
}

void redis_server::start(const std::vector<std::string> &options, const std::string &answer)
{
    std::vector<std::string> words = {directory() + "/conf"};
    words.insert(words.end(), options.begin(), options.end());
    launch(words, answer);
}

const std::string &redis_server::certificates()
{
    static const std::string made = PLX_CERTIFICATES_DIRECTORY;
    static const auto result = plx::tool::run_program("sh", {PLX_CERTIFICATES, made});
    if (result.exit_code != 0)
        throw std::runtime_error("no certificates: " + result.err);
    return made;
}

std::vector<std::string> redis_server::tls_options(const std::string &port)
{
    const auto &files = certificates();
    return {"--port",
            "0",
            "--bind",
            "127.0.0.1",
            "--tls-port",
            port,
            "--tls-auth-clients",
            "no",
            "--tls-replication",
            "yes",
            "--tls-cert-file",
            files + "/server.pem",
            "--tls-key-file",
            files + "/server.key",
            "--tls-ca-cert-file",
            files + "/ca.pem"};
}

void redis_server::start_sentinel(const std::string &port, const std::string &master, bool tls)
{
    const std::string file = directory() + "/sentinel.conf";
    std::ofstream(file) << "port " << (tls ? "0" : port) << "\nbind 127.0.0.1\ndir " << directory() << "\nunixsocket "
                        << socket_ << "\nlogfile " << directory() << "/log\nsentinel monitor policy 127.0.0.1 "
                        << master
                        << " 1\nsentinel auth-user policy plx-sentinel\nsentinel auth-pass policy change-me-sentinel\n"
                        << "user default off\nuser plx-operator on >change-me-operator allkeys allchannels +@all\n"
                        << "sentinel down-after-milliseconds policy 300\nsentinel failover-timeout policy 2000\n";
    std::vector<std::string> words = {file, "--sentinel"};
    if (tls)
        for (const auto &word : tls_options(port))
            words.push_back(word);
    launch(words, "PONG");
}

std::string redis_server::free_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), size) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0;
    close(fd);
    if (!bound)
        throw std::runtime_error("no free port");
    return std::to_string(ntohs(address.sin_port));
}

void redis_server::launch(const std::vector<std::string> &words, const std::string &answer)
{
    process_.emplace("redis-server", words);
    const auto answers = [&] { return run({"PING"}).starts_with(answer); };
    if (!process_->wait_for(answers, 20, directory()))
        throw std::runtime_error("the server does not answer");
}

std::string redis_server::run(const std::vector<std::string> &command) const
{
    const context_ptr context(redisConnectUnix(socket_.c_str()));
    if (context == nullptr || context->err != 0)
        return "no connection";
    ask(context.get(), {"AUTH", "plx-operator", "change-me-operator"});
    return ask(context.get(), command);
}

void redis_server::erase_data()
{
    for (const auto &entry : std::filesystem::directory_iterator(directory()))
        if (entry.path().filename().string().starts_with("appendonly") || entry.path().extension() == ".rdb")
            std::filesystem::remove_all(entry.path());
}

std::string redis_server::url(const std::string &user, const std::string &options) const
{
    return "unix:" + socket_ + "?" + credentials(user) + (options.empty() ? "" : "&" + options);
}

std::string redis_server::credentials(const std::string &user) const
{
    const std::string password = user == "suite" ? "suite" : "change-me-" + user.substr(user.find('-') + 1);
    const std::string file = directory() + "/" + user + ".password";
    std::ofstream(file) << password << "\n";
    return "user=" + user + "&password-file=" + file;
}
