// See redis_connection.hpp.
#include "redis_connection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <tq_mom.h>

namespace mom {
namespace {

using std::chrono::steady_clock;

void set_option(int fd, int level, int name, int value)
{
    setsockopt(fd, level, name, &value, sizeof value);
}

// A peer that vanished without a word is noticed within about ten seconds, whether it owes us something or we it.
void keep_alive(int fd)
{
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 4);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 2);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 8000);
}

} // namespace

// The waiting is ours: hiredis takes a signal that comes meanwhile for a failure.
std::unique_ptr<redis_connection> redis_connection::open(const endpoint &where, const std::string &name,
                                                         const store_url &url, trouble &why)
{
    why = {};
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(url.timeout_ms);
    auto connection = begin(where, url);
    short needs = POLLOUT;
    for (int done = 0; connection != nullptr && done == 0;) {
        const bool ready = connection->wait(needs, deadline);
        if (!ready && connection->rising_ != nullptr)
            why = {TQ_MOM_TIMEOUT, name + " does not go on with the TLS handshake in time"};
        done = ready ? connection->establish(name, url, needs, why) : int{transport_ended};
        if (done == transport_ended)
            return nullptr;
    }
    return connection;
}

std::unique_ptr<redis_connection> redis_connection::begin(const endpoint &where, const store_url &url)
{
    auto *context = where.port == 0 ? redisConnectUnixNonBlock(where.host.c_str())
                                    : redisConnectNonBlock(where.host.c_str(), where.port);
    if (context == nullptr || context->err != 0) {
        if (context != nullptr)
            redisFree(context);
        return nullptr;
    }
    fcntl(context->fd, F_SETFD, FD_CLOEXEC);
    if (where.port != 0)
        keep_alive(context->fd);
    return std::unique_ptr<redis_connection>(new redis_connection(context, url));
}

int redis_connection::establish(const std::string &name, const store_url &url, short &needs, trouble &why)
{
    if (rising_ == nullptr && !connects())
        return transport_ended;
    if (!url.tls)
        return 1;
    if (rising_ == nullptr)
        rising_ = make_tls_transport(fd(), url.server_name.empty() ? name : url.server_name, url.files, why);
    if (rising_ == nullptr)
        return transport_ended;
    const int done = rising_->handshake(needs);
    if (done == transport_ended)
        why = rising_->trouble();
    if (done == 1)
        transport_ = std::move(rising_);
    return done;
}

bool redis_connection::connects() const
{
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(context_->fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

redis_connection::redis_connection(redisContext *context, const store_url &url)
    : context_(context), transport_(make_plain_transport(context->fd)), reader_(make_reader(tape_)),
      timeout_(url.timeout_ms), spin_(url.spin_us)
{
}

bool redis_connection::wait(short events, steady_time deadline) const
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
        if (left <= 0)
            return false;
        pollfd watched{context_->fd, events, 0};
        const int ready = poll(&watched, 1, static_cast<int>(std::min<long long>(left, 60'000)));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

int redis_connection::send(std::string_view bytes, steady_time deadline)
{
    while (!bytes.empty()) {
        short needs = 0;
        const ssize_t sent = transport_->send(bytes, needs);
        if (sent > 0)
            bytes.remove_prefix(static_cast<size_t>(sent));
        else if (sent == transport_ended)
            return TQ_MOM_DISCONNECTED;
        else if (!wait(needs, deadline))
            return TQ_MOM_TIMEOUT;
    }
    return TQ_MOM_OK;
}

constexpr size_t read_size = 16384;
constexpr size_t input_limit = size_t{64} << 20; // of an answer that nobody waits for
constexpr unsigned waits_per_look = 16;

// What the transport received, with the bytes handed to the parser.
ssize_t redis_connection::read_once(short &needs)
{
    std::array<char, read_size> buffer;
    const ssize_t size = transport_->receive(buffer.data(), buffer.size(), needs);
    if (size > 0 && redisReaderFeed(reader_.get(), buffer.data(), static_cast<size_t>(size)) != REDIS_OK)
        return transport_ended;
    return size;
}

int redis_connection::await_input(steady_time deadline)
{
    // A peer on this CPU has often had its turn when sending returns; where it had not, it is looked for now and then.
    ssize_t size = 0;
    short needs = POLLIN;
    if (early_ || transport_->pending() || ++waits_ % waits_per_look == 0) {
        size = read_once(needs);
        early_ = size != 0;
    }
    if (size == 0 && spin_.count() > 0) {
        const auto spin_end = steady_clock::now() + spin_;
        do {
            sched_yield();
            size = read_once(needs);
        } while (size == 0 && steady_clock::now() < spin_end);
    }
    while (size == 0) {
        if (!wait(needs, deadline))
            return TQ_MOM_TIMEOUT;
        size = read_once(needs);
    }
    return size == transport_ended ? TQ_MOM_DISCONNECTED : TQ_MOM_OK;
}

int redis_connection::parse()
{
    void *reply = nullptr;
    if (redisReaderGetReply(reader_.get(), &reply) != REDIS_OK)
        return -1;
    return reply == nullptr ? 0 : 1;
}

// As long as something comes the time begins anew, ten times at most: a page takes its time over a thin line.
int redis_connection::receive(size_t count, steady_time deadline, size_t &complete, size_t limit)
{
    const auto last = deadline + 9 * timeout_;
    for (complete = 0; complete < count;) {
        const int parsed = parse();
        if (parsed < 0)
            return TQ_MOM_DISCONNECTED;
        complete += static_cast<size_t>(parsed);
        if (parsed > 0)
            continue;
        if (reader_->len - reader_->pos > limit || tape_.bytes() > limit)
            return TQ_MOM_CORRUPT;
        const int waited = await_input(deadline);
        if (waited != TQ_MOM_OK)
            return waited;
        deadline = std::max(deadline, std::min(last, steady_clock::now() + timeout_));
    }
    return TQ_MOM_OK;
}

int redis_connection::exchange(const command_buffer &commands)
{
    const auto deadline = steady_clock::now() + timeout_;
    tape_.clear();
    const int sent = send(commands.bytes(), deadline);
    size_t complete = 0;
    return sent != TQ_MOM_OK ? sent : receive(commands.commands(), deadline, complete, commands.answer_limit());
}

bool redis_connection::take_in()
{
    const auto held = [this] { return reader_->len - reader_->pos + tape_.bytes(); };
    short needs = 0; // where that is to write, the next look goes on
    ssize_t size = read_once(needs);
    while (size == ssize_t{read_size} && held() <= input_limit) // a whole buffer: there may be more
        size = read_once(needs);
    return size != transport_ended && held() <= input_limit;
}

bool redis_connection::leaves_host() const
{
    const auto text_of = [this](auto name) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        std::array<char, NI_MAXHOST> text{};
        auto *const plain = reinterpret_cast<sockaddr *>(&address);
        if (name(fd(), plain, &size) != 0 || (address.ss_family != AF_INET && address.ss_family != AF_INET6))
            return std::string();
        getnameinfo(plain, size, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
        return std::string(text.data());
    };
    const std::string peer = text_of(getpeername);
    const bool loopback = peer.starts_with("127.") || peer.starts_with("::ffff:127.");
    return !loopback && peer != text_of(getsockname);
}

} // namespace mom
