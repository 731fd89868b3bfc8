// Store addresses: "mem:[NAME]", "unix:/path", "redis://[user[:password]@]host[:port]",
// "sentinel://host[:port][,host[:port]...]/name", each with options behind '?', joined by '&':
//   log=N              changes kept per table (a server may keep a few more)
//   log-memory=MB      more of them are kept for readers that live, up to so much
//   timeout=MS         bound of a call
//   spin=US            how long a call polls for its answer before it sleeps; 0 switches that off
//   user=, password-file=  credentials of a server; the file's first line
//   sentinel-user=, sentinel-password-file=  the same of the sentinels
//   wait=N             a write succeeds when so many replicas have it,
//   wait-timeout=MS    within this time
// "rediss://" and "sentinels://" are the same over TLS, with the options
//   ca=FILE            certificates of who may have issued the server's; without it those that the machine trusts
//   cert=FILE, key=FILE  our own certificate and its key, for a server that asks for one
//   server-name=NAME   what the server's certificate must be for, where that is not the address's host
// Parsing touches neither files nor the network.
#ifndef TQ_MOM_URL_HPP
#define TQ_MOM_URL_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mom {

enum class store_scheme { mem, unix_socket, tcp, sentinel };

constexpr uint64_t usual_log_limit = 100'000;
constexpr uint64_t usual_log_memory = uint64_t{128} << 20;

struct endpoint {
    std::string host;
    uint16_t port;
    bool operator==(const endpoint &) const = default;
};

/// False unless the text is a port's number.
bool parse_port(std::string_view text, uint16_t &port);

/// 50, or 0 for a process that has one CPU: there no answer comes while one looks for it.
uint32_t usual_spin_us();

/// Paths, in PEM; empty where none was given.
struct tls_files {
    std::string ca;
    std::string cert;
    std::string key;
    bool empty() const { return ca.empty() && cert.empty() && key.empty(); }
};

struct store_url {
    store_scheme scheme = store_scheme::mem;
    std::string name; ///< of the embedded store; path of the socket; name of the master
    std::vector<endpoint> hosts;
    struct login {
        std::string user;
        std::string password;
        std::string password_file;
        bool empty() const { return user.empty() && password.empty() && password_file.empty(); }
    };
    login server;
    login sentinels;
    bool tls = false;
    tls_files files;
    std::string server_name; ///< empty: the host's
    std::optional<uint64_t> log_limit;
    std::optional<uint64_t> log_memory; ///< bytes
    uint32_t timeout_ms = 1000;
    uint32_t spin_us = usual_spin_us();
    uint32_t wait_replicas = 0;
    uint32_t wait_ms = 0;
};

std::optional<store_url> parse_store_url(std::string_view text);

} // namespace mom

#endif
