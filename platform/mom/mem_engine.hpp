// The engine of "mem:" addresses: one handle's view of an embedded store.
//
// A descriptor that the loop watches is made readable while changes wait, so delivery takes turns with everything else
// on the loop. A round takes a bounded time, in which every subscription has its turns. Subscriptions are only ever
// added, at the end, and a round walks them by position: a callback may subscribe.
#ifndef TQ_MOM_MEM_ENGINE_HPP
#define TQ_MOM_MEM_ENGINE_HPP

#include "loop_bell.hpp"
#include "marks.hpp"
#include "mem_store.hpp"

#include <list>

namespace mom {

class mem_engine;

class mem_subscription final : public mem_reader {
  public:
    mem_subscription(mem_engine &owner, mem_table &table, table_ref ref, const key_range &range, change_sink &sink);
    ~mem_subscription();
    mem_subscription(const mem_subscription &) = delete;
    mem_subscription &operator=(const mem_subscription &) = delete;
    uint64_t seen() const override { return seen_; }
    void wake() override;
    /// Delivers a bounded number of changes; true when more are waiting.
    bool turn();
    bool is_publication() const { return ref_.type->kind == record_kind::publication; }

  private:
    bool step();
    void deliver(const mem_change &change);
    void recover();
    void tell_loss();
    void deliver_missed();

    mem_engine &owner_;
    mem_table &table_;
    table_ref ref_;
    key_range range_;
    change_sink &sink_;
    uint64_t seen_;
    std::list<std::string> missed_; // records to deliver for changes that the log lost; not changed after seen_
};

class mem_engine final : public engine {
  public:
    mem_engine(const store_url &url, tq_thread_master *master);
    [[nodiscard]] int connect() override { return TQ_MOM_OK; }
    [[nodiscard]] int state() override { return TQ_MOM_OK; }
    [[nodiscard]] int write(table_ref table, std::string_view key, const encoded_fields &fields,
                            write_mode mode) override;
    [[nodiscard]] int remove(table_ref table, std::string_view key) override;
    void begin_batch() override {}
    void send_batch() override {}
    [[nodiscard]] int end_batch(std::span<int> results) override
    {
        return std::fill(results.begin(), results.end(), TQ_MOM_OK), TQ_MOM_OK;
    }
    [[nodiscard]] int read(table_ref table, std::string_view key, record_sink &sink) override;
    [[nodiscard]] int scan(table_ref table, const key_range &range, record_sink &sink) override
    {
        return walk(table, range, sink, true);
    }
    [[nodiscard]] int scan_keys(table_ref table, const key_range &range, record_sink &sink) override
    {
        return walk(table, range, sink, false);
    }
    [[nodiscard]] int subscribe(table_ref table, const key_range &range, change_sink &sink) override;
    [[nodiscard]] int mark(table_ref table, const key_range &range, uint64_t bound_seconds) override;
    [[nodiscard]] int history(table_ref table, const key_range &range, tq_mom_history &out) override;
    [[nodiscard]] int sweep(table_ref table, const key_range &range, uint32_t bound_ms) override;

    uint64_t writer() const { return writer_; }
    void wake();

  private:
    static void on_bell(tq_loop_watch *watch, int fd, int events, void *arg);
    [[nodiscard]] int walk(table_ref table, const key_range &range, record_sink &sink, bool with_fields);
    void round();
    bool turns();

    std::shared_ptr<mem_store> store_;
    tq_thread_master *master_;
    uint64_t writer_;
    struct sweep_mark {
        uint64_t last;     ///< change before the rewrite
        std::string after; ///< the sweep goes on behind this key, where it has begun
        bool begun;
    };

    mark_book<sweep_mark> marks_;
    std::unique_ptr<loop_bell> bell_;
    std::vector<std::unique_ptr<mem_subscription>> subscriptions_; // end before what they ring
};

} // namespace mom

#endif
