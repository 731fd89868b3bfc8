// The records of an application as one party has them - a policy file, the store - in the form in which they are
// compared with what others say that they have: a number for each key and for each content (records/digest.hpp). The
// file and the store themselves are compared attribute by attribute, by policy_diff.hpp.
#pragma once

#include "policy.hpp"
#include "records/digest.hpp"
#include <functional>

namespace plx::tool {

// Calls back for each record that a service node is to program of a policy.
void for_each_record(const Policy &policy, const std::function<void(const Key &, const Requested &)> &callback);

class Holdings {
  public:
    struct One {
        uint64_t key;
        uint64_t fingerprint;
        uint64_t request; // identifier of its last write; 0 in a file
        std::string name() const { return described(record); }
        Key record;
    };

    static Holdings of(const Policy &policy);

    void add(const Key &key, const Requested &wanted);
    // When all are added.
    void sort();

    const std::vector<One> &all() const { return all_; } // in the order of their keys' numbers
    const One *find(uint64_t key) const;
    PartDigests parts() const;  // over the contents
    PartDigests writes() const; // over the identifiers of the last writes

  private:
    std::vector<One> all_;
};

// Over all parts.
Digest sum(const PartDigests &parts);
// Those that differ.
std::vector<uint32_t> different_parts(const PartDigests &one, const PartDigests &other);

} // namespace plx::tool
