// Rows as they are printed. See rows.hpp.
#include "display.hpp"
#include "rows.hpp"

#include <algorithm>
#include <iostream>

namespace plx::tool {

namespace {

// "match ipv4_src=10.0.0.0/8 action fwd=deny"
std::string flat(const Row &value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_object())
        return value.dump();
    std::string text;
    for (const auto &[name, inner] : value.items()) {
        text += text.empty() ? "" : " ";
        text += inner.is_object() ? name + " " + flat(inner) : name + "=" + flat(inner);
    }
    return text;
}

std::string cell(const Row &row, const std::string &column)
{
    std::string text = printable(flat(row[column]));
    const auto cut = row.find(cut_column);
    if (cut != row.end() && cut->contains(column))
        text += (text.empty() ? "... " : " ... ") + (*cut)[column].dump() + " bytes more";
    return text;
}

constexpr size_t widest = 256; // that a column is made: one long value does not fill every line

struct Column {
    std::string name;
    size_t width;
};

// The column of that name, added behind the others when it is new.
Column &column_of(std::vector<Column> &columns, const std::string &name)
{
    for (Column &column : columns)
        if (column.name == name)
            return column;
    return columns.emplace_back(Column{name, name.size()});
}

void print_line(const Row &row, const std::vector<Column> &columns)
{
    std::string line;
    for (const Column &column : columns) {
        const std::string text = row.contains(column.name) ? cell(row, column.name) : "";
        line += (line.empty() ? "" : "  ") + padded(text, column.width);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
}

} // namespace

std::string line_of(const Row &row)
{
    std::string line;
    for (const auto &[name, value] : row.items())
        if (name != cut_column)
            line += (line.empty() ? "" : " ") + name + (value.is_object() ? ' ' : '=') + cell(row, name);
    return line;
}

void print_table(const std::vector<Row> &rows)
{
    std::vector<Column> columns;
    for (const Row &row : rows)
        for (const auto &[name, value] : row.items()) {
            if (name == cut_column)
                continue;
            Column &column = column_of(columns, name);
            column.width = std::max(column.width, std::min(widest, width_of(cell(row, name))));
        }
    if (columns.empty())
        return;
    Row heading = Row::object();
    for (const Column &column : columns)
        heading[column.name] = column.name;
    print_line(heading, columns);
    for (const Row &row : rows)
        print_line(row, columns);
}

} // namespace plx::tool
