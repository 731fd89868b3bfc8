// The other side of the platform headers, as the library's tests need it: a store that records every call, a clock that
// the test moves, a log that keeps its lines, a debug shell and a topic registry that keep what they were given.
//
// The functions of the platform headers are defined in the test program, so that they come before the shared libraries'
// own. One instance of each fake lives as long as the process; every case runs in a process of its own (main.cpp).
// Fakes refuse what the real thing refuses. Calls are kept as lines of text, which is what cases compare:
//     "hmset 5 ace[my_app,1,7] 6,7 value=0a0b c_status=0"
#pragma once

#include <deque>
#include <functional>
#include <libcgstctrl.h>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <ssat.h>
#include <string>
#include <tq_mom.h>
#include <tq_time.h>
#include <tq_zlog.h>
#include <utility>
#include <vector>

struct tq_thread_master {};

namespace fake {

using lines = std::vector<std::string>;

// Two lower-case digits a byte; a run of eight or more counting bytes, as the tests' private data is, as
// "<first:length>".
std::string hex(const uint8_t *bytes, size_t length);
// A "%s"-like formatter for expectations.
std::string format(const char *form, ...) __attribute__((format(printf, 1, 2)));
// "ace[my_app,1,7]": the table and the key.
std::string address(const ProtobufCMessage &record);

// A record as somebody else writes it: its table, its key's fields in their order, and others by name; bytes as digits.
// "null" is no text; no fields at all are no key.
class record {
  public:
    record(const std::string &table, const lines &key, const std::map<std::string, std::string> &fields = {});
    operator const ProtobufCMessage *() const { return message_; }
    const ProtobufCMessage &operator*() const { return *message_; }

  private:
    ProtobufCMessage *make(const ProtobufCMessageDescriptor *descriptor);
    void put(ProtobufCMessage *message, const ProtobufCFieldDescriptor &field, const std::string &text);
    std::deque<std::vector<uint64_t>> spaces_;
    std::deque<std::string> texts_;
    ProtobufCMessage *message_;
};

// Results handed out one by one, and 0 after the last.
struct results : std::deque<int> {
    using std::deque<int>::deque;
    int next();
};

struct subscription {
    uint32_t db;
    std::string table;
    void *handle;
    tq_mom_callback callback;
    void *arg;
};

struct store_double {
    static constexpr int no_answer = -1; // a read that comes back without a result

    static constexpr int no_record = -1001; // a read that finds nothing, whatever is there

    lines calls;
    std::map<std::string, results> script; // by operation: "hmset", "set", "get", "del", ...
    std::string failing;                   // the one operation that fails with 9, or "all"
    // The call that fails, by its number since `asked` was zero, and with what.
    int turn = 0, turn_result = 0, asked = 0;
    std::string turn_operation; // what that call was
    void fail_at(int n, int result) { asked = 0, turn = n, turn_result = result; }
    std::function<void(ProtobufCMessage &)> on_read; // may change a record that is handed out
    std::vector<subscription> subscriptions;
    std::map<std::string, std::string> records; // packed, by "db table[key]"
    std::set<std::string> marks;
    std::map<std::string, std::set<std::string>> stale; // by mark: the records that were not written since
    std::set<tq_mom_hash_res *> unreleased;
    std::vector<std::pair<std::string, tq_mom_notification>> scan_entries; // delivered after the records of that table

    bool batching = false; // writes are collected (batch.cpp), each with the result that its call would have had
    bool refusing = false; // to begin a batch
    bool foreign = false;  // the application has a batch open
    std::vector<int> collected;
    int answered(int result)
    {
        if (batching)
            collected.push_back(result);
        return batching ? 0 : result;
    }

    lines take() { return std::exchange(calls, {}); }
    void put(uint32_t db, const ProtobufCMessage &record);
    // Calls the newest subscription of a table; its result, or -1000 when there is none.
    int32_t deliver(const std::string &table, int32_t event, const ProtobufCMessage *record, int32_t result = 0,
                    int32_t flag = 0);
};

struct timer {
    tq_thread_master *master;
    tq_thread **handle;
    tq_thread_func func;
    uint64_t due_us;
    std::unique_ptr<tq_thread> thread;
};

struct clock_double {
    uint64_t now_us = 1'000'000'000;
    lines inserted; // "fp_udp_api 0s 10000000us"
    std::list<timer> timers;
    results insertions;
    bool wall_clock_works = true; // the wall clock always shows "NOW"
    bool works = true;
    bool keeps_handles = false; // of timers that have fired

    // Moves the clock and fires what becomes due on the way.
    void advance(uint64_t us);
    void advance_seconds(uint64_t seconds) { advance(seconds * 1'000'000); }
};

struct log_line {
    std::string file, func, text;
    int level;
};

struct log_double {
    std::vector<log_line> kept;
    int formatted = 0; // calls of at_snprintf
    bool opens = true;
    std::string category;

    // The texts logged since the last call, each behind its level's letter (E, I, N, D); only the levels asked for.
    lines take(const std::string &levels = "EID");
};

struct shell_command {
    std::string module, name, description;
    ssat_handler handler;
};

struct shell_double {
    std::string opened; // module
    void *context = nullptr;
    results openings;
    std::vector<shell_command> commands;

    int run(const std::string &name, std::vector<ssat_value> arguments);
};

struct topics_double {
    lines calls;
    results script;
};

extern store_double store;
extern clock_double clock;
extern log_double log;
extern shell_double shell;
extern topics_double topics;

// While one lives, paths that begin with `from` begin with `to` instead, for open(), access() and fopen().
class led_elsewhere {
  public:
    led_elsewhere(const std::string &from, const std::string &to);
    ~led_elsewhere();
    led_elsewhere(const led_elsewhere &) = delete;
    led_elsewhere &operator=(const led_elsewhere &) = delete;
    static std::map<std::string, std::string> &paths();

  private:
    std::string from_;
};

// Names the libraries whose allocations are counted, and may fail, in place of libplx: parts of file names, then null.
void watch(const char *const *names);
// Whether a return address lies in one of them.
bool in_library(const void *caller);
// Blocks of the whole program that are allocated and not freed.
long live_blocks();

enum lasts { once, from_then_on };

// Makes the n-th allocation that libplx itself asks for fail, or all from there on, while an instance lives; n = 0 only
// counts.
class failing_allocation {
  public:
    explicit failing_allocation(int n, lasts how_long = once);
    ~failing_allocation();
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;
    static int seen(); // allocations asked for since the last instance was made

    // While one lives, allocations pass uncounted: for what a case itself makes through the library.
    struct pause {
        pause();
        ~pause();
        bool was;
    };
};

// Of this process, and a few for the counting.
size_t open_files();
// What system() was asked for; it does nothing, and succeeds.
extern lines commands;
// Whose all files seem to be, to fstat(); nobody's in particular means: as they are.
extern std::optional<uid_t> owner_of_all;

// Makes the n-th file call that libplx itself makes fail with an error, or all from there on, while an instance lives;
// `short_count` instead of an error lets a read or write pass one byte. n = 0 only counts.
class failing_file_call {
  public:
    static constexpr int short_count = -1;
    failing_file_call(int n, int error, lasts how_long = once);
    ~failing_file_call();
    failing_file_call(const failing_file_call &) = delete;
    failing_file_call &operator=(const failing_file_call &) = delete;
    static int seen();           // calls since the last instance was made
    static std::string failed(); // the function of the last that failed
};

} // namespace fake
