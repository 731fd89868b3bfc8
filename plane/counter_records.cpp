// See counter_records.hpp.
#include "plane/counter_records.hpp"

#include "records/record.hpp"
#include <algorithm>
#include <plx/s_policy.pb-c.h>
#include <tq_mom.h>
#include <utility>

namespace plx::plane {

namespace {

// What a turn publishes is a part of what a second may.
constexpr milliseconds counter_turn{100};
constexpr uint32_t turns_per_second = 10;

} // namespace

CounterRecords::CounterRecords(tq_context *context, const Options &options, Plane &plane, Outbox &outbox, Find find)
    : context_(context), options_(options), plane_(plane), outbox_(outbox), find_(std::move(find)),
      timer_(context->master, [this] { publish(); })
{
}

// One turn. A round ends when all have been read, and the next begins after a pause.
void CounterRecords::publish()
{
    outbox_.take_answers();
    if (read_.empty()) {
        read_ = plane_.counters();
        std::reverse(read_.begin(), read_.end()); // they are taken from the back
    }
    const bool over = read_.empty();
    const uint32_t most = std::max(options_.rate / turns_per_second, 1U);
    std::vector<CounterRecord *> sent;
    tq_mom_batch_begin(context_);
    for (; !read_.empty() && sent.size() < most; read_.pop_back())
        if (CounterRecord *told = send(Key(read_.back().first), read_.back().second))
            sent.push_back(told);
    std::vector<int> results(sent.size());
    tq_mom_batch_end(context_, results.data(), static_cast<uint32_t>(results.size()));
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i]->told = results[i] == 0; // else they are published again
    timer_.start(over ? options_.interval : std::min(counter_turn, options_.interval));
}

// The entry's, where there was something to tell.
CounterRecord *CounterRecords::send(const Key &ace, const Counters &counters)
{
    CounterRecord *record = find_(ace);
    if (record == nullptr || (record->told && record->published == counters) || write(ace, counters) != 0)
        return nullptr;
    record->published = counters;
    record->counted = true;
    return record;
}

// The second pair of counters stays 0: no plane here counts twice.
int CounterRecords::write(const Key &ace, const Counters &counters)
{
    Record record(s_policy__ace_counter__descriptor, ace);
    record.set_number("counter_byte", counters.bytes);
    record.set_number("counter_pkt", counters.packets);
    record.set_number("timestamp", wall_clock_ms());
    return tq_mom_set_sync(context_, options_.db, record.message());
}

} // namespace plx::plane
