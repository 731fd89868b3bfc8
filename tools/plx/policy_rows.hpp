// Where the parts of a policy are among the rows of its ledger: ACLs in the order of the file, each followed by its
// applies and then its entries. And the other way, for people: what a row is about.
#pragma once

#include "policy.hpp"
#include "records/record.hpp"
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace plx::tool {

class PolicyRows {
  public:
    // An ACL's rows: its own, its applies', its entries'.
    struct Acl {
        const PolicyAcl *policy;
        size_t row;
        std::vector<const PolicyApply *> applies{};
        std::vector<uint32_t> order{}; // of the entries by their sn, where that is not the file's
        size_t first_apply() const { return row + 1; }
        size_t first_entry() const { return first_apply() + applies.size(); }
    };

    // The policy outlives it.
    explicit PolicyRows(const Policy &policy);

    size_t size() const { return size_; }
    const std::vector<Acl> &acls() const { return acls_; } // in the order of the file
    std::string label(size_t row) const;

    const Acl *find_acl(uint32_t acl) const; // nullptr where the policy has none, as nullopt below
    std::optional<size_t> find_ace(uint32_t acl, uint64_t sn) const;
    std::optional<size_t> find_apply(uint32_t acl, uint32_t port, uint32_t priority) const;
    std::optional<size_t> find(const Key &key) const;

    // Of what is the policy's.
    const Acl &of(const PolicyAcl &acl) const { return acls_[acl_numbers_.at(acl.id)]; }
    const Acl &owner(const PolicyApply &apply) const { return acls_[acl_numbers_.at(apply.acl)]; }
    size_t of(const PolicyApply &apply) const { return apply_rows_.at({apply.acl, apply.port, apply.priority}); }

  private:
    using ApplyId = std::tuple<uint32_t, uint32_t, uint32_t>; // ACL, port, priority

    static void sort_entries(Acl &acl);

    size_t size_ = 0;
    std::vector<Acl> acls_;
    std::map<uint32_t, size_t> acl_numbers_; // where each is in acls_
    std::map<ApplyId, size_t> apply_rows_;
};

} // namespace plx::tool
