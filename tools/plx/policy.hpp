// A policy as `plx apply` takes it from a file: checked whole, attributes packed as the library packs them.
#pragma once

#include "document.hpp"
#include "file_digest.hpp"
#include "records/attribute.hpp"
#include <deque>
#include <memory>
#include <optional>
#include <span>

namespace plx::tool {

// Bytes that stay where they were put, as long as the pool.
class BytePool {
  public:
    const uint8_t *add(std::span<const uint8_t> first, std::span<const uint8_t> second);

  private:
    std::vector<std::unique_ptr<uint8_t[]>> chunks_;
    std::span<uint8_t> room_; // of the last
};

struct PolicyEntry {
    uint64_t sn = 0;
    uint64_t priority = 0;
    const uint8_t *bytes = nullptr; // in the policy's pool: name, then attributes
    Position at;
    uint16_t packed_size = 0;
    uint8_t name_size = 0;
    bool is_default = false;

    // Kept as private data; may be empty.
    std::string_view name() const { return {reinterpret_cast<const char *>(bytes), name_size}; }
    std::span<const uint8_t> attributes() const { return {bytes + name_size, packed_size}; }
};

struct PolicyAcl {
    Position at;
    uint32_t id = 0;
    std::string name{};
    uint8_t cls = 0;
    std::deque<PolicyEntry> entries{}; // in the order of the file
};

struct PolicyApply {
    Position at;
    uint32_t acl = 0;
    uint32_t port = 0;
    uint32_t direction = 0;
    uint32_t priority = 0;
};

struct Policy {
    std::string application;
    std::vector<PolicyAcl> acls;
    std::vector<PolicyApply> applies;
    BytePool pool;
    bool names_files = false;         // of values
    std::optional<FileDigest> file{}; // that it is, where that is a file and names no other
};

// The policy that a stream holds; nullopt, with all that is wrong, when anything is. Files that it names are looked for
// in `directory`.
std::optional<Policy> read_policy(std::istream &in, const std::string &directory, Errors &errors);
// The same, of a file; - is standard input.
std::optional<Policy> read_policy(const std::string &path, Errors &errors);

std::string_view direction_name(uint32_t direction);

} // namespace plx::tool
