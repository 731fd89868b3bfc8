// A redis-server of the test's own: in a temporary directory, on a Unix socket, with the configuration that is shipped.
//
// Ends with the object. Its users are those of plx-store.acl and one more, "suite", who has the rights of all of them.
#ifndef STORE_REDIS_SERVER_HPP
#define STORE_REDIS_SERVER_HPP

#include "support/process.hpp"

#include <optional>
#include <string>
#include <vector>

class redis_server {
  public:
    redis_server();

    /// Starts it and waits until its answer to a PING starts so; `options` go behind the configuration.
    void start(const std::vector<std::string> &options = {}, const std::string &answer = "PONG");
    /// Starts as a sentinel instead, which watches the master "policy" at this TCP port.
    void start_sentinel(const std::string &port, const std::string &master, bool tls = false);
    /// Where the files of certificates.sh are: the same for all servers.
    static const std::string &certificates();
    /// The options by which a server takes TLS connections, and no others, at this port.
    static std::vector<std::string> tls_options(const std::string &port);
    /// A TCP port that nobody uses at the moment.
    static std::string free_port();
    /// kill -9, as a crash.
    void crash() { process_.reset(); }
    /// Forgets all data while stopped.
    void erase_data();
    void signal(int number) const { process_->signal(number); }
    pid_t pid() const { return process_ ? process_->pid() : 0; }

    const std::string &socket() const { return socket_; }
    const std::string &directory() const { return directory_.path(); }
    std::string url(const std::string &user = "suite", const std::string &options = "") const;
    /// "user=...&password-file=...", for addresses of another form.
    std::string credentials(const std::string &user) const;
    /// Runs one command as the operator and returns its answer in a readable form.
    std::string run(const std::vector<std::string> &command) const;

  private:
    void launch(const std::vector<std::string> &words, const std::string &answer);
    void configure() const;

    plx::tool::TemporaryDirectory directory_;
    std::string socket_ = directory() + "/store.sock";
    std::optional<plx::tool::Process> process_;
};

#endif
