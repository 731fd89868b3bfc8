// What differs between a policy and what the store holds of its application type, item by item.
//
// Equal items are told by their bytes; only what differs is spelled out. The state is a number over all records that
// were read, names included, by which a plan is known to be stale. What the store has is gathered on the way for who
// compares it with others.
#pragma once

#include "nodes/holdings.hpp"
#include <map>
#include <string>
#include <tq_context.h>
#include <tq_mom.h>
#include <tuple>
#include <vector>

namespace plx::tool {

struct ItemChange {
    char kind;                    // + - ~
    std::string item;             // "acl 10 entry 165 tiny-2"
    std::vector<std::string> how; // "action.meter: 1 -> 2"; of an addition what it is
    std::string record{};         // as nodes call it: "acl 10 sn 165"
    std::string how_text() const;
};

class PolicyDiff {
  public:
    explicit PolicyDiff(const Policy &policy) : policy_(policy) {}

    // Reads the store and compares. The store client's result. `there`: gets all that nodes are to program.
    int compare(tq_context *context, uint32_t db, Holdings *there = nullptr);

    // ACLs first, then applies, then entries, each in the order of its numbers.
    const std::vector<ItemChange> &changes() const { return changes_; }
    size_t count(char kind) const;
    size_t unchanged() const { return unchanged_; }
    size_t unreadable() const { return unreadable_; } // records, which are left out
    size_t applies() const { return applies_; }       // that the store has
    uint64_t state() const { return state_; }

  private:
    // Kind of the record, ACL, then what tells it from others of the ACL.
    using Id = std::tuple<int, uint32_t, uint64_t, uint32_t, uint32_t>;
    struct Item {
        const PolicyAcl *acl = nullptr;
        const PolicyApply *apply = nullptr;
        const PolicyEntry *entry = nullptr;
    };
    using Fields = std::vector<std::pair<std::string, std::string>>;

    static int32_t on_record(void *handle, const tq_mom_notification *found, void *arg);
    void take(const ProtobufCMessage &record);
    void compare(const Item &item, const ProtobufCMessage &record, const std::string &name);
    Fields fields(const Item &item) const;
    static Fields fields(const ProtobufCMessage &record);
    static std::string name(const Item &item);
    static std::string record_name(const Id &id);

    const Policy &policy_;
    std::map<Id, Item> wanted_; // that was not found yet
    std::vector<ItemChange> changes_;
    Holdings *there_ = nullptr;
    size_t unchanged_ = 0, unreadable_ = 0, applies_ = 0;
    uint64_t state_ = 0;
};

} // namespace plx::tool
