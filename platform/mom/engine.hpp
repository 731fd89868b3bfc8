// What a store must do for the client, whatever it is made of.
//
// The client (client.hpp) owns one engine per context and hands it tables, key texts and encoded fields; an engine
// knows no record. Results are those of tq_mom.h. An engine calls change sinks from the event loop only, at most a
// bounded number in one round, and expects that a sink calls back into it: subscribe, write, scan. A record sink is
// called from inside read() and scan() under the same rule; what it is given is its own only until it returns.
#ifndef TQ_MOM_ENGINE_HPP
#define TQ_MOM_ENGINE_HPP

#include "codec.hpp"
#include "url.hpp"

#include <tq_mom.h>
#include <tq_time.h>

namespace mom {

struct table_ref {
    uint32_t db;
    const record_type *type;
};

enum class change_kind {
    written, ///< the whole record as of this change
    deleted, ///< no fields
    resync,  ///< changes are lost: neither key nor fields
};

struct change {
    change_kind kind;
    std::string_view key;
    field_values fields;
    bool echo;              ///< made through this engine
    int result = TQ_MOM_OK; ///< other than 0: the change could not be read
};

class change_sink {
  public:
    virtual void deliver(const change &change) = 0;

  protected:
    ~change_sink() = default;
};

class record_sink {
  public:
    /// `result` other than 0: what is stored under `key` is no record; `fields` is empty then.
    virtual void record(std::string_view key, field_values fields, int result) = 0;

  protected:
    ~record_sink() = default;
};

enum class write_mode {
    merge,   ///< fields not given keep their value
    replace, ///< fields not given go
};

class engine {
  public:
    virtual ~engine() = default;
    engine(const engine &) = delete;
    engine &operator=(const engine &) = delete;

    /// `result` is of enum tq_mom_result.
    void count(int result) { ++counters.results[result]; }
    tq_mom_counters counters{};

    [[nodiscard]] virtual int connect() = 0;
    [[nodiscard]] virtual int state() = 0;
    [[nodiscard]] virtual int write(table_ref table, std::string_view key, const encoded_fields &fields,
                                    write_mode mode) = 0;
    [[nodiscard]] virtual int remove(table_ref table, std::string_view key) = 0;
    /// Writes and removals in between may be collected; the end returns the first failure, and fills in each one's
    /// result as far as there is room.
    virtual void begin_batch() = 0;
    virtual void send_batch() = 0;
    [[nodiscard]] virtual int end_batch(std::span<int> results) = 0;
    /// Calls the sink once if the record exists.
    [[nodiscard]] virtual int read(table_ref table, std::string_view key, record_sink &sink) = 0;
    [[nodiscard]] virtual int scan(table_ref table, const key_range &range, record_sink &sink) = 0;
    /// The same without the fields.
    [[nodiscard]] virtual int scan_keys(table_ref table, const key_range &range, record_sink &sink) = 0;
    /// The sink outlives the engine's last round.
    [[nodiscard]] virtual int subscribe(table_ref table, const key_range &range, change_sink &sink) = 0;
    [[nodiscard]] virtual int mark(table_ref table, const key_range &range, uint64_t bound_seconds) = 0;
    [[nodiscard]] virtual int history(table_ref table, const key_range &range, tq_mom_history &out) = 0;
    [[nodiscard]] virtual int sweep(table_ref table, const key_range &range, uint32_t bound_ms) = 0;

  protected:
    engine() = default;
};

} // namespace mom

#endif
