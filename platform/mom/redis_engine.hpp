// The engine of a server's addresses: "unix:", "redis://", "sentinel://".
//
// Each write is one send: see redis_batch.hpp. What a table's metadata says is read before the first write on a
// connection, and again after a write that found it changed.
#ifndef TQ_MOM_REDIS_ENGINE_HPP
#define TQ_MOM_REDIS_ENGINE_HPP

#include "engine.hpp"
#include "marks.hpp"
#include "redis_batch.hpp"
#include "redis_scripts.hpp"
#include "redis_table.hpp"

#include <functional>
#include <map>

namespace mom {

class redis_changes;

class redis_engine final : public engine {
  public:
    redis_engine(const store_url &url, tq_thread_master *master);
    ~redis_engine() override;
    int connect() override { return link_.ensure(); }
    int state() override { return link_.connected() ? TQ_MOM_OK : TQ_MOM_DISCONNECTED; }
    int write(table_ref ref, std::string_view key, const encoded_fields &fields, write_mode mode) override;
    int remove(table_ref ref, std::string_view key) override;
    void begin_batch() override { batching_ = true; }
    void send_batch() override;
    int end_batch(std::span<int> results) override;
    int read(table_ref ref, std::string_view key, record_sink &sink) override;
    int scan(table_ref ref, const key_range &range, record_sink &sink) override;
    int subscribe(table_ref ref, const key_range &range, change_sink &sink) override;
    int mark(table_ref ref, const key_range &range, uint64_t bound_seconds) override;
    int sweep(table_ref ref, const key_range &range, uint32_t bound_ms) override;

    // For the reader of changes, which asks its questions on the connection for calls.
    redis_link &link() { return link_; }
    bool is_own(std::string_view writer) const { return writer == writer_.name; }
    /// Goes up with each call that reads or writes.
    uint64_t calls() const { return calls_; }
    int position(const redis_table &table, log_position &out);
    /// Sends what `build` puts into the buffer, after connecting if need be.
    int ask(const std::function<void(command_buffer &)> &build);

  private:
    struct mark_stamp {
        std::string epoch;
        std::string generation;
        std::string token;
        std::string stamp;
    };

    redis_table &table_of(table_ref ref);
    int ready();
    void forget_metadata();
    int know(redis_table &table, field_values fields);
    int run(redis_script &script, const std::function<void(command_buffer &)> &build);
    int ready_to_collect();
    int collected();
    void flush_batch();
    int scan_page(redis_table &table, std::vector<std::string> &keys, const key_range &range, record_sink &sink);
    int list_keys(redis_table &table, const key_range &range, std::vector<std::string> &keys);
    int sweep_page(redis_table &table, const key_range &range, const mark_stamp &mark, std::string &after,
                   bool &continued);

    redis_link link_;
    redis_scripts scripts_;
    command_buffer commands_;
    uint64_t calls_ = 0;
    writer_identity writer_;
    bool batching_ = false;
    command_batch batch_{scripts_, writer_};
    std::vector<int> batch_results_; ///< of what was sent so far
    std::map<std::pair<uint32_t, const record_type *>, redis_table> tables_;
    uint64_t generation_ = 0; ///< the connection that the tables' metadata was read on
    mark_book<mark_stamp> marks_;
    std::unique_ptr<redis_changes> changes_;
};

} // namespace mom

#endif
