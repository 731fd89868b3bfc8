// The store's records as rows of named columns, for those commands that show them.
//
// A row is a JSON object with its columns in order: `--json` prints it as it is, a table takes its columns from it.
// Records are others' work and hostile: text is shown escaped, and what is missing is left out.
#pragma once

#include "records/host.hpp"
#include <CLI/CLI.hpp>
#include <map>
#include <nlohmann/json.hpp>
#include <protobuf-c/protobuf-c.h>
#include <string>
#include <tq_mom.h>
#include <vector>

namespace plx::tool {

using Row = nlohmann::ordered_json;

// The kinds of things that show and monitor know, each one table or several.
struct Kind {
    std::string name; // "ace"
    std::vector<const ProtobufCMessageDescriptor *> tables;
    const ProtobufCMessageDescriptor *status = nullptr; // the table that answers the only one
};
const std::vector<Kind> &kinds();
const Kind *find_kind(const std::string &name);

// Which store, and which of its records.
struct RecordOptions {
    std::string store = "unix:/run/plx-store/store.sock";
    uint32_t db = 8;
    std::string app;
    uint32_t acl = 0;
    uint64_t sn = 0;
    bool by_app = false, by_acl = false, by_sn = false;
    bool json = false;

    void add_to(CLI::App &command);

    // Whether a record is one of those asked for. A table without such a key field has none of them.
    bool take(const ProtobufCMessage *record) const;
};

// A table's name without its package: "port_off".
std::string table_name(const ProtobufCMessageDescriptor &table);

// The key's fields, then the values; packed attributes are spelled out. A deletion has its key alone.
Row row_of(const ProtobufCMessage *record, bool with_values = true);

// One object a line.
void print_json(const Row &row);

// The row's values in one line, each behind its column's name.
void print_line(const Row &row);

// A heading and a line for each row. A column that no row fills is left out.
void print_table(const std::vector<Row> &rows);

// A store's address without user and password, for messages.
std::string shown_address(const std::string &store);

// A store, opened as one of these commands needs it; reports why not. Null when it cannot be reached.
Context open_store(const char *command, const RecordOptions &options, int &exit_code);

} // namespace plx::tool
