// See leftovers.hpp.
#include "plane/leftovers.hpp"

#include <optional>
#include <utility>

namespace plx::plane {

Leftovers::Leftovers(tq_context *context, const Options &options, Outbox &outbox, Node node)
    : context_(context), options_(options), outbox_(outbox), node_(std::move(node)),
      timer_(context->master, [this] { clear(); })
{
}

void Leftovers::compared()
{
    if (!cleared_)
        timer_.start_unless_pending(options_.after);
}

void Leftovers::clear()
{
    outbox_.take_answers();
    int result = 0;
    for (const Table &table : tables())
        for (const auto *record : {table.status, table.counters})
            if (record != nullptr && result == 0)
                result = tq_mom_scan_keys_sync(context_, options_.db, Record(*record).message(), 0,
                                               &Leftovers::on_record, this);
    outbox_.schedule();
    cleared_ = result == 0;
    if (!cleared_)
        timer_.start(options_.retry);
}

int32_t Leftovers::on_record(void *, const tq_mom_notification *notification, void *arg) noexcept
{
    auto *self = static_cast<Leftovers *>(arg);
    self->node_.keep_beating();
    const auto key = notification->result == 0 ? key_of(notification->record) : std::nullopt;
    if (key && self->is_leftover(*key))
        self->outbox_.remove(*key, *notification->record->descriptor);
    return 0;
}

bool Leftovers::is_leftover(const Key &key) const
{
    if (node_.knows(key))
        return false;
    const Record wanted(*tables()[key.index()].requested, key);
    const Found found(tq_mom_hgetall_sync(context_, options_.db, wanted.message()));
    return found != nullptr && found->status == 0 && found->record == nullptr;
}

} // namespace plx::plane
