// See http_server.hpp. The library of HTTP looks after its connections by an epoll of its own, whose descriptor becomes
// readable when one of them has something: the loop watches that one.
#include "metrics/http_server.hpp"

#include "metrics/listening.hpp"
#include <algorithm>
#include <exception>
#include <memory>
#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace plx::tool {

namespace {

constexpr unsigned most_guests = 16;
constexpr size_t guest_memory = 8192; // of a request's line and headers, and of the answer's
constexpr milliseconds longest_visit{5000};
constexpr char content_type[] = "text/plain; version=0.0.4; charset=utf-8";

MHD_Result queue(MHD_Connection *connection, unsigned status, const std::string &text)
{
    MHD_Response *response = MHD_create_response_from_buffer(text.size(), const_cast<char *>(text.data()),
                                                             MHD_RESPMEM_MUST_COPY); // it does not write there
    if (response == nullptr)
        return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                            status == MHD_HTTP_OK ? content_type : "text/plain");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

} // namespace

struct HttpServer::Calls {
    static MHD_Result answer(void *server, MHD_Connection *connection, const char *url, const char *method,
                             const char *, const char *, size_t *, void **) noexcept
    try {
        const std::string_view asked = method;
        if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD)
            return queue(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET is here\n");
        if (std::string_view(url) != "/metrics")
            return queue(connection, MHD_HTTP_NOT_FOUND, "only /metrics is here\n");
        return queue(connection, MHD_HTTP_OK, static_cast<HttpServer *>(server)->page_());
    } catch (const std::exception &) {
        return queue(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, {});
    }

    static void come_or_go(void *server, MHD_Connection *connection, void **, MHD_ConnectionNotificationCode code)
    {
        auto &guests = static_cast<HttpServer *>(server)->guests_;
        const int fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        if (code == MHD_CONNECTION_NOTIFY_STARTED)
            guests.push_back({fd, now() + longest_visit});
        else
            guests.remove_if([fd](const Guest &guest) { return guest.fd == fd; });
    }
};

HttpServer::HttpServer(tq_thread_master *loop, Page page)
    : loop_(loop), page_(std::move(page)), timer_(loop, [this] { run(); })
{
}

HttpServer::~HttpServer()
{
    watch_.reset();
    if (daemon_ != nullptr)
        MHD_stop_daemon(daemon_);
    if (!path_.empty())
        unlink(path_.c_str());
}

std::string HttpServer::listen(const std::string &where)
{
    Listening listening = listen_at(where);
    if (listening.fd < 0)
        return listening.error;
    beyond_ = listening.beyond;
    path_ = std::move(listening.path);
    return serve(listening.fd);
}

// The descriptor is the library's once it has started.
std::string HttpServer::serve(int fd)
{
    daemon_ = MHD_start_daemon(MHD_USE_EPOLL, 0, nullptr, nullptr, &Calls::answer, this, //
                               MHD_OPTION_LISTEN_SOCKET, fd,                             //
                               MHD_OPTION_CONNECTION_LIMIT, most_guests,                 //
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, guest_memory,         //
                               MHD_OPTION_NOTIFY_CONNECTION, &Calls::come_or_go, this,   //
                               MHD_OPTION_END);
    if (daemon_ == nullptr) {
        close(fd);
        return "the server of HTTP does not start";
    }
    const auto serve = [](tq_loop_watch *, int, int, void *server) { static_cast<HttpServer *>(server)->run(); };
    const MHD_DaemonInfo *epoll = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
    watch_.reset(tq_loop_watch_fd(loop_, epoll->epoll_fd, TQ_LOOP_READABLE, serve, this));
    return watch_ != nullptr ? "" : "no descriptor is left";
}

void HttpServer::run()
{
    end_late();
    size_t before = 0;
    do { // who goes makes room for one who waits
        before = guests_.size();
        MHD_run(daemon_);
    } while (guests_.size() < before);
    constexpr auto until_something_comes = milliseconds::max();
    milliseconds pause = until_something_comes;
    if (MHD_UNSIGNED_LONG_LONG ms = 0; MHD_get_timeout(daemon_, &ms) == MHD_YES)
        pause = milliseconds(std::min<uint64_t>(ms, longest_visit.count()));
    if (!guests_.empty())
        pause = std::min(pause, std::max(guests_.front().until - now(), milliseconds(0)));
    pause == until_something_comes ? timer_.cancel() : static_cast<void>(timer_.start(pause));
}

// Who has not got the page by now is shown out, also one that goes on sending: the library takes it for gone.
void HttpServer::end_late()
{
    for (Guest &guest : guests_) {
        if (guest.until > now())
            return;
        shutdown(guest.fd, SHUT_RDWR);
    }
}

} // namespace plx::tool
