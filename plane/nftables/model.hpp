// What is in force, as far as the plane knows: the image in memory of the node's table.
#pragma once

#include "plane/nftables/pages.hpp"
#include "plane/nftables/tags.hpp"
#include "plane/packet/compile.hpp"
#include "records/record.hpp"
#include <set>
#include <string>

namespace plx::plane::nftables {

struct Acl {
    bool stands = false; // its head chain
    List list;
    std::map<uint64_t, EntryPointer> entries;
    std::set<uint64_t> defaults;               // of them, the default entries
    std::map<uint64_t, Requested> conditional; // those that stand only while there is no default entry
};

// An apply, or a port that is off. That of a port without an interface here has nothing in the kernel.
struct Applied {
    uint64_t request = 0;
    uint64_t fingerprint = 0;
    std::string interface;
};

struct Model {
    std::map<AclKey, Acl> acls;
    std::map<Key, Applied> hooks;
    std::set<std::string> counters; // objects that entries share
    size_t entries = 0;
};

// An entry that is to be, with its rules.
struct Prepared {
    EntryPointer entry;
    std::vector<packet::Rule> rules;
};

Prepared prepare(const AceKey &key, const Requested &wanted, packet::Compiled compiled);

} // namespace plx::plane::nftables
