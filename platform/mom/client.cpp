// tq_mom.h over an engine: arguments are checked, records encoded and decoded, and exceptions stopped here.
#include "client.hpp"

#include "platform/guard.hpp"
#include "wire.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <tuple>

using namespace mom;

namespace {

thread_local std::vector<const void *> batching; // handles whose calls are collected

struct target {
    tq_mom_client *client;
    table_ref table;
    const ProtobufCMessage *key;
};

int resolve(void *handle, uint32_t db, const ProtobufCMessage *record, target &out)
{
    out.client = handle == nullptr ? nullptr : static_cast<tq_context *>(handle)->mom;
    if (out.client == nullptr || !is_message(record))
        return TQ_MOM_INVALID;
    const auto *type = out.client->types.find(record->descriptor);
    if (type == nullptr)
        return TQ_MOM_INVALID;
    out.table = {db, type};
    out.key = key_of(*type, *record);
    const bool foreign_key = out.key != nullptr && out.key->descriptor != type->index->descriptor;
    return foreign_key ? TQ_MOM_INVALID : TQ_MOM_OK;
}

// Runs `body`; no exception leaves.
template <typename Body> int call_engine(void *handle, Body body) noexcept
try {
    auto *client = handle == nullptr ? nullptr : static_cast<tq_context *>(handle)->mom;
    return client == nullptr ? TQ_MOM_INVALID : static_cast<int>(body(*client->engine));
} catch (...) {
    return platform::thrown_result();
}

int counted(void *handle, int result) noexcept
{
    auto *client = handle == nullptr ? nullptr : static_cast<tq_context *>(handle)->mom;
    if (client != nullptr)
        client->engine->count(result);
    return result;
}

// The same, on what the arguments name; and counts.
template <typename Body> int call(void *handle, uint32_t db, const ProtobufCMessage *record, Body body) noexcept
try {
    target target{};
    const int resolved = resolve(handle, db, record, target);
    return counted(handle, resolved != TQ_MOM_OK ? resolved : body(target));
} catch (...) {
    return counted(handle, platform::thrown_result());
}

template <typename Body>
int call_selected(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, Body body) noexcept
{
    return call(handle, db, record, [&](const target &target) -> int {
        const auto &fields = target.table.type->key_fields;
        if (selection > fields.size())
            return TQ_MOM_INVALID;
        return body(target, select_keys(fields, target.key, selection));
    });
}

std::string_view key_text(const target &target)
{
    auto &text = target.client->key;
    const auto &fields = target.table.type->key_fields;
    text.clear();
    append_key_text(text, fields, target.key, fields.size());
    return text;
}

class scan_sink final : public record_sink {
  public:
    scan_sink(const target &target, const listener &to) : target_(target), to_(to) {}
    void record(std::string_view key, field_values fields, int result) override
    {
        if (told_ == TQ_MOM_OK)
            told_ =
                target_.client->notify(to_, *target_.table.type, key, fields, {TQ_MOM_EVENT_SET, nullptr, result, 0});
    }
    /// Of the callback, which is not called again once it failed.
    int told() const { return told_; }

  private:
    int told_ = TQ_MOM_OK;
    target target_;
    listener to_;
};

class read_sink final : public record_sink {
  public:
    read_sink(const target &target, tq_mom_hash_res &out) : target_(target), out_(out) {}
    void record(std::string_view key, field_values fields, int result) override
    {
        if (result == TQ_MOM_OK)
            out_.record = decode_record(*target_.table.type, key, fields, target_.client->scratch);
        out_.status = out_.record == nullptr ? TQ_MOM_CORRUPT : TQ_MOM_OK;
    }

  private:
    target target_;
    tq_mom_hash_res &out_;
};

constexpr size_t longest_record = size_t{16} << 20; // whatever it holds, readers take it in

int write(const target &target, write_mode mode)
{
    const auto fields = target.client->encoder.fields();
    const auto key = key_text(target);
    if (fields.bytes.size() + key.size() > longest_record)
        return TQ_MOM_TOO_BIG;
    return target.client->engine->write(target.table, key, fields, mode);
}

int32_t event_of(const record_type &type, change_kind kind)
{
    if (kind == change_kind::resync)
        return TQ_MOM_EVENT_RESYNC;
    if (kind == change_kind::deleted)
        return TQ_MOM_EVENT_DELETED;
    switch (type.kind) {
    case record_kind::requested:
        return TQ_MOM_EVENT_SET;
    case record_kind::status:
        return TQ_MOM_EVENT_STATUS;
    case record_kind::publication:
        break;
    }
    return TQ_MOM_EVENT_PUBLISHED;
}

} // namespace

void subscription::deliver(const change &change)
{
    const tq_mom_notification told{event_of(*table_.type, change.kind), nullptr, change.result, change.echo ? 1 : 0};
    if (change.kind == change_kind::resync)
        std::ignore = client_.tell(to_, told); // an exception has nobody else to go to, and is counted
    else
        std::ignore = client_.notify(to_, *table_.type, change.key, change.fields, told);
    ++client_.engine->counters.delivered;
}

int tq_mom_client::tell(const listener &to, const tq_mom_notification &notification) noexcept
try {
    to.callback(to.handle, &notification, to.arg);
    return TQ_MOM_OK;
} catch (...) {
    ++engine->counters.exceptions;
    return platform::thrown_result();
}

int tq_mom_client::notify(const listener &to, const record_type &type, std::string_view key_text, field_values fields,
                          tq_mom_notification notification)
{
    ProtobufCMessage *record = nullptr;
    if (notification.result == TQ_MOM_OK) {
        record = decode_record(type, key_text, fields, scratch);
        notification.result = record == nullptr ? TQ_MOM_CORRUPT : TQ_MOM_OK;
    }
    notification.record = record;
    const int told = tell(to, notification);
    protobuf_c_message_free_unpacked(record, nullptr);
    return told;
}

int tq_mom_client_connect_sync(void *handle, uint32_t)
{
    return counted(handle, call_engine(handle, [](engine &engine) { return engine.connect(); }));
}

int tq_mom_state_get(void *handle, uint32_t, int)
{
    return call_engine(handle, [](engine &engine) { return engine.state(); });
}

void mom::forget_batch(const void *handle) noexcept
{
    std::erase(batching, handle);
}

int tq_mom_batch_open(const void *handle)
{
    return std::find(batching.begin(), batching.end(), handle) != batching.end() ? 1 : 0;
}

int tq_mom_batch_begin(void *handle)
{
    return call_engine(handle, [handle](engine &engine) -> int {
        if (tq_mom_batch_open(handle) != 0)
            return TQ_MOM_INVALID;
        batching.push_back(handle);
        engine.begin_batch();
        return TQ_MOM_OK;
    });
}

void tq_mom_batch_send(void *handle)
{
    // What fails here is told at the end.
    std::ignore = call_engine(handle, [](engine &engine) { return engine.send_batch(), TQ_MOM_OK; });
}

int tq_mom_batch_end(void *handle, int *results, uint32_t count)
{
    const std::span room(results, results == nullptr ? 0 : count);
    forget_batch(handle);
    return call_engine(handle, [&](engine &engine) { return engine.end_batch(room); });
}

int tq_mom_hmset_sync(void *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields, uint32_t count)
{
    return call(handle, db, record, [&](const target &target) -> int {
        auto &encoder = target.client->encoder;
        if ((fields == nullptr && count > 0) || !encoder.encode_listed(*target.table.type, *record, {fields, count}))
            return TQ_MOM_INVALID;
        return write(target, write_mode::merge);
    });
}

int tq_mom_set_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    return call(handle, db, record, [&](const target &target) -> int {
        target.client->encoder.encode_all(*target.table.type, *record);
        return write(target, write_mode::replace);
    });
}

tq_mom_hash_res *tq_mom_hgetall_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    tq_mom_hash_res found{TQ_MOM_OK, nullptr};
    const int read = call(handle, db, record, [&](const target &target) -> int {
        read_sink sink(target, found);
        const std::string key(key_text(target));
        return target.client->engine->read(target.table, key, sink);
    });
    const bool not_asked = read == TQ_MOM_INVALID || read == TQ_MOM_NO_MEMORY || read == TQ_MOM_DISCONNECTED;
    auto *result = not_asked ? nullptr : static_cast<tq_mom_hash_res *>(std::malloc(sizeof found));
    if (result == nullptr) {
        protobuf_c_message_free_unpacked(found.record, nullptr);
        return nullptr;
    }
    *result = found;
    if (read != TQ_MOM_OK)
        result->status = read;
    return result;
}

void tq_mom_hash_res_free(tq_mom_hash_res *res)
{
    if (res == nullptr)
        return;
    protobuf_c_message_free_unpacked(res->record, nullptr);
    std::free(res);
}

int tq_mom_del_sync(void *handle, uint32_t db, const ProtobufCMessage *record)
{
    return call(handle, db, record,
                [](const target &target) { return target.client->engine->remove(target.table, key_text(target)); });
}

namespace {

int scan(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb, void *arg,
         int (engine::*walk)(table_ref, const key_range &, record_sink &))
{
    if (cb == nullptr)
        return TQ_MOM_INVALID;
    return call_selected(handle, db, record, selection, [&](const target &target, const key_range &range) {
        scan_sink sink(target, {handle, cb, arg});
        const int result = (target.client->engine.get()->*walk)(target.table, range, sink);
        return result == TQ_MOM_OK ? sink.told() : result;
    });
}

} // namespace

int tq_mom_scan_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    return scan(handle, db, record, selection, cb, arg, &engine::scan);
}

int tq_mom_scan_keys_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection,
                          tq_mom_callback cb, void *arg)
{
    return scan(handle, db, record, selection, cb, arg, &engine::scan_keys);
}

int tq_mom_subscribe(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, tq_mom_callback cb,
                     void *arg)
{
    if (cb == nullptr)
        return TQ_MOM_INVALID;
    return call_selected(handle, db, record, selection, [&](const target &target, const key_range &range) -> int {
        auto &client = *target.client;
        const listener to{handle, cb, arg};
        for (const auto &known : client.subscriptions)
            if (known->is_for(target.table, range, to))
                return TQ_MOM_OK;
        auto added = std::make_unique<subscription>(client, target.table, range, to);
        client.subscriptions.reserve(client.subscriptions.size() + 1); // once the engine has it, it has to stay
        const int subscribed = client.engine->subscribe(target.table, range, *added);
        if (subscribed == TQ_MOM_OK)
            client.subscriptions.push_back(std::move(added));
        return subscribed;
    });
}

int tq_mom_dsbegin_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint64_t bound)
{
    return call_selected(handle, db, record, selection, [&](const target &target, const key_range &range) {
        return target.client->engine->mark(target.table, range, bound);
    });
}

int tq_mom_dsend_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection, uint32_t bound)
{
    return call_selected(handle, db, record, selection, [&](const target &target, const key_range &range) {
        return target.client->engine->sweep(target.table, range, bound);
    });
}

int tq_mom_history_sync(void *handle, uint32_t db, const ProtobufCMessage *record, uint32_t selection,
                        tq_mom_history *history)
{
    if (history == nullptr)
        return TQ_MOM_INVALID;
    return call_selected(handle, db, record, selection, [&](const target &target, const key_range &range) {
        return target.client->engine->history(target.table, range, *history);
    });
}

namespace {

struct result_row {
    const char *text;
    const char *advice;
};
#define ROW(name, number, text, advice) {text, advice},
constexpr result_row result_rows[] = {TQ_MOM_RESULTS(ROW)};
#undef ROW
static_assert(std::size(result_rows) == TQ_MOM_RESULT_COUNT, "the numbers of the list go up one by one");

const result_row *row_of(int result)
{
    return result >= 0 && result < TQ_MOM_RESULT_COUNT ? &result_rows[result] : nullptr;
}

} // namespace

const char *tq_mom_strerror(int result)
{
    const auto *row = row_of(result);
    return row == nullptr ? "unknown result" : row->text;
}

const char *tq_mom_advice(int result)
{
    const auto *row = row_of(result);
    return row == nullptr || *row->advice == '\0' ? nullptr : row->advice;
}

int tq_mom_counters_get(void *handle, tq_mom_counters *counters)
{
    auto *client = handle == nullptr ? nullptr : static_cast<tq_context *>(handle)->mom;
    if (client == nullptr || counters == nullptr)
        return TQ_MOM_INVALID;
    *counters = client->engine->counters;
    return TQ_MOM_OK;
}
