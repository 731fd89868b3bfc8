// An application's records in the store as a whole: kept aside before they are written, held, put back.
//
// Keeping writes the copy that is not in use, so that who dies in the middle of it leaves the last one whole. While the
// application is held (records/policy_copy.hpp) nodes keep to the copy, whatever happens to the tables and to us.
#pragma once

#include "policy_sum.hpp"
#include "records/host.hpp"
#include <array>
#include <optional>
#include <string>
#include <vector>

namespace plx::tool {

// Whether the application's entries were written as a whole since the store's history began. What nodes hold of a
// history that is lost they hold until then. What cannot be asked is left as it is.
bool rewritten_before(tq_context *context, uint32_t db, const std::string &app);

class PolicyStore {
  public:
    // More records than this are not kept but for a hold.
    static constexpr size_t most_kept = 100'000;

    // An application's records as they were read, packed, in the order of the tables.
    class Copy {
      public:
        // Of more records it keeps none.
        explicit Copy(size_t most) : most_(most) {}
        void add(const ProtobufCMessage &record);
        bool whole() const { return count_ <= most_; }

      private:
        friend PolicyStore;
        struct Part {
            std::array<std::vector<std::vector<uint8_t>>, 3> records;
            size_t size = 0;
        };
        size_t most_, count_ = 0;
        std::vector<Part> parts_ = std::vector<Part>(1);
    };

    // The context outlives it.
    PolicyStore(tq_context *context, uint32_t db, std::string app) : context_(context), db_(db), app_(std::move(app)) {}

    // All results are the store client's.

    // The copy's slot when the application is held: by an apply that died, if by nobody else.
    int held(std::optional<uint32_t> &slot) const;
    // Takes up the tables as they are.
    int read(Copy &copy) const;
    // Writes the copy into the slot that is not `used`.
    int keep(std::optional<uint32_t> used, const Copy &copy, std::optional<uint32_t> &slot);
    // Which copy is the policy before the last.
    int kept(std::optional<uint32_t> &slot) const;
    int set_kept(uint32_t slot);
    // Keeps the copy as the policy before the last. Where it is not whole there is none from then on: an older one
    // would not be that.
    int keep_before(const Copy &copy, std::optional<uint32_t> &slot);

    int hold(uint32_t slot);
    int release(); // from here on the tables are the policy
    // Makes the tables what the copy has, under new requests. Only what differs is written; `changes` counts it.
    int put_back(uint32_t slot, size_t &changes);
    // Adds what nodes have that have programmed all that the tables ask for; or of those tables alone that are not
    // kept.
    int digest(Digest &digest, bool others_alone) const;
    // Over the tables that a policy is in.
    int sum(PolicySum &sum) const;

  private:
    int write(uint32_t slot, uint32_t number, const Copy::Part &part);
    int clear(uint32_t slot);

    tq_context *context_;
    uint32_t db_;
    std::string app_;
};

} // namespace plx::tool
