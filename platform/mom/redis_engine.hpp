// The engine of a server's addresses: "unix:", "redis://", "sentinel://".
//
// 1. Made with its address, it does nothing. The first call connects (redis_calls).
// 2. A table is known from its first use on. What its metadata says is read before the first write of an era; each
//    write then is one send (redis_batch), and may take the question for changes along that is due.
// 3. Scans and rewrites walk over a table in pages (redis_scan.cpp); a rewrite's mark stays here until its end.
// 4. The first subscription makes the reader of changes connect (redis_reader), which goes on by itself from the loop.
// 5. It ends with its context: sinks are not called any more.
#ifndef TQ_MOM_REDIS_ENGINE_HPP
#define TQ_MOM_REDIS_ENGINE_HPP

#include "engine.hpp"
#include "marks.hpp"
#include "redis_calls.hpp"

#include <map>

namespace mom {

class redis_reader;

class redis_engine final : public engine {
  public:
    redis_engine(const store_url &url, tq_thread_master *master);
    ~redis_engine() override;
    [[nodiscard]] int connect() override { return calls_.link().ensure(); }
    [[nodiscard]] int state() override;
    [[nodiscard]] int write(table_ref ref, std::string_view key, const encoded_fields &fields,
                            write_mode mode) override;
    [[nodiscard]] int remove(table_ref ref, std::string_view key) override;
    void begin_batch() override
    {
        calls_.spoilt(); // before this batch
        calls_.results().clear();
        batching_ = true;
    }
    void send_batch() override { calls_.send(); }
    [[nodiscard]] int end_batch(std::span<int> results) override;
    [[nodiscard]] int read(table_ref ref, std::string_view key, record_sink &sink) override;
    [[nodiscard]] int scan(table_ref ref, const key_range &range, record_sink &sink) override;
    [[nodiscard]] int scan_keys(table_ref ref, const key_range &range, record_sink &sink) override;
    [[nodiscard]] int subscribe(table_ref ref, const key_range &range, change_sink &sink) override;
    [[nodiscard]] int mark(table_ref ref, const key_range &range, uint64_t bound_seconds) override;
    [[nodiscard]] int history(table_ref ref, const key_range &range, tq_mom_history &out) override;
    [[nodiscard]] int sweep(table_ref ref, const key_range &range, uint32_t bound_ms) override;

  private:
    struct mark_stamp {
        std::string epoch;
        std::string generation;
        std::string token;
        std::string stamp;
        bool was_empty;    ///< the selection, when the rewrite began
        std::string after; ///< the sweep goes on behind this key, where it has begun
        bool begun;
    };

    redis_table &table_of(table_ref ref);
    [[nodiscard]] int know(redis_table &table, field_values fields);
    void look_for_own(redis_table &table);
    [[nodiscard]] int collected();
    void flush();
    [[nodiscard]] int ask_page(redis_table &table, const std::vector<std::string> &keys, const key_range &range,
                               question_ahead &ahead);
    [[nodiscard]] int scan_page(redis_table &table, std::vector<std::string> &keys, const key_range &range,
                                record_sink &sink, question_ahead &ahead);
    [[nodiscard]] int measure(redis_table &table, const std::vector<std::string> &keys, std::vector<size_t> &sizes);
    [[nodiscard]] int scan_in_parts(redis_table &table, std::vector<std::string> &keys, const key_range &range,
                                    record_sink &sink);
    [[nodiscard]] int list_keys(redis_table &table, const key_range &range, std::vector<std::string> &keys,
                                const std::string *after = nullptr);
    [[nodiscard]] int sweep_page(redis_table &table, const key_range &range, mark_stamp &mark);

    redis_calls calls_;
    bool batching_ = false;
    std::map<std::pair<uint32_t, const record_type *>, redis_table> tables_;
    mark_book<mark_stamp> marks_;
    std::unique_ptr<redis_reader> reader_;
};

} // namespace mom

#endif
