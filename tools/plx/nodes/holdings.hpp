// The records of an application as one party has them - a policy file, the store - in a form in which parties are
// compared: a number for each key and for each content (records/digest.hpp).
#pragma once

#include "policy.hpp"
#include "records/digest.hpp"
#include <map>
#include <tq_context.h>

namespace plx::tool {

class Holdings {
  public:
    struct One {
        uint64_t key;
        uint64_t fingerprint;
        std::string name() const { return described(record); }
        Key record;
    };

    // What a service node is to program of a policy.
    static Holdings of(const Policy &policy);
    // What the store asks for of an application. The store client's result; `unreadable` counts what cannot be read.
    static int read(tq_context *context, uint32_t db, const std::string &app, Holdings &holdings, size_t &unreadable);

    const std::vector<One> &all() const { return all_; } // in the order of their keys' numbers
    const One *find(uint64_t key) const;
    PartDigests parts() const;
    const std::map<uint32_t, uint32_t> &acls() const { return acls_; } // their classes, by number

  private:
    void add(const Key &key, const Requested &wanted);
    void sort();

    std::vector<One> all_;
    std::map<uint32_t, uint32_t> acls_;
};

struct Difference {
    std::string name; // "acl 10 sn 150"
    std::string what; // "not in the store"
    int32_t status = 0;
};

// What two have differently; `one` and `other` are their names in the text.
std::vector<Difference> differences(const Holdings &one, const Holdings &other, const std::string &one_name,
                                    const std::string &other_name);

} // namespace plx::tool
