// What bench_store measures with: a Redis server of its own, raw hiredis beside the library, and processes of several
// kinds. The library registers once in a process's life, so everything that uses it runs in a process of its own.
#pragma once

#include "records/host.hpp"
#include "store/redis_server.hpp"

#include <hiredis/hiredis.h>
#include <plx/libplx.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace bench {

inline constexpr uint32_t policy_db = 8;

// Ends the program when something that the figures rest on did not work.
void require(bool done, const char *what);

// ---- processes

using figures = std::vector<std::pair<std::string, double>>;

// Runs `body` in another process and takes its figures over.
figures in_process(const std::function<figures()> &body);

// Another process that runs `body`, which calls its argument when it is ready, until it is killed with the object.
class companion {
  public:
    explicit companion(const std::function<void(const std::function<void()> &ready)> &body);
    ~companion();
    companion(const companion &) = delete;
    companion &operator=(const companion &) = delete;
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = 0;
};

// The CPU time that this process and others take together, in nanoseconds.
class cpu_meter {
  public:
    explicit cpu_meter(std::initializer_list<pid_t> others);
    template <class Work> double of(Work &&work) const
    {
        const double before = now();
        work();
        return now() - before;
    }

  private:
    double now() const;
    std::vector<clockid_t> clocks_;
};

// ---- the library's side

// An application, registered at a store, with one ACL. At most one in a process.
class application {
  public:
    // What the registration asks for: nothing that comes back, the outcomes, or what is in the store.
    enum class hears : uint8_t { nothing, outcomes, changes };

    application(const std::string &store, hears what);
    ~application();
    application(const application &) = delete;
    application &operator=(const application &) = delete;

    void set_ace(uint64_t sn);
    uint64_t outcomes() const; // or changes of ACEs, reported by callback so far
    void turn() const;         // of the loop
    tq_context *context() const { return context_; }

  private:
    tq_context *context_;
    const fp_udp_mgr &manager_;
    fp_udp_ace *ace_;
};

// A store client without the library, for what many processes share.
using store_client = plx::Context;

// ---- the other side

struct free_connection {
    void operator()(redisContext *context) const { redisFree(context); }
};

// Raw hiredis on the same server: an ACE's hash with the bytes that the library's own has, under the fields' names, and
// nothing else.
class raw_client {
  public:
    // As the user that the library's side is, or as the operator, who may do what no client of the store needs.
    explicit raw_client(const redis_server &server, bool as_operator = false);
    // Reads ACE 0 of an application from a server: what every write writes.
    void adopt(const redis_server &server);
    void write(const char *prefix, uint64_t sn); // one round trip
    // Also their members of an index, and one entry of a log for all: at one go, with nothing that makes it safe.
    void write_group(const char *prefix, uint64_t first, uint64_t end);
    void fill(const char *prefix, uint64_t count);
    // SCAN COUNT 1000 over all keys, and pipelined HGETALLs of those with this prefix. How many there were.
    uint64_t scan(const char *prefix);
    double used_memory();
    void trim_log(); // of the ACEs, away
    void lose_changes();

  private:
    void append(const std::vector<std::string> &command, const std::vector<std::string> &more);
    void append(const char *prefix, uint64_t sn);
    void take(size_t answers);

    std::unique_ptr<redisContext, free_connection> context_;
    std::vector<std::string> fields_; // names and values in turn
};

} // namespace bench
