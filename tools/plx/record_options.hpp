// Which of the store's records a command is about: the kinds that there are, the options that select, and the store.
#pragma once

#include "records/host.hpp"
#include "records/record.hpp"
#include <CLI/CLI.hpp>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::tool {

// The kinds of things that show and monitor know, each one table or several.
struct Kind {
    std::string name; // "ace"
    std::vector<const ProtobufCMessageDescriptor *> tables;
    const ProtobufCMessageDescriptor *status = nullptr; // the table that answers the only one
};
const std::vector<Kind> &kinds();
const Kind *find_kind(const std::string &name);

// Which store, and how to speak of it.
struct StoreOptions {
    std::string store = "unix:/run/plx-store/store.sock";
    uint32_t db = 8;
    bool json = false;

    void add_to(CLI::App &command);
};

// And which of its records.
struct RecordOptions : StoreOptions {
    std::string app;
    uint32_t acl = 0;
    uint64_t sn = 0;
    bool by_app = false, by_acl = false, by_sn = false;
    bool full = false;
    bool all = false;

    void add_to(CLI::App &command);

    // Puts into a record of a table the leading key fields that all those asked for have, and counts them. Whether they
    // are the whole key.
    bool select(Record &record, uint32_t &given) const;

    // Whether a record is one of those asked for. A table without such a key field has none of them.
    bool take(const ProtobufCMessage *record) const;
};

// A store's address without user and password, for messages.
std::string shown_address(const std::string &store);
// Says, by errno, why there is no context at an address; returns the exit code for it.
int tell_no_context(const std::string &store);

// Says what failed in the store, and what an operator can do about it. Returns the exit code for it.
int tell_store_error(const std::string &what, int result);

// A store, opened as one of these commands needs it; reports why not. Null when it cannot be reached.
Context open_store(const StoreOptions &options, int &exit_code);

} // namespace plx::tool
