// See mem_engine.hpp.
#include "mem_engine.hpp"

#include <algorithm>

namespace mom {
namespace {

constexpr int changes_per_turn = 64; // of one subscription, before the next has its turn
constexpr uint64_t round_ms = 3;
constexpr unsigned records_per_clock_read = 256;

} // namespace

mem_subscription::mem_subscription(mem_engine &owner, mem_table &table, table_ref ref, const key_range &range,
                                   change_sink &sink)
    : owner_(owner), table_(table), ref_(ref), range_(range), sink_(sink), seen_(table.last())
{
    table_.add_reader(*this);
}

mem_subscription::~mem_subscription()
{
    table_.remove_reader(*this);
}

void mem_subscription::wake()
{
    owner_.wake();
}

bool mem_subscription::turn()
{
    int left = changes_per_turn;
    while (left > 0 && step())
        --left;
    table_.trim();
    return left == 0;
}

bool mem_subscription::step()
{
    if (!missed_.empty()) {
        deliver_missed();
        return true;
    }
    if (seen_ == table_.last())
        return false;
    const auto change = table_.change_at(seen_ + 1);
    if (change == nullptr) {
        recover();
        return true;
    }
    ++seen_; // before the callback, which may run the loop
    try {
        if (range_.contains(change->key))
            deliver(*change);
    } catch (...) { // it was not told
        --seen_;
        throw;
    }
    return true;
}

void mem_subscription::deliver(const mem_change &change)
{
    const bool echo = change.writer == owner_.writer();
    if (change.image == nullptr)
        return sink_.deliver({change_kind::deleted, change.key, {}, echo});
    std::vector<field_value> fields;
    change.image->list(fields);
    sink_.deliver({change_kind::written, change.key, fields, echo});
}

// The log no longer reaches back to what was seen last. Who follows requested state scans again; of other tables the
// records that changed since are delivered, oldest change first, before the loss is told.
void mem_subscription::recover()
{
    std::vector<std::pair<uint64_t, std::string>> changed;
    if (ref_.type->kind != record_kind::requested)
        for (const auto &[key, record] : table_.records())
            if (record.stamp > seen_ && range_.contains(key))
                changed.emplace_back(record.stamp, key);
    std::sort(changed.begin(), changed.end());
    std::list<std::string> missed;
    for (auto &[stamp, key] : changed)
        missed.push_back(std::move(key));
    missed_.splice(missed_.end(), missed);
    seen_ = table_.last();
    ++owner_.counters.losses;
    if (missed_.empty())
        tell_loss();
}

void mem_subscription::tell_loss()
{
    if (tells_losses(ref_.type->kind))
        sink_.deliver({change_kind::resync, {}, {}, false});
}

// A record that was written again since comes with its own change.
void mem_subscription::deliver_missed()
{
    std::list<std::string> next;
    next.splice(next.end(), missed_, missed_.begin());
    const auto record = table_.records().find(next.front());
    try {
        if (record != table_.records().end() && record->second.stamp <= seen_) {
            deliver({next.front(), record->second.image, 0});
            ++owner_.counters.recovered;
        }
        if (missed_.empty())
            tell_loss();
    } catch (...) { // it was not told
        missed_.splice(missed_.begin(), next);
        throw;
    }
}

mem_engine::mem_engine(const store_url &url, tq_thread_master *master)
    : store_(mem_store::open(url)), master_(master), writer_(store_->next_writer())
{
}

int mem_engine::write(table_ref table, std::string_view key, const encoded_fields &fields, write_mode mode)
{
    store_->table(table).write(key, fields.values, mode, writer_);
    return TQ_MOM_OK;
}

int mem_engine::remove(table_ref table, std::string_view key)
{
    store_->table(table).remove(key, writer_);
    return TQ_MOM_OK;
}

int mem_engine::read(table_ref table, std::string_view key, record_sink &sink)
{
    const auto &records = store_->table(table).records();
    const auto record = records.find(key);
    if (record == records.end())
        return TQ_MOM_OK;
    std::vector<field_value> fields;
    record->second.image->list(fields);
    sink.record(key, fields, TQ_MOM_OK);
    return TQ_MOM_OK;
}

// The sink may write: each step looks its record up by the key before it.
int mem_engine::walk(table_ref table, const key_range &range, record_sink &sink, bool with_fields)
{
    const auto &records = store_->table(table).records();
    std::vector<field_value> fields;
    auto record = records.lower_bound(range.begin);
    while (record != records.end() && range.contains(record->first)) {
        const std::string key = record->first;
        const image_ptr image = record->second.image;
        if (with_fields)
            image->list(fields);
        sink.record(key, fields, TQ_MOM_OK);
        record = records.upper_bound(key);
    }
    return TQ_MOM_OK;
}

int mem_engine::subscribe(table_ref table, const key_range &range, change_sink &sink)
{
    if (bell_ == nullptr)
        bell_ = std::make_unique<loop_bell>(master_, on_bell, this);
    subscriptions_.push_back(std::make_unique<mem_subscription>(*this, store_->table(table), table, range, sink));
    return TQ_MOM_OK;
}

int mem_engine::mark(table_ref table, const key_range &range, uint64_t bound_seconds)
{
    marks_.set(table, range, {store_->table(table).last(), {}, false}, bound_seconds);
    return TQ_MOM_OK;
}

// It ends with its store, and nobody is there to see another.
int mem_engine::history(table_ref, const key_range &, tq_mom_history &out)
{
    out = {1, 1};
    return TQ_MOM_OK;
}

// When the time runs out the mark stays, and another call goes on from there.
int mem_engine::sweep(table_ref table, const key_range &range, uint32_t bound_ms)
{
    auto *mark = marks_.find(table, range);
    if (mark == nullptr)
        return TQ_MOM_NO_MARK;
    const uint64_t deadline = now_ms() + bound_ms;
    auto &records = store_->table(table);
    unsigned walked = 0;
    auto record = mark->begun ? records.records().upper_bound(mark->after) : records.records().lower_bound(range.begin);
    while (record != records.records().end() && range.contains(record->first)) {
        if (++walked % records_per_clock_read == 0 && now_ms() >= deadline) {
            mark->after = std::prev(record)->first;
            return mark->begun = true, TQ_MOM_UNFINISHED;
        }
        const auto current = record++;
        if (current->second.stamp <= mark->last)
            records.remove(current->first, writer_);
    }
    marks_.erase(table, range);
    return TQ_MOM_OK;
}

void mem_engine::wake()
{
    bell_->ring();
}

void mem_engine::on_bell(tq_loop_watch *, int, int, void *arg)
{
    auto *self = static_cast<mem_engine *>(arg);
    try {
        self->round();
    } catch (...) { // out of memory: the next round goes on
        self->wake();
    }
}

void mem_engine::round()
{
    bell_->silence();
    const uint64_t deadline = now_ms() + round_ms;
    bool more = true;
    while (more && now_ms() < deadline)
        more = turns();
    if (more)
        bell_->ring();
}

// One turn of each subscription.
bool mem_engine::turns()
{
    bool more = false;
    for (size_t i = 0; i < subscriptions_.size(); ++i) {
        more |= subscriptions_[i]->turn();
        if (more && i == 0 && subscriptions_[0]->is_publication())
            break; // it goes first, see tq_mom_subscribe
    }
    return more;
}

} // namespace mom
