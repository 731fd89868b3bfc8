// Stands between a client and a server's Unix socket, and cuts the connections after a number of bytes of answers.
#ifndef STORE_PROXY_HPP
#define STORE_PROXY_HPP

#include <atomic>
#include <string>
#include <thread>
#include <vector>

class proxy {
  public:
    proxy(std::string server, std::string socket);
    ~proxy();
    proxy(const proxy &) = delete;
    proxy &operator=(const proxy &) = delete;

    const std::string &socket() const { return socket_; }
    /// Lets so many more bytes of answers through, then ends all connections; new ones pass again.
    void cut_after(size_t bytes) { left_ = bytes; }

  private:
    struct pair {
        int client;
        int server;
    };
    void run();
    void admit();
    bool pass(int from, int to, bool answer);
    void cut();

    std::string server_;
    std::string socket_;
    std::atomic<size_t> left_{SIZE_MAX};
    std::atomic<bool> ending_{false};
    int listener_;
    std::vector<pair> pairs_;
    std::thread thread_;
};

#endif
