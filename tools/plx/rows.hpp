// The store's records as rows of named columns, for those commands that show them.
//
// A row is a JSON object with its columns in order: `--json` prints it as a line, a table takes its columns from it.
// Records are others' work and hostile: text is shown escaped, what is missing is left out, and what is very long is
// cut. A row with something cut has one column more, "cut": how many bytes more each of the columns in it has.
#pragma once

#include "output.hpp"
#include <protobuf-c/protobuf-c.h>
#include <string>
#include <vector>

namespace plx::tool {

constexpr const char *cut_column = "cut";

// A table's name without its package: "port_off".
std::string table_name(const ProtobufCMessageDescriptor &table);

// The key's fields, then the values; packed attributes are spelled out, and private data that is text is a name, too.
// A deletion has its key alone.
Row row_of(const ProtobufCMessage *record, bool full, bool with_values = true);

// Without what is between programs: request identifiers and the like, and private data that is shown as a name.
Row without_internal(const Row &row);

// The row's values in one line, each behind its column's name.
std::string line_of(const Row &row);

// A heading and a line for each row. A column that no row fills is left out.
void print_table(const std::vector<Row> &rows);

} // namespace plx::tool
