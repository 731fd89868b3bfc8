// Serves one page, /metrics, over HTTP on a program's own event loop.
//
// Whoever can connect may be hostile or slow: connections are few, short in time and small in memory; those beyond wait
// in the kernel. The page is made for each request. No thread is made.
#pragma once

#include "records/host.hpp"
#include <functional>
#include <list>
#include <string>
#include <string_view>

struct MHD_Connection;
struct MHD_Daemon;

namespace plx::tool {

class HttpServer {
  public:
    // Makes the page; an exception becomes an answer of 500.
    using Page = std::function<std::string()>;

    // The loop outlives it.
    HttpServer(tq_thread_master *loop, Page page);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    // Where listening.hpp says. "" or what is wrong with it.
    std::string listen(const std::string &where);
    bool beyond_this_machine() const { return beyond_; } // others can reach it

  private:
    struct Guest { // a connection, and when it ends at the latest
        int fd;
        milliseconds until;
    };

    struct Calls; // from the library of HTTP

    std::string serve(int fd);
    void run();
    void end_late();

    tq_thread_master *loop_;
    Page page_;
    bool beyond_ = false;
    std::string path_; // of a socket, which goes with the server
    MHD_Daemon *daemon_ = nullptr;
    std::list<Guest> guests_; // in the order in which they came
    Watch watch_;
    Timer timer_;
};

} // namespace plx::tool
