// What the store has otherwise than a policy asks for: what is to be written, which the ledger tells, and what is to be
// deleted. The deletions are here, too, since only here it is known what they are.
#pragma once

#include "ledger.hpp"
#include "policy_rows.hpp"
#include <functional>
#include <plx/libplx.h>
#include <plx/s_policy.pb-c.h>
#include <span>
#include <tq_context.h>
#include <utility>
#include <vector>

namespace plx::tool {

class StoreDifference {
  public:
    // All of them outlive it.
    StoreDifference(tq_context *context, uint32_t db, const Policy &policy, const PolicyRows &rows, Ledger &ledger);

    // Reads what the store has, handing each record to `take`. The rows of what is as it should be end as unchanged;
    // none does where nobody has ended a rewrite in the store's history (whole). 0, or the store's code.
    using Take = std::function<void(const ProtobufCMessage &)>;
    int compare(const Take &take);

    struct Changes {
        size_t added = 0, changed = 0, removed = 0;
        bool none() const { return added + changed + removed == 0; }
    };
    const Changes &changes() const { return changes_; }
    bool whole() const { return whole_; } // what the store has already is to be written, too

    // Has the library know what is in the store already.
    void know_unchanged() const;
    // Deletes the applies that the policy has in another direction.
    void remove_turned() const { remove(excess_.turned); }
    // Deletes what else the policy does not have; calls `breathe` on the way.
    void remove_excess(const std::function<void()> &breathe) const;

  private:
    using BoundApply = std::pair<fp_udp_acl_info, fp_udp_apply_key>;

    struct Excess {
        std::vector<fp_udp_acl_key> acls;
        std::vector<BoundApply> applies;
        std::vector<BoundApply> turned;
        std::vector<std::pair<uint32_t, uint64_t>> entries; // ACL, sn
    };

    void compare_acl(const SPolicy__Acl &record);
    void compare_apply(const SPolicy__Apply &record);
    void compare_ace(const SPolicy__Ace &record);
    template <typename Message>
    int compare(const ProtobufCMessageDescriptor &table, void (StoreDifference::*with)(const Message &),
                const Take &take);
    void differs(size_t row, bool same);
    void remove(std::span<const BoundApply> applies) const;

    tq_context *context_;
    uint32_t db_;
    const Policy &policy_;
    const PolicyRows &rows_;
    Ledger &ledger_;
    Changes changes_;
    Excess excess_;
    bool whole_ = false;
};

} // namespace plx::tool
