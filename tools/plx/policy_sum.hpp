// What the records of a policy add up to, names included: two policies of the same sum ask for the same. And what the
// store keeps of a file that was applied, so that a file of the same bytes need not be read to compare it.
#pragma once

#include "file_digest.hpp"
#include "policy.hpp"
#include "records/digest.hpp"
#include <tq_context.h>

namespace plx::tool {

class PolicySum {
  public:
    PolicySum() = default;
    explicit PolicySum(const Policy &policy);

    // A record of the store; what is none of a policy, or cannot be read, is left out.
    void add(const ProtobufCMessage &record);

    const Digest &all() const { return all_; }
    const Digest &on_nodes() const { return on_nodes_; } // what a node has that has programmed all

  private:
    void add_acl(uint32_t acl, uint32_t cls, std::span<const uint8_t> name);
    void add(const Key &key, const Requested &wanted, std::span<const uint8_t> name);

    Digest all_, on_nodes_;
};

// A file that was applied, and the sum of what it asks for.
struct KnownFile {
    FileDigest file;
    std::string application;
    Digest sum;
};

// The one with these bytes, if the store knows it. The store client's result.
int find_file(tq_context *context, uint32_t db, const FileDigest &file, std::optional<KnownFile> &known);
// In place of the application's last. The store client's result.
int keep_file(tq_context *context, uint32_t db, const KnownFile &known);

} // namespace plx::tool
