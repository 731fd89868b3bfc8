// Reading the store's tables for a node: what is asked for, in the tables or in the copies that stand for them under a
// hold, and which requests have an answer.
//
// An exception that a callback lets out ends the reading as a failure of the store does: it is made again.
#pragma once

#include "records/record.hpp"
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tq_context.h>
#include <unordered_map>

namespace plx::plane {

using TakeWanted = std::function<void(Key key, Requested wanted)>;

// The tables, of one application or (nullptr) whole; `unreadable` hears of each record that could not be read, and its
// table. False when the store did not answer.
[[nodiscard]] bool read_tables(tq_context *context, uint32_t db, const std::string *app, const TakeWanted &take,
                               const std::function<void(size_t table)> &unreadable);

// The copies in the slots of applications. False when the store did not answer.
[[nodiscard]] bool read_copies(tq_context *context, uint32_t db, const std::map<std::string, uint32_t> &slots,
                               const TakeWanted &take);

// The requests that the store shows an answer to, as far as it can be read; `breathe` is called on the way.
using AnsweredRequests = std::unordered_map<Key, uint64_t, KeyHash>;
AnsweredRequests read_answered(tq_context *context, uint32_t db, const std::function<void()> &breathe);

} // namespace plx::plane
