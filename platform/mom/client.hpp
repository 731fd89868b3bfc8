// The store client behind a context: types, buffers and subscriptions around one engine.
//
// Made and freed with its context. The buffers are reused from call to call and are free again before a callback runs,
// so that callbacks may call anything. Subscriptions are the engine's sinks and outlive it.
#ifndef TQ_MOM_CLIENT_HPP
#define TQ_MOM_CLIENT_HPP

#include "engine.hpp"

#include <tq_context.h>
#include <tq_loop.h>

namespace mom {

/// Who is told: the arguments of tq_mom_subscribe() and tq_mom_scan_sync().
struct listener {
    void *handle;
    tq_mom_callback callback;
    void *arg;
    bool operator==(const listener &) const = default;
};

/// For a context that ends.
void forget_batch(const void *handle) noexcept;

class subscription final : public change_sink {
  public:
    subscription(tq_mom_client &client, table_ref table, const key_range &range, const listener &to)
        : client_(client), table_(table), range_(range), to_(to)
    {
    }
    void deliver(const change &change) override;
    bool is_for(table_ref table, const key_range &range, const listener &to) const
    {
        return table_.db == table.db && table_.type == table.type && range_ == range && to_ == to;
    }

  private:
    tq_mom_client &client_;
    table_ref table_;
    key_range range_;
    listener to_;
};

} // namespace mom

struct tq_mom_client {
    /// Calls back. An exception of the callback ends here, as a result.
    [[nodiscard]] int tell(const mom::listener &to, const tq_mom_notification &notification) noexcept;
    /// Decodes and tells; a record that cannot be decoded is told as a result. What leaves it by exception was not
    /// told.
    [[nodiscard]] int notify(const mom::listener &to, const mom::record_type &type, std::string_view key,
                             mom::field_values fields, tq_mom_notification notification);

    mom::type_book types;
    mom::field_encoder encoder;
    std::string key;
    std::string scratch;
    std::vector<std::unique_ptr<mom::subscription>> subscriptions;
    std::unique_ptr<mom::engine> engine;
    tq_thread_master *own_loop = nullptr; ///< null when the loop is the application's
};

#endif
