// See reading.hpp.
#include "plane/reading.hpp"

#include "records/policy_copy.hpp"
#include <optional>
#include <plx/plx_node.pb-c.h>
#include <tq_mom.h>
#include <utility>

namespace plx::plane {

namespace {

using TakeFound = std::function<void(const tq_mom_notification &found)>;

// The records that agree with the selection in so many key fields. The store client's result.
int scan(tq_context *context, uint32_t db, const Record &selection, uint32_t key_fields, TakeFound take)
{
    const auto on_found = [](void *, const tq_mom_notification *found, void *arg) -> int32_t {
        (*static_cast<TakeFound *>(arg))(*found);
        return 0;
    };
    return tq_mom_scan_sync(context, db, selection.message(), key_fields, on_found, &take);
}

} // namespace

bool read_tables(tq_context *context, uint32_t db, const std::string *app, const TakeWanted &take,
                 const std::function<void(size_t table)> &unreadable)
{
    for (size_t table = 0; table < tables().size(); ++table) {
        if (app != nullptr && !tables()[table].by_application)
            continue;
        Record selection(*tables()[table].requested);
        if (app != nullptr)
            selection.set_key_text(0, app->c_str());
        const auto take_found = [&](const tq_mom_notification &found) {
            auto key = found.result == 0 ? key_of(found.record) : std::nullopt;
            if (key)
                take(std::move(*key), requested_of(found.record));
            else
                unreadable(table);
        };
        if (scan(context, db, selection, app != nullptr ? 1 : 0, take_found) != 0)
            return false;
    }
    return true;
}

bool read_copies(tq_context *context, uint32_t db, const std::map<std::string, uint32_t> &slots, const TakeWanted &take)
{
    const auto take_copied = [&](const ProtobufCMessage &record) {
        if (auto key = key_of(&record))
            take(std::move(*key), requested_of(&record));
    };
    for (const auto &[app, slot] : slots) {
        Record copy(plx_node__policy_copy__descriptor);
        copy.set_key_text(0, app.c_str());
        copy.set_key_number(1, slot);
        const auto take_found = [&](const tq_mom_notification &found) { for_each_copied(found.record, take_copied); };
        if (scan(context, db, copy, 2, take_found) != 0)
            return false;
    }
    return true;
}

AnsweredRequests read_answered(tq_context *context, uint32_t db, const std::function<void()> &breathe)
{
    AnsweredRequests answered;
    const auto take_found = [&](const tq_mom_notification &found) {
        breathe();
        if (const auto key = key_of(found.record); key && found.result == 0)
            answered[*key] = number_field(found.record, "rep_uuid");
    };
    for (const Table &table : tables())
        (void)scan(context, db, Record(*table.status), 0, take_found);
    return answered;
}

} // namespace plx::plane
